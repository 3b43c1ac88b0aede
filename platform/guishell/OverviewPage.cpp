// SPDX-License-Identifier: GPL-2.0-or-later
#include "OverviewPage.h"

#include <map>
#include <set>
#include <string>

#include <QDir>
#include <QEvent>
#include <QFileInfo>
#include <QFormLayout>
#include <QGroupBox>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "CGlobalTag.h"
#include "CQPluginManager.h"
#include "ConstConfig.h"
#include "CppJson.h"
#include "FileUtils.h"
#include "ScanClient.h"

namespace kuv {
namespace shell {

namespace {

const char* const kInstanceTag = "A5F24530-52D7-11EE-AF47-4B159A309AD8";
// A combo map file is a few lines; anything bigger is not one.
constexpr qint64 kMaxMapFileBytes = 256 * 1024;

struct ComboEntry {
    int index = 0;
    QString name;
    QStringList plugins;
};

std::vector<ComboEntry> readCombos()
{
    std::vector<ComboEntry> out;
    const QString dir =
        QString::fromStdString(ConstConfig::singleInstance()->getInstallDir()) + "etc/plugins-gui/combo_plugin_map";
    const QFileInfoList files = QDir(dir).entryInfoList(QDir::Files, QDir::Name);
    for (const QFileInfo& fi : files) {
        if (fi.isSymLink() || fi.size() > kMaxMapFileBytes) {
            continue;
        }
        Json::Value root;
        if (!CppJson::LoadJsonFile(fi.absoluteFilePath().toLocal8Bit().constData(), root) || !root.isObject()) {
            continue;
        }
        const Json::Value& list = root["pluginList"];
        if (!list.isArray()) {
            continue;
        }
        ComboEntry e;
        e.index = CppJson::GetInt("index", root, 0);
        e.name = root["combo"].isString() ? QString::fromStdString(root["combo"].asString()).toLower() : QString();
        for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
            const Json::Value& item = list[i];
            if (item.isObject() && item["id"].isString()) {
                e.plugins << QString::fromStdString(item["id"].asString());
            }
        }
        out.push_back(e);
    }
    return out;
}

QString esc(const std::string& text)
{
    return QString::fromStdString(kuv::escapeControl(text));
}

} // namespace

OverviewPage::OverviewPage(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("kuvOverviewPage"));
    auto* layout = new QVBoxLayout(this);

    m_instanceBox = new QGroupBox(this);
    auto* form = new QFormLayout(m_instanceBox);
    m_pidCaption = new QLabel(m_instanceBox);
    m_pidValue = new QLabel(m_instanceBox);
    m_pidValue->setObjectName(QStringLiteral("kuvOverviewPid"));
    m_statusCaption = new QLabel(m_instanceBox);
    m_statusValue = new QLabel(m_instanceBox);
    m_busCaption = new QLabel(m_instanceBox);
    m_busValue = new QLabel(m_instanceBox);
    m_versionCaption = new QLabel(m_instanceBox);
    m_versionValue = new QLabel(m_instanceBox);
    m_backendCaption = new QLabel(m_instanceBox);
    m_backendValue = new QLabel(m_instanceBox);
    m_backendValue->setObjectName(QStringLiteral("kuvOverviewBackend"));
    // Selectable with the mouse: the label's text control (a text document) is built when the pointer first
    // comes over it, not at start.
    m_pidValue->installEventFilter(this);
    form->addRow(m_pidCaption, m_pidValue);
    form->addRow(m_statusCaption, m_statusValue);
    form->addRow(m_busCaption, m_busValue);
    form->addRow(m_versionCaption, m_versionValue);
    form->addRow(m_backendCaption, m_backendValue);
    layout->addWidget(m_instanceBox);

    m_componentsButton = new QPushButton(this);
    m_componentsButton->setObjectName(QStringLiteral("kuvShowComponents"));
    m_componentsButton->setCheckable(true);
    connect(m_componentsButton, &QPushButton::toggled, this, &OverviewPage::showComponents);
    layout->addWidget(m_componentsButton, 0, Qt::AlignLeft);
    // Keeps the instance box at the top while the components are closed.
    layout->addStretch(1);

    // The instance attributes change behind our back (bus status): followed through the tag directory
    // (inotify) while visible, without polling.
    connect(&m_tagDir, &QFileSystemWatcher::directoryChanged, this, &OverviewPage::refresh);
    connect(CQPluginManager::singleInstance(), &CQPluginManager::sig_pluginStateChanged, this,
            &OverviewPage::refresh);

    retranslate();
}

