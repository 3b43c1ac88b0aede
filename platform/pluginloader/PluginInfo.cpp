#include "PluginInfo.h"

#include <QFile>
#include <QFileInfo>

#include "CppJson.h"

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
    const QFileInfo fi(path);
    if (fi.isSymLink()) {
        reason = QStringLiteral("is a symbolic link");
        return false;
    }
    if (!fi.isFile()) {
        reason = QStringLiteral("is not a regular file");
        return false;
    }
    if (fi.size() > kMaxInfoFileBytes) {
        reason = QStringLiteral("is larger than %1 bytes").arg(kMaxInfoFileBytes);
        return false;
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        reason = QStringLiteral("cannot be read: %1").arg(file.errorString());
        return false;
    }
    // Read one byte past the cap so a file that grew after the size check is still refused.
    const QByteArray content = file.read(kMaxInfoFileBytes + 1);
    if (content.size() > kMaxInfoFileBytes) {
        reason = QStringLiteral("is larger than %1 bytes").arg(kMaxInfoFileBytes);
        return false;
    }
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
