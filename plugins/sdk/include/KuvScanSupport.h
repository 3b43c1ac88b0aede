// SPDX-License-Identifier: GPL-2.0-or-later
// Helpers for plugins that follow the back end kuv-scand: subscribing to its status and events (also
// when it starts later), and paths of its messages for display. Header-only; Qt 5 Core and POSIX.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QObject>
#include <QPointer>
#include <QSocketNotifier>
#include <QString>
#include <QTimer>

#include "KuvPluginSupport.h"
#include "KuvScanProtocol.h"

namespace kuvsdk {

// The per-user runtime directory with a final "/", only when it is ours and private; else empty.
inline std::string scanRuntimeDir()
{
    const char* xdg = std::getenv("XDG_RUNTIME_DIR");
    const std::string dir = xdg != nullptr && xdg[0] == '/' ? std::string(xdg) + "/kuv/"
                                                            : "/tmp/kuv-" + std::to_string(::getuid()) + "/";
    struct stat st {};
    if (::lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::getuid() ||
        (st.st_mode & 0777) != 0700) {
        return std::string();
    }
    return dir;
}

// Puts guid on the list of endpoints the back end sends its status to when it starts
// (kuvscan::kSubscribersFile in dir, a runtime directory with a final "/"). false when the list cannot
// be written.
inline bool addScanSubscriberIn(const std::string& dir, const QString& guid)
{
    if (dir.empty() || !isGuidText(guid)) {
        return false;
    }
    const std::string path = dir + kuvscan::kSubscribersFile;
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        return false;
    }
    struct stat st {};
    bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == ::getuid();
    const std::string line = guid.toUpper().toStdString() + "\n";
    if (ok && st.st_size <= kuvscan::kMaxSubscriberFileBytes) {
        std::string content(static_cast<size_t>(st.st_size), '\0');
        ok = ::pread(fd, &content[0], content.size(), 0) == static_cast<ssize_t>(content.size());
        if (ok && content.find(line) != std::string::npos) {
            ::close(fd);
            return true;
        }
    } else if (ok) {
        ok = ::ftruncate(fd, 0) == 0; // a list this long is not one we wrote
    }
    ok = ok && ::lseek(fd, 0, SEEK_END) >= 0 &&
         ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    ::close(fd);
    return ok;
}

// The same in this user's runtime directory.
inline bool addScanSubscriber(const QString& guid)
{
    return addScanSubscriberIn(scanRuntimeDir(), guid);
}

// Bytes (a file name, a message of the back end) for display: UTF-8 as is; control characters as \n,
// \t, \r, \xHH; C1 controls and line separators as \uHHHH; bytes that are not UTF-8 as \xHH. At most
// maxChars characters when maxChars >= 0.
inline QString displayBytes(const QByteArray& bytes, int maxChars = -1)
{
    QString out;
    int i = 0;
    while (i < bytes.size() && (maxChars < 0 || out.size() < maxChars)) {
        const auto c = static_cast<unsigned char>(bytes[i]);
        if (c < 0x80) {
            if (c == '\n') {
                out += QLatin1String("\\n");
            } else if (c == '\t') {
                out += QLatin1String("\\t");
            } else if (c == '\r') {
                out += QLatin1String("\\r");
            } else if (c < 0x20 || c == 0x7F) {
                out += QString::asprintf("\\x%02X", c);
            } else {
                out += QLatin1Char(static_cast<char>(c));
            }
            ++i;
            continue;
        }
        // The UTF-8 sequence starting here when it is a valid one, else the byte alone.
        const int len = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 ? 2 : 1;
        const QByteArray seq = bytes.mid(i, len);
        const QString ch = len > 1 && seq.size() == len ? QString::fromUtf8(seq) : QString();
        if (!ch.isEmpty() && !ch.contains(QChar(0xFFFD)) && ch.toUtf8() == seq) {
            const uint cp = ch.toUcs4().value(0);
            if ((cp >= 0x80 && cp < 0xA0) || cp == 0x2028 || cp == 0x2029) {
                out += QString::asprintf("\\u%04X", cp);
            } else {
                out += ch;
            }
            i += len;
        } else {
            out += QString::asprintf("\\x%02X", c);
            ++i;
        }
    }
    return out;
}