void OverviewPage::retranslate()
{
    m_instanceBox->setTitle(tr("This instance"));
    m_pidCaption->setText(tr("Process ID:"));
    m_statusCaption->setText(tr("Status:"));
    m_busCaption->setText(tr("Message bus:"));
    m_versionCaption->setText(tr("Client version:"));
    m_backendCaption->setText(tr("Scan back end:"));
    m_componentsButton->setText(m_componentsButton->isChecked() ? tr("Hide components") : tr("Show components"));
    if (m_components != nullptr) {
        m_comboBox->setTitle(tr("Combos"));
        m_combos->setHeaderLabels({tr("Combo"), tr("Index"), tr("Plugins"), tr("State")});
        m_pluginBox->setTitle(tr("Plugins"));
        m_plugins->setHeaderLabels({tr("Plugin"), tr("Version"), tr("State"), tr("Details")});
    }
    showBackend();
    refresh();
}

void OverviewPage::showComponents(bool show)
{
    if (m_componentsButton->isChecked() != show) {
        m_componentsButton->setChecked(show); // comes back here through toggled
        return;
    }
    if (show && m_components == nullptr) {
        buildComponents();
    }
    if (m_components != nullptr) {
        m_components->setVisible(show);
        // The stretch that holds the instance box at the top gives way to the tables while they are shown.
        auto* layout = static_cast<QVBoxLayout*>(this->layout());
        layout->setStretch(layout->count() - 1, show ? 0 : 1);
    }
    m_componentsButton->setText(show ? tr("Hide components") : tr("Show components"));
    if (show) {
        refreshComponents();
    }
}

void OverviewPage::buildComponents()
{
    m_components = new QWidget(this);
    m_components->setObjectName(QStringLiteral("kuvComponents"));
    auto* componentsLayout = new QVBoxLayout(m_components);
    componentsLayout->setContentsMargins(0, 0, 0, 0);

    // A four-column table in a titled box; the titles and headers come with the language.
    const auto addTable = [&](QGroupBox*& box, QTreeWidget*& table, const char* name, int stretch) {
        box = new QGroupBox(m_components);
        auto* boxLayout = new QVBoxLayout(box);
        table = new QTreeWidget(box);
        table->setObjectName(QString::fromLatin1(name));
        table->setRootIsDecorated(false);
        table->setColumnCount(4);
        boxLayout->addWidget(table);
        componentsLayout->addWidget(box, stretch);
    };
    addTable(m_comboBox, m_combos, "kuvComboList", 1);
    addTable(m_pluginBox, m_plugins, "kuvPluginList", 2);

    // Before the final stretch, under the button.
    auto* layout = static_cast<QVBoxLayout*>(this->layout());
    layout->insertWidget(layout->count() - 1, m_components, 1);
    m_comboBox->setTitle(tr("Combos"));
    m_combos->setHeaderLabels({tr("Combo"), tr("Index"), tr("Plugins"), tr("State")});
    m_pluginBox->setTitle(tr("Plugins"));
    m_plugins->setHeaderLabels({tr("Plugin"), tr("Version"), tr("State"), tr("Details")});
}

void OverviewPage::setScanClient(ScanClient* client)
{
    if (m_client) {
        disconnect(m_client, nullptr, this, nullptr);
    }
    m_client = client;
    if (client != nullptr) {
        connect(client, &ScanClient::backendChanged, this, &OverviewPage::showBackend);
    }
    showBackend();
}

void OverviewPage::showBackend()
{
    // The back end reports several times per scan job; a hidden page catches up when it is shown.
    m_backendPending = !isVisible();
    if (m_backendPending) {
        return;
    }
    if (!m_client) {
        m_backendValue->setText(tr("unknown"));
        return;
    }
    switch (m_client->backendState()) {
    case ScanClient::BACKEND_UNKNOWN:
        m_backendValue->setText(tr("Not asked yet (the Scan page asks)"));
        break;
    case ScanClient::BACKEND_CONNECTING:
        m_backendValue->setText(tr("Asking..."));
        break;
    case ScanClient::BACKEND_STARTING:
        m_backendValue->setText(tr("Starting..."));
        break;
    case ScanClient::BACKEND_NO_BUS:
        m_backendValue->setText(tr("Unreachable (no message bus)"));
        break;
    case ScanClient::BACKEND_NOT_RUNNING:
        m_backendValue->setText(tr("Not running"));
        break;
    case ScanClient::BACKEND_RUNNING: {
        const Json::Value& s = m_client->status();
        const std::string engine = s["engine"].isString() ? s["engine"].asString() : std::string();
        const long long pid = s["pid"].isIntegral() ? static_cast<long long>(s["pid"].asInt64()) : 0;
        m_backendValue->setText(pid > 0 ? tr("Running (process %1, %2)").arg(pid).arg(esc(engine))
                                        : tr("Running"));
        break;
    }
    }
}

