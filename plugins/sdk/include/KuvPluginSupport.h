// SPDX-License-Identifier: GPL-2.0-or-later
// Helpers for kuvgui GUI plugins: the plugin's bus endpoint, receivers that hand bus messages to the GUI
// thread, and pages built when first shown. Header-only; needs Qt 5 Widgets and the SDK headers beside it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <utility>
#include <vector>

#include <QByteArray>
#include <QDateTime>
#include <QEvent>
#include <QFont>
#include <QLabel>
#include <QMetaObject>
#include <QPointer>
#include <QObject>
#include <QShowEvent>
#include <QString>
#include <QVariant>
#include <QVBoxLayout>
#include <QWidget>

#include "Guid.h"
#include "IKuvGuiPlugin.h"
#include "IZellClientMgr.h"
#include "PluginInitParas.h"

namespace kuvsdk {

// Bodies larger than this are cut when copied off the bus thread.
constexpr int kMaxBodyBytes = 64 * 1024;

// 8-4-4-4-12 upper-case hex digits. By hand: it runs for every message, and a format string is parsed
// at every call.
inline QString guidToString(const GUID& g)
{
    static const char digits[] = "0123456789ABCDEF";
    char text[36];
    int n = 0;
    const auto put = [&text, &n](uint32_t value, int count) {
        for (int shift = 4 * (count - 1); shift >= 0; shift -= 4) {
            text[n++] = digits[(value >> shift) & 0xF];
        }
    };
    put(g.Data1, 8);
    text[n++] = '-';
    put(g.Data2, 4);
    text[n++] = '-';
    put(g.Data3, 4);
    text[n++] = '-';
    put(g.Data4[0], 2);
    put(g.Data4[1], 2);
    text[n++] = '-';
    for (int i = 2; i < 8; ++i) {
        put(g.Data4[i], 2);
    }
    return QString::fromLatin1(text, n);
}

// 8-4-4-4-12 hex digits, optionally in braces (either or both). Checked by hand: a regular expression
// would map PCRE and its JIT into every process that loads a plugin.
inline bool isGuidText(const QString& text)
{
    int begin = 0;
    int end = text.size();
    if (begin < end && text.at(begin) == QLatin1Char('{')) {
        ++begin;
    }
    if (begin < end && text.at(end - 1) == QLatin1Char('}')) {
        --end;
    }
    if (end - begin != 36) {
        return false;
    }
    for (int i = 0; i < 36; ++i) {
        const ushort c = text.at(begin + i).unicode();
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (c != '-') {
                return false;
            }
        } else if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))) {
            return false;
        }
    }
    return true;
}

// The endpoint handed to the plugin in its init record, or null.
inline IZellMREndPoint4* endpointFrom(const QVariant& paras)
{
    if (!paras.canConvert<sPluginInitParas>()) {
        return nullptr;
    }
    return static_cast<IZellMREndPoint4*>(
        paras.value<sPluginInitParas>().mapParas.value(QStringLiteral("IZellMREndPoint4")).value<void*>());
}

// The plugin's bus address: "PluginGuid" from its description when present and well formed, else fallback.
inline QString guidFrom(const QVariant& paras, const QString& fallback)
{
    if (paras.canConvert<sPluginInitParas>()) {
        const QString text = paras.value<sPluginInitParas>().mapParas.value(QStringLiteral("PluginGuid")).toString();
        if (isGuidText(text)) {
            return text;
        }
    }
    return fallback;
}

// Message text for display: UTF-8, control characters written as \n, \t, \xHH; at most maxChars.
inline QString printable(const QByteArray& bytes, int maxChars = 4096)
{
    const QString text = QString::fromUtf8(bytes);
    QString out;
    out.reserve(std::min(text.size(), maxChars) + 8);
    for (const QChar c : text) {
        if (out.size() >= maxChars) {
            out += QChar(0x2026);
            break;
        }
        const ushort u = c.unicode();
        if (u == '\n') {
            out += QLatin1String("\\n");
        } else if (u == '\t') {
            out += QLatin1String("\\t");
        } else if (u == '\r') {
            out += QLatin1String("\\r");
        } else if (u < 0x20 || u == 0x7f) {
            out += QString::asprintf("\\x%02X", u);
        } else {
            out += c;
        }
    }
    return out;
}

