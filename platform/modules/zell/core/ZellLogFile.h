// A size-rotated line log in the project's record layout, with backups in a directory of their own.
#pragma once

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

namespace zell {

class LogFile {
public:
    LogFile() = default;
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    // path: the log file; backupDir: where rotated files go (empty: beside the file), named
    // <stem>.1.log .. <stem>.<backups>.log. Parent directories are created. false (and error) when the
    // file cannot be opened; the caller goes on without a file log.
    bool open(const std::string& path, const std::string& backupDir, uint64_t maxSize, int backups,
              std::string* error = nullptr);
    // Writes to stderr instead of a file (foreground daemons).
    void openStderr();
    bool isOpen() const;
    void close();

    // levelName: TRACE DEBUG INFO WARN ERROR. message is escaped and capped; one whole record per call.
    void write(const char* levelName, const char* source, const char* function, int line,
               const std::string& message);

    // One formatted record without the final line feed (exposed for tests).
    static std::string format(const char* levelName, const char* source, const char* function, int line,
                              const std::string& message);

private:
    void rotateLocked();

    mutable std::mutex m_mutex;
    bool openLocked();

    int m_fd = -1;
    bool m_stderr = false;
    std::string m_path;
    std::string m_backupDir;
    std::string m_stem;
    uint64_t m_maxSize = 0;
    uint64_t m_size = 0;
    int m_backups = 0;
};

// Creates dir and its parents (mode 0700 for new ones). true when it is a directory afterwards.
bool makePath(const std::string& dir);

} // namespace zell
