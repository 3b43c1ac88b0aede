#include "ZellLogFile.h"

#include <cstring>

namespace zell {

void LogFile::write(const char* levelName, const char* source, const char* function, int line,
                    const std::string& message)
{
    kuv::LogLevel level = kuv::LogLevel::Error;
    for (const kuv::LogLevel l : {kuv::LogLevel::Trace, kuv::LogLevel::Debug, kuv::LogLevel::Info, kuv::LogLevel::Warn}) {
        if (levelName != nullptr && std::strcmp(levelName, kuv::logLevelName(l)) == 0) {
            level = l;
        }
    }
    write(level, source, function, static_cast<unsigned int>(line < 0 ? 0 : line), message);
}

} // namespace zell
