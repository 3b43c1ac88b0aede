// SPDX-License-Identifier: GPL-2.0-or-later
#include "TrayController.h"

#include <QFileDialog>
#include <QMenu>
#include <QSystemTrayIcon>

#include "AppIcon.h"

namespace kuv {
namespace shell {

TrayController::TrayController(QObject* parent) : QObject(parent)
{
    if (!QSystemTrayIcon::isSystemTrayAvailable()) {
        return;
    }
    m_menu = std::make_unique<QMenu>();
    m_open = m_menu->addAction(QString());
    m_scanFolder = m_menu->addAction(QString());
    m_menu->addSeparator();
    m_quit = m_menu->addAction(QString());
    m_open->setObjectName(QStringLiteral("kuvTrayOpen"));
    m_scanFolder->setObjectName(QStringLiteral("kuvTrayScanFolder"));
    m_quit->setObjectName(QStringLiteral("kuvTrayQuit"));
    connect(m_open, &QAction::triggered, this, &TrayController::openRequested);
    connect(m_quit, &QAction::triggered, this, &TrayController::quitRequested);
    connect(m_scanFolder, &QAction::triggered, this, [this]() {
        const QString dir = QFileDialog::getExistingDirectory(nullptr, tr("Scan a folder"));
        if (!dir.isEmpty()) {
            emit scanFolderRequested(dir);
        }
    });
    m_tray = std::make_unique<QSystemTrayIcon>();
    m_tray->setContextMenu(m_menu.get());
    connect(m_tray.get(), &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick) {
            emit openRequested();
        }
    });
    retranslate();
    update();
    m_tray->show();
}

TrayController::~TrayController() = default;

bool TrayController::shown() const
{
    return m_tray && m_tray->isVisible();
}

QIcon TrayController::stateIcon(State state)
{
    return appIcon(state == STATE_ATTENTION ? 2 : state == STATE_SCANNING ? 1 : 0);
}

QString TrayController::stateText() const
{
    switch (m_state) {
    case STATE_SCANNING:
        return tr("kuvgui: scanning");
    case STATE_ATTENTION:
        return tr("kuvgui: attention needed - %n finding(s) waiting for a decision", nullptr, int(m_pending));
    case STATE_PROTECTED:
        break;
    }
    return tr("kuvgui: protected");
}

void TrayController::setScanning(bool scanning)
{
    m_scanning = scanning;
    update();
}

void TrayController::setPendingFindings(qint64 count)
{
    m_pending = count;
    update();
}

void TrayController::update()
{
    const State next = m_pending > 0 ? STATE_ATTENTION : m_scanning ? STATE_SCANNING : STATE_PROTECTED;
    const bool changed = next != m_state;
    m_state = next;
    // Every scan job sets the state twice; the desktop hears of the icon and tooltip only when they change.
    if (m_tray && (changed || !m_iconSet)) {
        m_tray->setIcon(stateIcon(m_state));
        m_iconSet = true;
    }
    const QString text = stateText();
    const bool textChanged = text != m_text;
    if (textChanged) {
        m_text = text;
        if (m_tray) {
            m_tray->setToolTip(text);
        }
    }
    if (changed) {
        emit stateChanged(m_state);
    }
    if (textChanged) {
        emit stateTextChanged();
    }
}

void TrayController::retranslate()
{
    if (!m_menu) {
        return;
    }
    m_open->setText(tr("Open kuvgui"));
    m_scanFolder->setText(tr("Scan a folder..."));
    m_quit->setText(tr("Quit"));
    m_text = stateText();
    m_tray->setToolTip(m_text);
}

} // namespace shell
} // namespace kuv
