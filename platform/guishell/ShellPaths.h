// File names in the shell's Qt strings, every byte kept, names that are not UTF-8 included.
#pragma once

#include <string>

#include <QString>

namespace kuv {
namespace shell {

// UTF-8 decoded; each byte that is not part of well-formed UTF-8 becomes the lone surrogate
// U+DC80..U+DCFF, which no decoded text contains, so pathFromQString gives the very bytes back.
QString pathToQString(const std::string& bytes);
std::string pathFromQString(const QString& text);

} // namespace shell
} // namespace kuv
