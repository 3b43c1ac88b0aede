#include "ShellPaths.h"

#include "Utf8.h"

namespace kuv {
namespace shell {

namespace {

// Length of the well-formed sequence at i, 0 when the byte there starts none.
size_t sequenceAt(const std::string& s, size_t i)
{
    const auto b = static_cast<unsigned char>(s[i]);
    const size_t len = b < 0x80 ? 1 : (b >= 0xc2 && b <= 0xdf) ? 2 : (b >= 0xe0 && b <= 0xef) ? 3 : (b >= 0xf0 && b <= 0xf4) ? 4 : 0;
    if (len == 0 || i + len > s.size()) {
        return 0;
    }
    return kuv::isValidUtf8(s.substr(i, len)) ? len : 0;
}

} // namespace

QString pathToQString(const std::string& bytes)
{
    if (kuv::isValidUtf8(bytes)) {
        return QString::fromStdString(bytes);
    }
    QString out;
    size_t i = 0;
    while (i < bytes.size()) {
        const size_t len = sequenceAt(bytes, i);
        if (len == 0) {
            out += QChar(static_cast<ushort>(0xdc00 + static_cast<unsigned char>(bytes[i])));
            ++i;
        } else {
            out += QString::fromUtf8(bytes.data() + i, static_cast<int>(len));
            i += len;
        }
    }
    return out;
}

std::string pathFromQString(const QString& text)
{
    std::string out;
    QString run;
    for (int i = 0; i < text.size(); ++i) {
        const ushort u = text.at(i).unicode();
        const bool paired = i > 0 && text.at(i - 1).isHighSurrogate();
        if (u >= 0xdc80 && u <= 0xdcff && !paired) {
            out += run.toStdString();
            run.clear();
            out += static_cast<char>(u - 0xdc00);
        } else {
            run += text.at(i);
        }
    }
    out += run.toStdString();
    return out;
}

} // namespace shell
} // namespace kuv
