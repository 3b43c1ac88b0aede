// SPDX-License-Identifier: GPL-2.0-or-later
#include "DesktopNotifier.h"

#include <dlfcn.h>

#include <mutex>
#include <string>

#include "KuvLog.h"
#include "NotifyBackend.h"

namespace kuv {
namespace shell {

namespace {

KUV_LOG_SOURCE("platform/guishell/DesktopNotifier");

const char* const kModuleName = "libkuvnotify.so";

// The module beside this library, loaded once. It stays loaded for the life of the process: Qt D-Bus
// keeps a thread of its own once it connected.
KuvNotifyCreate notifyFactory(std::string& why)
{
    static std::once_flag once;
    static KuvNotifyCreate factory = nullptr;
    static std::string error;
    std::call_once(once, []() {
        Dl_info self{};
        if (dladdr(reinterpret_cast<void*>(&notifyFactory), &self) == 0 || self.dli_fname == nullptr) {
            error = "cannot tell where the shell library is";
            return;
        }
        std::string path = self.dli_fname;
        const size_t slash = path.rfind('/');
        path = (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + kModuleName;
        void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            const char* e = dlerror();
            error = e != nullptr ? e : path + ": cannot be loaded";
            return;
        }
        factory = reinterpret_cast<KuvNotifyCreate>(dlsym(handle, KUV_NOTIFY_CREATE));
        if (factory == nullptr) {
            error = path + ": no " KUV_NOTIFY_CREATE;
        }
    });
    why = error;
    return factory;
}

} // namespace

DesktopNotifier::DesktopNotifier(QObject* parent) : QObject(parent) {}

DesktopNotifier::~DesktopNotifier() = default;

void DesktopNotifier::notify(const QString& summary, const QString& body, bool critical, qint64 job)
{
    if (!m_backend) {
        std::string why;
        KuvNotifyCreate create = notifyFactory(why);
        if (create == nullptr) {
            KUV_LOG(kuv::LogLevel::Warn, "no notification module (%s); shown in the window only", why.c_str());
            emit undelivered(summary, body, QString::fromStdString(why));
            return;
        }
        m_backend.reset(create());
        QObject* backend = m_backend->object();
        // By name: the module's class is not linked into the shell.
        connect(backend, SIGNAL(delivered(uint)), this, SIGNAL(delivered(uint)));
        connect(backend, SIGNAL(undelivered(QString, QString, QString)), this,
                SIGNAL(undelivered(QString, QString, QString)));
        connect(backend, SIGNAL(openResults(qint64)), this, SIGNAL(openResults(qint64)));
    }
    m_backend->notify(summary, body, tr("Show results"), critical, job);
}

} // namespace shell
} // namespace kuv