// One received message, copied off the bus thread.
struct BusMessage {
    qint64 type = 0;
    QByteArray body;
    bool truncated = false;
    QString sender; // GUID text of the sending endpoint, empty when the bus gave none
    quint64 sequence = 0;
    QDateTime received;
};

// Registered on an endpoint; the bus calls it on one of its threads, and the handler runs on the thread
// of context (the plugin's page or object). The endpoint's uninit() must come before context is deleted.
class GuiThreadReceiver final : public IMRReceiveComplete {
public:
    using Handler = std::function<void(const BusMessage&)>;

    GuiThreadReceiver(QObject* context, Handler handler) : m_context(context), m_handler(std::move(handler)) {}

    void ReceiveCallback(uint64_t /*endpoint*/, int64_t msgType, const char* content, int length, uint64_t sender,
                         uint64_t sequence) override
    {
        BusMessage m;
        m.type = msgType;
        if (content != nullptr && length > 0) {
            const int n = std::min(length, kMaxBodyBytes);
            m.body = QByteArray(content, n);
            m.truncated = length > n;
        }
        if (sender != 0) {
            m.sender = guidToString(*reinterpret_cast<const GUID*>(static_cast<uintptr_t>(sender)));
        }
        m.sequence = sequence;
        // UTC here: turning it into local time reads the time zone (tzset), which is left to the GUI thread.
        m.received = QDateTime::currentDateTimeUtc();
        const Handler handler = m_handler;
        QMetaObject::invokeMethod(
            m_context,
            [handler, m]() mutable {
                m.received = m.received.toLocalTime();
                handler(m);
            },
            Qt::QueuedConnection);
    }

private:
    QObject* m_context;
    const Handler m_handler;
};

// The plugin's own endpoint: named with the plugin's GUID, with receivers per message type, all undone
// by close(). Without an endpoint (or when its name is taken) the plugin keeps working off the bus.
class PluginEndpoint {
public:
    enum State { NO_ENDPOINT, ON_BUS, NAME_REFUSED };

    PluginEndpoint() = default;
    PluginEndpoint(const PluginEndpoint&) = delete;
    PluginEndpoint& operator=(const PluginEndpoint&) = delete;
    ~PluginEndpoint() { close(); }

    // 0 when on the bus or when there is no endpoint; the endpoint's non-zero result when it refused.
    int open(const QVariant& paras, const QString& fallbackGuid)
    {
        close();
        m_guidText = guidFrom(paras, fallbackGuid).toUpper().remove(QLatin1Char('{')).remove(QLatin1Char('}'));
        m_endpoint = endpointFrom(paras);
        if (m_endpoint == nullptr) {
            m_state = NO_ENDPOINT;
            return 0;
        }
        GUID guid{};
        stringToGuid(guid, m_guidText.toLatin1().constData());
        const int rc = m_endpoint->init(guid);
        if (rc != 0) {
            m_state = NAME_REFUSED;
            m_endpoint = nullptr;
            return rc;
        }
        m_state = ON_BUS;
        return 0;
    }

    // Routes messages of type to receiver (not owned). 0 on success; -1 when not on the bus.
    int listen(int64_t type, IMRReceiveComplete* receiver)
    {
        if (m_state != ON_BUS) {
            return -1;
        }
        const int rc = m_endpoint->registerRecvNotify(type, receiver, 0);
        if (rc == 0) {
            m_types.push_back(type);
        }
        return rc;
    }

    int send(const QString& destGuid, int64_t type, const QByteArray& body)
    {
        if (m_state != ON_BUS || !isGuidText(destGuid)) {
            return -1;
        }
        GUID dest{};
        stringToGuid(dest, destGuid.toLatin1().constData());
        return m_endpoint->sendMsg(dest, type, body.constData(), body.size());
    }

