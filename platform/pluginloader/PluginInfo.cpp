// SPDX-License-Identifier: GPL-2.0-or-later
#include "PluginInfo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <QFile>
#include <QFileInfo>

#include "CppJson.h"
#include "FileUtils.h"
#include "SafeIo.h"
#include "UniqueFd.h"

namespace kuv {
namespace plugin {

namespace {

bool stringMember(const Json::Value& root, const char* key, bool required, QString& out, QString& reason)
{
    if (!root.isMember(key)) {
        if (required) {
            reason = QStringLiteral("missing \"%1\"").arg(QLatin1String(key));
            return false;
        }
        out.clear();
        return true;
    }
    const Json::Value& v = root[key];
    if (!v.isString()) {
        reason = QStringLiteral("\"%1\" is not a string").arg(QLatin1String(key));
        return false;
    }
    out = QString::fromStdString(v.asString());
    if (required && out.trimmed().isEmpty()) {
        reason = QStringLiteral("\"%1\" is empty").arg(QLatin1String(key));
        return false;
    }
    return true;
}

bool isPrintableId(const QString& id)
{
    for (const QChar c : id) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f || c == QLatin1Char('/')) {
            return false;
        }
    }
    return true;
}

} // namespace

bool isContainedRelativePath(const QString& path)
{
    if (path.isEmpty() || path.startsWith(QLatin1Char('/'))) {
        return false;
    }
    const QStringList parts = path.split(QLatin1Char('/'));
    for (const QString& part : parts) {
        if (part == QLatin1String("..")) {
            return false;
        }
    }
    return true;
}

bool readPluginInfo(const QString& path, PluginInfo& info, QString& reason)
{
    // Opened once, without following a link and without waiting on a FIFO; the checks are made on
    // what was opened, so nothing can be swapped in between.
    struct stat st;
    const kuv::UniqueFd fd = kuv::openNoFollow(QFile::encodeName(path).toStdString(), O_RDONLY, 0, &st);
    if (!fd.valid()) {
        if (errno == ELOOP) {
            reason = QStringLiteral("is a symbolic link");
        } else if (errno == EINVAL) {
            reason = QStringLiteral("is not a regular file");
        } else {
            reason = QStringLiteral("cannot be read: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
        }
        return false;
    }
    if (st.st_size > kMaxInfoFileBytes) {
        reason = QStringLiteral("is larger than %1 bytes").arg(kMaxInfoFileBytes);
        return false;
    }
    // Read one byte past the cap so a file that grew after the size check is still refused.
    QByteArray content(static_cast<int>(kMaxInfoFileBytes + 1), '\0');
    const ssize_t n = kuv::safeRead(fd.get(), content.data(), static_cast<size_t>(content.size()));
    if (n < 0) {
        reason = QStringLiteral("cannot be read: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    if (n > kMaxInfoFileBytes) {
        reason = QStringLiteral("is larger than %1 bytes").arg(kMaxInfoFileBytes);
        return false;
    }
    content.truncate(static_cast<int>(n));
    Json::Value root;
    if (!CppJson::LoadJsonString(content.toStdString(), root)) {
        reason = QStringLiteral("is not valid JSON");
        return false;
    }
    if (!root.isObject()) {
        reason = QStringLiteral("is not a JSON object");
        return false;
    }
    PluginInfo out;
    if (!stringMember(root, "id", true, out.id, reason) || !stringMember(root, "library", true, out.library, reason) ||
        !stringMember(root, "iid", true, out.iid, reason) || !stringMember(root, "version", false, out.version, reason) ||
        !stringMember(root, "guid", false, out.guid, reason) ||
        !stringMember(root, "description", false, out.description, reason)) {
        return false;
    }
    if (!isPrintableId(out.id)) {
        reason = QStringLiteral("\"id\" holds control characters or a slash");
        return false;
    }
    if (!isContainedRelativePath(out.library)) {
        reason = QStringLiteral("\"library\" must be a relative path without \"..\"");
        return false;
    }
    out.file = path;
    info = out;
    return true;
}

} // namespace plugin
} // namespace kuv
