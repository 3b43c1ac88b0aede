// SPDX-License-Identifier: GPL-2.0-or-later
#include "StorePage.h"

#include <QEvent>
#include <QLabel>
#include <QVBoxLayout>

#include "KuvPluginSupport.h"

namespace kuv {
namespace shell {

StorePage::StorePage(const QString& name, QWidget* parent) : QWidget(parent), m_layout(new QVBoxLayout(this))
{
    setObjectName(name);
    m_title = kuvsdk::headingLabel(this);
    m_hint = new QLabel(this);
    m_hint->setWordWrap(true);
    m_message = new QLabel(this);
    m_message->setWordWrap(true);
    m_message->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_layout->addWidget(m_title);
    m_layout->addWidget(m_hint);
}

QString StorePage::message() const
{
    return m_message->text();
}

void StorePage::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange) {
        languageChanged();
    }
    QWidget::changeEvent(event);
}

void StorePage::showEvent(QShowEvent* event)
{
    refresh();
    QWidget::showEvent(event);
}

} // namespace shell
} // namespace kuv