    // Unregisters every receiver and leaves the bus; no receiver runs after it returns.
    void close()
    {
        if (m_state == ON_BUS && m_endpoint != nullptr) {
            for (int64_t type : m_types) {
                m_endpoint->unregisterRecvNotify(type);
            }
            m_endpoint->uninit();
        }
        m_types.clear();
        m_endpoint = nullptr;
        if (m_state == ON_BUS) {
            m_state = NO_ENDPOINT;
        }
    }

    State state() const { return m_state; }
    const QString& guidText() const { return m_guidText; }

private:
    IZellMREndPoint4* m_endpoint = nullptr;
    State m_state = NO_ENDPOINT;
    QString m_guidText;
    std::vector<int64_t> m_types;
};

// What a plugin knows about its endpoint, for its page to show.
struct BusInfo {
    PluginEndpoint::State state = PluginEndpoint::NO_ENDPOINT;
    QString guid;
    int error = 0;
};

// The page's line about its endpoint. onBus has the GUID as %1 and then extra as %2, %3...; refused has
// the GUID as %1 and the error as %2.
inline QString busLine(const BusInfo& bus, const QString& onBus, std::initializer_list<QString> extra,
                       const QString& refused, const QString& none)
{
    switch (bus.state) {
    case PluginEndpoint::ON_BUS: {
        QString text = onBus.arg(bus.guid);
        for (const QString& e : extra) {
            text = text.arg(e);
        }
        return text;
    }
    case PluginEndpoint::NAME_REFUSED:
        return refused.arg(bus.guid).arg(bus.error);
    case PluginEndpoint::NO_ENDPOINT:
        break;
    }
    return none;
}

// Where a plugin's page goes in the shell: an empty widget that builds the page inside itself the first
// time it is shown, so that fonts, item views and their memory cost nothing until someone looks. Its
// window title, which names it in the shell's navigation, comes from title and follows the language.
class LazyPage final : public QWidget {
public:
    using Build = std::function<QWidget*(QWidget* parent)>;
    using Title = std::function<QString()>;

    LazyPage(const QString& name, Build build, Title title) : m_build(std::move(build)), m_title(std::move(title))
    {
        setObjectName(name);
        setWindowTitle(m_title());
    }

    // The page, or null before it was first shown.
    QWidget* content() const { return m_content; }

    // Builds the page unless it was built already; returns it.
    QWidget* ensureBuilt()
    {
        if (m_content == nullptr && m_build) {
            auto* layout = new QVBoxLayout(this);
            layout->setContentsMargins(0, 0, 0, 0);
            m_content = m_build(this);
            layout->addWidget(m_content);
            m_build = nullptr;
        }
        return m_content;
    }

protected:
    void showEvent(QShowEvent* event) override
    {
        if (m_content == nullptr && ensureBuilt() != nullptr) {
            // Children made while the parent is being shown are not shown with it.
            m_content->show();
        }
        QWidget::showEvent(event);
    }

    void changeEvent(QEvent* event) override
    {
        if (event->type() == QEvent::LanguageChange) {
            setWindowTitle(m_title());
        }
        QWidget::changeEvent(event);
    }

private:
    Build m_build;
    const Title m_title;
    QWidget* m_content = nullptr;
};

// A page's heading: a label in a larger bold font.
inline QLabel* headingLabel(QWidget* parent)
{
    auto* label = new QLabel(parent);
    QFont big = label->font();
    big.setPointSizeF(big.pointSizeF() * 1.3);
    big.setBold(true);
    label->setFont(big);
    return label;
}

// Base of a plugin's page: a large heading, the line about the endpoint, and retranslate() on every
// language change (and once the derived page has called it from its constructor).
class PluginPage : public QWidget {
public:
    explicit PluginPage(QWidget* parent) : QWidget(parent), m_layout(new QVBoxLayout(this))
    {
        m_heading = headingLabel(this);
        m_layout->addWidget(m_heading);
        m_busLine = new QLabel(this);
        m_busLine->setWordWrap(true);
        m_layout->addWidget(m_busLine);
    }

protected:
    virtual void retranslate() = 0;

