#include "ProtectionStatusPlugin.h"

#include <QDateTime>
#include <QEvent>
#include <QHeaderView>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLocale>
#include <QTableWidget>
#include <QVBoxLayout>

namespace kuvplugin {

namespace {
// A status report names a handful of modules; a flood of new names is not one.
constexpr int kMaxModules = 64;
constexpr int kMaxNameChars = 64;
constexpr int kMaxDetailChars = 500;
} // namespace

bool parseStatus(const QByteArray& message, ModuleStatus& out)
{
    QJsonParseError err{};
    const QJsonDocument doc = QJsonDocument::fromJson(message, &err);
    if (err.error != QJsonParseError::NoError || !doc.isObject()) {
        return false;
    }
    const QJsonObject o = doc.object();
    if (!o.value(QStringLiteral("module")).isString() || !o.value(QStringLiteral("state")).isString()) {
        return false;
    }
    out.module = kuvsdk::printable(o.value(QStringLiteral("module")).toString().toUtf8(), kMaxNameChars);
    out.state = o.value(QStringLiteral("state")).toString().toLower();
    out.detail = kuvsdk::printable(o.value(QStringLiteral("detail")).toString().toUtf8(), kMaxDetailChars);
    return !out.module.isEmpty();
}

ProtectionStatusPage::ProtectionStatusPage(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("kuvProtectionStatusPage"));
    auto* layout = new QVBoxLayout(this);
    m_heading = new QLabel(this);
    QFont big = m_heading->font();
    big.setPointSizeF(big.pointSizeF() * 1.3);
    big.setBold(true);
    m_heading->setFont(big);
    layout->addWidget(m_heading);
    m_busState = new QLabel(this);
    m_busState->setWordWrap(true);
    layout->addWidget(m_busState);
    m_summary = new QLabel(this);
    m_summary->setObjectName(QStringLiteral("kuvProtectionSummary"));
    layout->addWidget(m_summary);
    m_table = new QTableWidget(0, 4, this);
    m_table->setObjectName(QStringLiteral("kuvProtectionTable"));
    m_table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_table->verticalHeader()->setVisible(false);
    m_table->horizontalHeader()->setStretchLastSection(true);
    layout->addWidget(m_table, 1);
    m_unreadable = new QLabel(this);
    layout->addWidget(m_unreadable);
    retranslate();
}

void ProtectionStatusPage::setBus(kuvsdk::PluginEndpoint::State state, const QString& guid, int error)
{
    m_state = state;
    m_guid = guid;
    m_error = error;
    retranslate();
}

void ProtectionStatusPage::apply(const kuvsdk::BusMessage& message)
{
    ModuleStatus s;
    if (!parseStatus(message.body, s)) {
        ++m_badMessages;
        retranslate();
        return;
    }
    int row = -1;
    for (int r = 0; r < m_table->rowCount(); ++r) {
        if (m_table->item(r, 0)->data(Qt::UserRole).toString() == s.module) {
            row = r;
            break;
        }
    }
    if (row < 0) {
        if (m_table->rowCount() >= kMaxModules) {
            ++m_badMessages;
            retranslate();
            return;
        }
        row = m_table->rowCount();
        m_table->insertRow(row);
        for (int c = 0; c < 4; ++c) {
            m_table->setItem(row, c, new QTableWidgetItem());
        }
        m_table->item(row, 0)->setData(Qt::UserRole, s.module);
        m_table->item(row, 0)->setText(s.module);
    }
    m_table->item(row, 1)->setData(Qt::UserRole, s.state);
    m_table->item(row, 2)->setText(s.detail);
    m_table->item(row, 3)->setText(
        QLocale().toString(message.received, QStringLiteral("yyyy-MM-dd HH:mm:ss")));
    retranslate();
}

int ProtectionStatusPage::moduleCount() const
{
    return m_table->rowCount();
}

QString ProtectionStatusPage::stateText(const QString& state) const
{
    if (state == QLatin1String("on")) {
        return tr("Protected");
    }
    if (state == QLatin1String("off")) {
        return tr("Turned off");
    }
    if (state == QLatin1String("error")) {
        return tr("Error");
    }
    return kuvsdk::printable(state.toUtf8(), 32);
}

void ProtectionStatusPage::retranslate()
{
    setWindowTitle(tr("Protection status"));
    m_heading->setText(tr("Protection status"));
    switch (m_state) {
    case kuvsdk::PluginEndpoint::ON_BUS:
        m_busState->setText(tr("Listening on the message bus as %1 for status reports (type %2).")
                                .arg(m_guid)
                                .arg(kStatusMessageType));
        break;
    case kuvsdk::PluginEndpoint::NAME_REFUSED:
        m_busState->setText(
            tr("The bus refused the address %1 (error %2); no status can arrive.").arg(m_guid).arg(m_error));
        break;
    case kuvsdk::PluginEndpoint::NO_ENDPOINT:
        m_busState->setText(tr("Not connected to the message bus; no status can arrive."));
        break;
    }
    m_table->setHorizontalHeaderLabels({tr("Module"), tr("State"), tr("Detail"), tr("Updated")});
    int on = 0;
    int problems = 0;
    for (int r = 0; r < m_table->rowCount(); ++r) {
        QTableWidgetItem* item = m_table->item(r, 1);
        const QString state = item->data(Qt::UserRole).toString();
        item->setText(stateText(state));
        if (state == QLatin1String("on")) {
            ++on;
            item->setForeground(QColor(0x1b, 0x7f, 0x3b));
        } else {
            ++problems;
            item->setForeground(QColor(0xb0, 0x20, 0x20));
        }
    }
    m_table->resizeColumnToContents(0);
    m_table->resizeColumnToContents(1);
    if (m_table->rowCount() == 0) {
        m_summary->setText(tr("No status reported yet."));
    } else if (problems == 0) {
        m_summary->setText(tr("All %n module(s) protected.", nullptr, on));
    } else {
        m_summary->setText(tr("%n module(s) need attention.", nullptr, problems));
    }
    m_unreadable->setText(m_badMessages == 0 ? QString()
                                             : tr("%n unreadable status message(s) ignored.", nullptr, m_badMessages));
}

void ProtectionStatusPage::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange) {
        retranslate();
    }
    QWidget::changeEvent(event);
}

ProtectionStatusPlugin::~ProtectionStatusPlugin()
{
    uninit();
}

int ProtectionStatusPlugin::init(const QVariant& paras)
{
    return m_plugin.open(paras, kProtectionStatusGuid, kStatusMessageType,
                         [](ProtectionStatusPage* page, const kuvsdk::BusMessage& m) { page->apply(m); }, "protectionstatus");
}

void ProtectionStatusPlugin::uninit()
{
    m_plugin.close();
}

QString ProtectionStatusPlugin::title() const
{
    return ProtectionStatusPage::tr("Protection status");
}

} // namespace kuvplugin