// A path of a back-end message for display: the string, or the bytes of {"b64": ...}, escaped either way.
inline QString scanPathText(const QJsonValue& value, int maxChars = 4096)
{
    if (value.isString()) {
        return printable(value.toString().toUtf8(), maxChars);
    }
    if (!value.isObject() || !value.toObject().value(QStringLiteral("b64")).isString()) {
        return QString();
    }
    return displayBytes(QByteArray::fromBase64(value.toObject().value(QStringLiteral("b64")).toString().toLatin1()),
                        maxChars);
}

// Subscribes an endpoint to the back end's status and events: lists it for the back end's start, asks
// now, and asks again a few times while the bus is still coming up. Hand it every STATUS's pid: it
// subscribes again to a back end it had not seen, and watches that process (pidfd) so that onExit
// runs on the context's thread when it ends.
class ScanSubscription {
public:
    ScanSubscription() = default;
    ScanSubscription(const ScanSubscription&) = delete;
    ScanSubscription& operator=(const ScanSubscription&) = delete;
    ~ScanSubscription() { unwatch(); }

    void setOnExit(std::function<void()> onExit) { m_onExit = std::move(onExit); }

    void start(QObject* context, PluginEndpoint* bus)
    {
        m_context = context;
        m_bus = bus;
        if (bus == nullptr || bus->state() != PluginEndpoint::ON_BUS) {
            return;
        }
        addScanSubscriber(bus->guidText());
        ask(0);
    }

    // true when pid is a back end this subscription had not seen (and it asked again).
    bool onStatus(qint64 pid)
    {
        if (pid <= 0 || pid == m_pid) {
            return false;
        }
        const bool again = m_pid != 0;
        m_pid = pid;
        m_answered = true;
        watch(pid);
        if (again) {
            send();
        }
        return again;
    }

private:
    void unwatch()
    {
        m_notifier.reset();
        if (m_pidfd >= 0) {
            ::close(m_pidfd);
            m_pidfd = -1;
        }
    }

    void watch(qint64 pid)
    {
        unwatch();
#ifdef SYS_pidfd_open
        m_pidfd = static_cast<int>(::syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0));
#endif
        if (m_pidfd < 0 || m_context.isNull()) {
            return; // no pidfd here: the page keeps the last report
        }
        ::fcntl(m_pidfd, F_SETFD, FD_CLOEXEC);
        m_notifier = std::make_unique<QSocketNotifier>(m_pidfd, QSocketNotifier::Read);
        QObject::connect(m_notifier.get(), &QSocketNotifier::activated, m_context.data(), [this]() {
            unwatch();
            m_pid = 0; // a back end that comes back is a new one
            if (m_onExit) {
                m_onExit();
            }
        });
    }

    int send()
    {
        if (m_bus == nullptr || m_bus->state() != PluginEndpoint::ON_BUS) {
            return -1;
        }
        return m_bus->send(QString::fromLatin1(kuvscan::kScandGuid), kuvscan::KUV_SCAN_MSG_STATUS_REQUEST,
                           QByteArrayLiteral("{\"subscribe\":true}"));
    }

    void ask(int attempt)
    {
        // sendMsg does not say whether the back end is there; a few asks while the service's bus
        // connection comes up, then the back end's own announcement covers a later start.
        static const int kDelays[] = {1000, 3000, 9000};
        if (send() == 0 && attempt > 0) {
            return;
        }
        if (attempt >= 3 || m_context.isNull()) {
            return;
        }
        QTimer::singleShot(kDelays[attempt], m_context.data(), [this, attempt]() {
            if (!m_answered) {
                ask(attempt + 1);
            }
        });
    }

    QPointer<QObject> m_context;
    PluginEndpoint* m_bus = nullptr;
    qint64 m_pid = 0;
    bool m_answered = false;
    int m_pidfd = -1;
    std::unique_ptr<QSocketNotifier> m_notifier;
    std::function<void()> m_onExit;
};

// The JSON object of a back-end message, or an empty object.
inline QJsonObject scanBody(const BusMessage& m)
{
    const QJsonDocument doc = QJsonDocument::fromJson(m.body);
    return doc.isObject() ? doc.object() : QJsonObject();
}

} // namespace kuvsdk