    void changeEvent(QEvent* event) override
    {
        if (event->type() == QEvent::LanguageChange) {
            retranslate();
        }
        QWidget::changeEvent(event);
    }

    QVBoxLayout* m_layout;
    QLabel* m_heading;
    QLabel* m_busLine;
};

// The usual shape of a GUI plugin: its state (Model, a QObject without widgets) on the plugin's own
// endpoint, messages of one type handed to the model on its thread, and its page (Page) built from the
// model the first time the shell shows it. Model needs a default constructor and setBus(const BusInfo&);
// Page needs a constructor Page(Model*, QWidget* parent) and follows the model from then on.
template <typename Model, typename Page>
class PageOnBus {
public:
    using Handler = std::function<void(Model*, const BusMessage&)>;

    PageOnBus() = default;
    PageOnBus(const PageOnBus&) = delete;
    PageOnBus& operator=(const PageOnBus&) = delete;
    ~PageOnBus() { close(); }

    // Makes the model and joins the bus; a refused or missing endpoint leaves the plugin working off the
    // bus (the model is told which). name only labels the warning when the type cannot be registered;
    // pageName and title name the page before it exists. Returns 0.
    int open(const QVariant& paras, const char* fallbackGuid, int64_t type, Handler onMessage, const char* name,
             const char* pageName, LazyPage::Title title)
    {
        close();
        m_model = std::make_unique<Model>();
        Model* model = m_model.get();
        m_receiver = std::make_unique<GuiThreadReceiver>(
            model, [model, onMessage](const BusMessage& m) { onMessage(model, m); });
        const int rc = m_bus.open(paras, QString::fromLatin1(fallbackGuid));
        if (m_bus.state() == PluginEndpoint::ON_BUS && m_bus.listen(type, m_receiver.get()) != 0) {
            qWarning("%s: cannot register for message type %lld", name, static_cast<long long>(type));
        }
        model->setBus(BusInfo{m_bus.state(), m_bus.guidText(), rc});
        m_page = new LazyPage(
            QString::fromLatin1(pageName), [model](QWidget* parent) { return new Page(model, parent); },
            std::move(title));
        return 0;
    }

    // Leaves the bus first: after it no receiver runs, so the page and then the model can go.
    void close()
    {
        m_bus.close();
        delete m_page.data();
        m_model.reset();
        m_receiver.reset();
    }

    // Routes one more message type to the same handler (which tells them apart by BusMessage::type).
    // 0 on success; -1 when not on the bus.
    int alsoListen(int64_t type) { return m_receiver ? m_bus.listen(type, m_receiver.get()) : -1; }

    // The place in the shell (null before open); the page itself only once it was shown.
    QWidget* page() const { return m_page; }
    Page* builtPage() const { return m_page.isNull() ? nullptr : static_cast<Page*>(m_page->content()); }
    Model* model() const { return m_model.get(); }
    PluginEndpoint& bus() { return m_bus; }

private:
    PluginEndpoint m_bus;
    std::unique_ptr<GuiThreadReceiver> m_receiver;
    std::unique_ptr<Model> m_model;
    QPointer<LazyPage> m_page;
};

// The plugin object around a PageOnBus: leaving the bus on uninit and on deletion, and the shell's page.
// The plugin class adds Q_OBJECT, Q_PLUGIN_METADATA, Q_INTERFACES(IKuvGuiPlugin), init() and title().
template <typename Model, typename Page>
class PageOnBusPlugin : public IKuvGuiPlugin {
public:
    ~PageOnBusPlugin() override { m_plugin.close(); }
    void uninit() override { m_plugin.close(); }
    QWidget* page() override { return m_plugin.page(); }

protected:
    PageOnBus<Model, Page> m_plugin;
};

} // namespace kuvsdk
