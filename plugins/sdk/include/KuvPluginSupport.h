// Helpers for kuvgui GUI plugins: the plugin's bus endpoint and receivers that hand bus messages to
// the GUI thread. Header-only; needs Qt 5 Core and the SDK headers beside it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include <QByteArray>
#include <QDateTime>
#include <QMetaObject>
#include <QPointer>
#include <QObject>
#include <QRegularExpression>
#include <QString>
#include <QVariant>

#include "Guid.h"
#include "IZellClientMgr.h"
#include "PluginInitParas.h"

namespace kuvsdk {

// Bodies larger than this are cut when copied off the bus thread.
constexpr int kMaxBodyBytes = 64 * 1024;

inline QString guidToString(const GUID& g)
{
    return QString::asprintf("%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", g.Data1, g.Data2, g.Data3,
                             g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6],
                             g.Data4[7]);
}

inline bool isGuidText(const QString& text)
{
    static const QRegularExpression re(QStringLiteral(
        "^\\{?[0-9A-Fa-f]{8}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{12}\\}?$"));
    return re.match(text).hasMatch();
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

// The usual shape of a GUI plugin: one page, the plugin's own endpoint, and one message type whose
// messages are handed to the page on its thread. Page needs a default constructor and
// setBus(PluginEndpoint::State, const QString& guid, int error).
template <typename Page>
class PageOnBus {
public:
    using Handler = std::function<void(Page*, const BusMessage&)>;

    PageOnBus() = default;
    PageOnBus(const PageOnBus&) = delete;
    PageOnBus& operator=(const PageOnBus&) = delete;
    ~PageOnBus() { close(); }

    // Builds the page and joins the bus; a refused or missing endpoint leaves the page working off the bus
    // (it is told which). name only labels the warning when the type cannot be registered. Returns 0.
    int open(const QVariant& paras, const char* fallbackGuid, int64_t type, Handler onMessage, const char* name)
    {
        close();
        Page* page = new Page();
        m_page = page;
        m_receiver = std::make_unique<GuiThreadReceiver>(
            page, [page, onMessage](const BusMessage& m) { onMessage(page, m); });
        const int rc = m_bus.open(paras, QString::fromLatin1(fallbackGuid));
        if (m_bus.state() == PluginEndpoint::ON_BUS && m_bus.listen(type, m_receiver.get()) != 0) {
            qWarning("%s: cannot register for message type %lld", name, static_cast<long long>(type));
        }
        page->setBus(m_bus.state(), m_bus.guidText(), rc);
        return 0;
    }

    // Leaves the bus first: after it no receiver runs, so the page can go.
    void close()
    {
        m_bus.close();
        delete m_page.data();
        m_receiver.reset();
    }

    // Routes one more message type to the same handler (which tells them apart by BusMessage::type).
    // 0 on success; -1 when not on the bus.
    int alsoListen(int64_t type) { return m_receiver ? m_bus.listen(type, m_receiver.get()) : -1; }

    Page* page() const { return m_page; }
    PluginEndpoint& bus() { return m_bus; }

private:
    PluginEndpoint m_bus;
    std::unique_ptr<GuiThreadReceiver> m_receiver;
    QPointer<Page> m_page;
};

} // namespace kuvsdk
