#include "EventViewerPlugin.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLocale>
#include <QPushButton>
#include <QTableWidget>
#include <QVBoxLayout>

namespace kuvplugin {

namespace {
// The page is a recent-history view, not an archive.
constexpr int kMaxRows = 500;
} // namespace

EventViewerPage::EventViewerPage(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("kuvEventViewerPage"));
    auto* layout = new QVBoxLayout(this);
    m_heading = new QLabel(this);
    QFont big = m_heading->font();
    big.setPointSizeF(big.pointSizeF() * 1.3);
    big.setBold(true);
    m_heading->setFont(big);
    layout->addWidget(m_heading);
    m_busState = new QLabel(this);
    m_busState->setObjectName(QStringLiteral("kuvEventViewerBus"));
    m_busState->setWordWrap(true);
    layout->addWidget(m_busState);
    m_table = new QTableWidget(0, 4, this);
    m_table->setObjectName(QStringLiteral("kuvEventViewerTable"));
    m_table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_table->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_table->verticalHeader()->setVisible(false);
    m_table->horizontalHeader()->setStretchLastSection(true);
    layout->addWidget(m_table, 1);
    auto* bottom = new QHBoxLayout();
    m_count = new QLabel(this);
    m_clear = new QPushButton(this);
    bottom->addWidget(m_count, 1);
    bottom->addWidget(m_clear);
    layout->addLayout(bottom);
    connect(m_clear, &QPushButton::clicked, this, [this]() {
        m_table->setRowCount(0);
        m_total = 0;
        retranslate();
    });
    retranslate();
}

void EventViewerPage::setBus(kuvsdk::PluginEndpoint::State state, const QString& guid, int error)
{
    m_state = state;
    m_guid = guid;
    m_error = error;
    retranslate();
}

void EventViewerPage::addMessage(const kuvsdk::BusMessage& message)
{
    ++m_total;
    m_table->insertRow(0);
    const QString time = QLocale().toString(message.received, QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    QString text = kuvsdk::printable(message.body);
    if (message.truncated) {
        text += QChar(0x2026);
    }
    const QStringList cells{time, QString::number(message.type),
                            message.sender.isEmpty() ? QStringLiteral("-") : message.sender, text};
    for (int c = 0; c < cells.size(); ++c) {
        auto* item = new QTableWidgetItem(cells[c]);
        item->setToolTip(cells[c]);
        m_table->setItem(0, c, item);
    }
    while (m_table->rowCount() > kMaxRows) {
        m_table->removeRow(m_table->rowCount() - 1);
    }
    m_table->resizeColumnToContents(0);
    m_table->resizeColumnToContents(1);
    retranslate();
}

int EventViewerPage::rowCount() const
{
    return m_table->rowCount();
}

void EventViewerPage::retranslate()
{
    setWindowTitle(tr("Security events"));
    m_heading->setText(tr("Security events"));
    switch (m_state) {
    case kuvsdk::PluginEndpoint::ON_BUS:
        m_busState->setText(tr("Listening on the message bus as %1 for event messages (type %2).")
                                .arg(m_guid)
                                .arg(kEventMessageType));
        break;
    case kuvsdk::PluginEndpoint::NAME_REFUSED:
        m_busState->setText(tr("The bus refused the address %1 (error %2); no events can arrive.")
                                .arg(m_guid)
                                .arg(m_error));
        break;
    case kuvsdk::PluginEndpoint::NO_ENDPOINT:
        m_busState->setText(tr("Not connected to the message bus; no events can arrive."));
        break;
    }
    m_table->setHorizontalHeaderLabels({tr("Time"), tr("Type"), tr("Sender"), tr("Message")});
    m_count->setText(tr("%n event(s) received", nullptr, m_total));
    m_clear->setText(tr("Clear"));
}

void EventViewerPage::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange) {
        retranslate();
    }
    QWidget::changeEvent(event);
}

EventViewerPlugin::~EventViewerPlugin()
{
    uninit();
}

int EventViewerPlugin::init(const QVariant& paras)
{
    return m_plugin.open(paras, kEventViewerGuid, kEventMessageType,
                         [](EventViewerPage* page, const kuvsdk::BusMessage& m) { page->addMessage(m); }, "eventviewer");
}

void EventViewerPlugin::uninit()
{
    m_plugin.close();
}

QString EventViewerPlugin::title() const
{
    return EventViewerPage::tr("Security events");
}

} // namespace kuvplugin
