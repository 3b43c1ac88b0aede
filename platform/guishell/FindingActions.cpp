// SPDX-License-Identifier: GPL-2.0-or-later
#include "FindingActions.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include <QCoreApplication>
#include <QTextCodec>

#include "Quarantine.h"
#include "StorePaths.h"

namespace kuv {
namespace shell {

namespace {

QString shown(const std::string& path)
{
    return displayBytes(path);
}

void record(int64_t historyJob, const std::string& path, const std::string& action)
{
    if (historyJob <= 0) {
        return;
    }
    std::vector<std::string> notices;
    std::string error;
    auto db = kuv::store::openUserDb(kuv::store::userDataDir(), notices, error);
    if (db) {
        db->setFindingAction(historyJob, path, action);
    }
}

} // namespace

QString displayBytes(const std::string& path)
{
    QTextCodec::ConverterState state;
    const QString text = QTextCodec::codecForName("UTF-8")->toUnicode(path.data(), int(path.size()), &state);
    QString out;
    if (state.invalidChars == 0 && state.remainingChars == 0) {
        out = text;
    } else {
        for (unsigned char c : path) {
            out += c < 0x80 ? QString(QChar(c)) : QStringLiteral("\\x%1").arg(c, 2, 16, QChar('0'));
        }
    }
    // Control characters would break a line in a list.
    for (int i = 0; i < out.size(); ++i) {
        if (out[i].unicode() < 0x20 || out[i].unicode() == 0x7f) {
            const QString esc = QStringLiteral("\\x%1").arg(out[i].unicode(), 2, 16, QChar('0'));
            out.replace(i, 1, esc);
            i += esc.size() - 1;
        }
    }
    return out;
}

FindingOutcome quarantineFinding(const std::string& path, const std::string& signature, const std::string& job,
                                 int64_t historyJob)
{
    FindingOutcome out;
    std::string error;
    auto store = kuv::store::QuarantineStore::open(kuv::store::userDataDir(), error);
    if (!store) {
        out.message = QCoreApplication::translate("kuv::shell::FindingActions", "The quarantine cannot be used: %1").arg(QString::fromStdString(error));
        return out;
    }
    kuv::store::QuarantineEntry entry;
    const kuv::store::QResult r = store->quarantine(path, signature, job, &entry);
    if (!r.ok()) {
        out.missing = r.status == kuv::store::QStatus::NotFound;
        out.message = out.missing ? QCoreApplication::translate("kuv::shell::FindingActions", "%1 is no longer there.").arg(shown(path))
                                  : QCoreApplication::translate("kuv::shell::FindingActions", "%1 could not be quarantined: %2").arg(shown(path), QString::fromStdString(r.message));
        return out;
    }
    out.ok = true;
    out.action = "quarantined " + entry.id;
    out.message = QCoreApplication::translate("kuv::shell::FindingActions", "%1 was moved to the quarantine.").arg(shown(path));
    record(historyJob, path, out.action);
    return out;
}

FindingOutcome deleteFinding(const std::string& path, int64_t historyJob)
{
    FindingOutcome out;
    std::string parent, name;
    if (!kuv::store::splitPath(path, parent, name)) {
        out.message = QCoreApplication::translate("kuv::shell::FindingActions", "%1 cannot be deleted.").arg(shown(path));
        return out;
    }
    kuv::UniqueFd dir(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat st {};
    if (!dir.valid() || ::fstatat(dir.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        out.missing = errno == ENOENT;
        out.message = out.missing ? QCoreApplication::translate("kuv::shell::FindingActions", "%1 is no longer there.").arg(shown(path))
                                  : QCoreApplication::translate("kuv::shell::FindingActions", "%1 cannot be deleted: %2").arg(shown(path), QString::fromUtf8(std::strerror(errno)));
        return out;
    }
    if (!S_ISREG(st.st_mode)) {
        out.message = QCoreApplication::translate("kuv::shell::FindingActions", "%1 is not a regular file; it was left alone.").arg(shown(path));
        return out;
    }
    if (::unlinkat(dir.get(), name.c_str(), 0) != 0) {
        out.message = QCoreApplication::translate("kuv::shell::FindingActions", "%1 cannot be deleted: %2").arg(shown(path), QString::fromUtf8(std::strerror(errno)));
        return out;
    }
    ::fsync(dir.get());
    out.ok = true;
    out.action = "deleted";
    out.message = QCoreApplication::translate("kuv::shell::FindingActions", "%1 was deleted.").arg(shown(path));
    record(historyJob, path, out.action);
    return out;
}

FindingOutcome ignoreFinding(const std::string& path, int64_t historyJob)
{
    FindingOutcome out;
    out.ok = true;
    out.action = "ignored";
    out.message = QCoreApplication::translate("kuv::shell::FindingActions", "%1 is left as it is.").arg(shown(path));
    record(historyJob, path, out.action);
    return out;
}

} // namespace shell
} // namespace kuv