void OverviewPage::refresh()
{
    std::map<std::string, std::string> attrs;
    const bool haveAttrs =
        CGlobalTag::readAttributes(kInstanceTag, CGlobalTag::TagConfig::getUserConfig(), attrs);
    const auto attr = [&attrs](const char* key) {
        auto it = attrs.find(key);
        return it == attrs.end() ? std::string() : it->second;
    };
    const std::string pid = attr("pid");
    const std::string status = attr("status");
    m_pidValue->setText(haveAttrs && !pid.empty() ? esc(pid) : tr("unknown"));
    if (status == "3" || status == "2") {
        m_statusValue->setText(tr("Running (status %1)").arg(esc(status)));
    } else if (status == "1") {
        m_statusValue->setText(tr("Starting (status %1)").arg(esc(status)));
    } else if (status == "0") {
        m_statusValue->setText(tr("Initialising (status %1)").arg(esc(status)));
    } else if (!status.empty()) {
        m_statusValue->setText(tr("Status %1").arg(esc(status)));
    } else {
        m_statusValue->setText(tr("Not published"));
    }
    // The bus client publishes status 1 once it is up; before that there is no bus connection.
    const bool busUp = status == "1" || status == "2" || status == "3";
    m_busValue->setText(busUp ? tr("Bus client started") : tr("No bus client"));
    const std::string version = ConstConfig::singleInstance()->getClientVersion();
    m_versionValue->setText(version.empty() ? tr("unknown") : esc(version));
    if (m_components != nullptr) {
        refreshComponents();
    }
}

void OverviewPage::refreshComponents()
{
    const QList<CQPluginManager::PluginStatus> plugins = CQPluginManager::singleInstance()->pluginStatus();
    std::map<QString, CQPluginManager::PluginState> states;
    m_plugins->clear();
    for (const CQPluginManager::PluginStatus& s : plugins) {
        states[s.id] = s.state;
        QString state;
        switch (s.state) {
        case CQPluginManager::PLUGIN_KNOWN:
            state = tr("Not loaded");
            break;
        case CQPluginManager::PLUGIN_LOADING:
            state = tr("Loading");
            break;
        case CQPluginManager::PLUGIN_LOADED:
            state = tr("Loaded");
            break;
        case CQPluginManager::PLUGIN_FAILED:
            state = tr("Failed");
            break;
        case CQPluginManager::PLUGIN_UNLOADED:
            state = tr("Unloaded");
            break;
        }
        const QString details = s.state == CQPluginManager::PLUGIN_FAILED ? s.reason : s.description;
        auto* item = new QTreeWidgetItem(m_plugins, {s.id, s.version, state, details});
        item->setToolTip(3, details);
    }

    m_combos->clear();
    for (const ComboEntry& c : readCombos()) {
        int loaded = 0;
        for (const QString& p : c.plugins) {
            auto it = states.find(p);
            if (it != states.end() && it->second == CQPluginManager::PLUGIN_LOADED) {
                ++loaded;
            }
        }
        QString state;
        if (!c.plugins.isEmpty() && loaded == c.plugins.size()) {
            state = tr("Loaded");
        } else if (loaded > 0) {
            state = tr("Partly loaded (%1 of %2)").arg(loaded).arg(c.plugins.size());
        } else {
            state = tr("Not loaded");
        }
        new QTreeWidgetItem(m_combos, {c.name, QString::number(c.index), c.plugins.join(QStringLiteral(", ")), state});
    }
    for (QTreeWidget* tree : {m_combos, m_plugins}) {
        for (int i = 0; i < tree->columnCount() - 1; ++i) {
            tree->resizeColumnToContents(i);
        }
    }
}

bool OverviewPage::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == m_pidValue && (event->type() == QEvent::Enter || event->type() == QEvent::MouseButtonPress)) {
        m_pidValue->removeEventFilter(this);
        m_pidValue->setTextInteractionFlags(Qt::TextSelectableByMouse);
    }
    return QWidget::eventFilter(watched, event);
}

void OverviewPage::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange) {
        retranslate();
    }
    QWidget::changeEvent(event);
}

void OverviewPage::showEvent(QShowEvent* event)
{
    if (m_backendPending) {
        m_backendPending = false;
        showBackend();
    }
    refresh();
    const std::string dir = CGlobalTag::TagConfig::getUserConfig().dir;
    if (!dir.empty()) {
        m_tagDir.addPath(QString::fromStdString(dir));
    }
    QWidget::showEvent(event);
}

void OverviewPage::hideEvent(QHideEvent* event)
{
    if (!m_tagDir.directories().isEmpty()) {
        m_tagDir.removePaths(m_tagDir.directories());
    }
    QWidget::hideEvent(event);
}

} // namespace shell
} // namespace kuv
