// SPDX-License-Identifier: GPL-2.0-or-later
// File, directory, string and process utilities.
#pragma once

#include "KuvExport.h"

#include <cstddef>
#include <fstream>
#include <list>
#include <functional>
#include <string>
#include <utility>

#include "UniqueFd.h"

struct stat;

class KUV_EXPORT CFile {
public:
    // Paths in an installation's per-user areas are mapped as kuv::userStatePath() does.
    explicit CFile(const std::string& path);
    ~CFile();
    CFile(const CFile&) = delete;
    CFile& operator=(const CFile&) = delete;

    // Whether anything (a link included) exists at the path.
    bool exists() const;
    // Removes the file; false when it could not be removed. Never throws.
    bool remove();
    // std::ios::out creates (0600) or truncates the file; std::ios::in reads it. Only a regular file is
    // opened, never through a symbolic link and never blocking. false on failure.
    bool open(std::ios_base::openmode mode);
    void close(std::ios_base::openmode mode);
    bool isOpen() const;
    // Largest content ReadAll takes.
    static constexpr unsigned long long kMaxReadAll = 4ull * 1024 * 1024;

    // Reads the whole content of a file opened for reading. false on a read error or when the file
    // holds more than kMaxReadAll bytes.
    bool ReadAll(std::string& content);
    // Writes to a file opened for writing. false on a write error.
    bool Write(const std::string& content);
    const std::string& path() const { return m_strPath; }

private:
    void closeFd();

    std::string m_strPath;
    kuv::UniqueFd m_fd;
    unsigned long long m_openSize = 0; // the file's size when it was opened
};

class KUV_EXPORT CFileInfo {
public:
    CFileInfo() = default;
    explicit CFileInfo(const std::string& path);

    bool isSymLink() const { return m_bSymLink; }
    bool isDir() const { return m_bDir; }
    bool isFile() const { return m_bFile; }
    // The path the entry was listed under (directory + "/" + name), never resolved.
    const std::string& absoluteFilePath() const { return m_strPath; }
    std::string fileName() const;

private:
    friend class CDir;
    // An entry whose kind the directory listing already told.
    CFileInfo(std::string path, bool symLink, bool dir, bool file)
        : m_strPath(std::move(path)), m_bSymLink(symLink), m_bDir(dir), m_bFile(file)
    {
    }

    std::string m_strPath;
    bool m_bSymLink = false;
    bool m_bDir = false;
    bool m_bFile = false;
};

class KUV_EXPORT CDir {
public:
    // Directory of the running executable, without a final "/".
    static std::string currentDir();
    // Entries of one directory (no recursion, no "." and ".."), in directory order, links included.
    // false when the directory cannot be read; out is cleared first.
    static bool getAllFilesInDir(std::list<CFileInfo>& out, const char* dir);
    // Creates dir and its parents with the given mode; true when it exists as a directory afterwards.
    static bool mkpath(const std::string& dir, unsigned int mode = 0755);
};

class KUV_EXPORT CStr {
public:
    // ASCII lower case, in place.
    static void toLower(std::string& text);
    static void toUpper(std::string& text);
    static std::string trim(const std::string& text);
};

class KUV_EXPORT CProcess {
public:
    CProcess();
    // Starts program with arguments split on blanks, without a shell, detached from this process,
    // with no descriptor of this process inherited, and reaped. 1 when the program started, else 0.
    // wait=true only means the start itself is confirmed (exec succeeded) before returning.
    int execute(std::string program, std::string arguments, bool wait);
};

namespace kuv {

// The per-user runtime directory ($XDG_RUNTIME_DIR/kuv/ or /tmp/kuv-<uid>/), created 0700 and checked
// with lstat (a real directory, ours, mode 0700). Returns it with a final "/", or empty and sets error.
// When /tmp/kuv-<uid> belongs to another user, ~/.cache/kuv/runtime/ is used instead (and from then
// on by every process of the user), and the owner is named on stderr and in runtimeDirNotice().
KUV_EXPORT std::string runtimeDir(std::string* error = nullptr);
// What the runtime directory had to avoid (empty when nothing), for the caller's log.
KUV_EXPORT std::string runtimeDirNotice();
// A logical name such as "/tmp/kuv-gui" or "./kuv_zell" resolved into the runtime directory
// (its last path component). Empty when the runtime directory is refused.
KUV_EXPORT std::string runtimePath(const std::string& logicalName, std::string* error = nullptr);
// The installation directory: $KUV_INSTALL_DIR, else the parent of the executable's directory; with a
// final "/" (empty when unknown).
KUV_EXPORT std::string installDir();
// Whether the user owns the installation (owner and writable): then the user's files stay in it.
KUV_EXPORT bool ownInstallation(const std::string& dir);
// The user's state directory $XDG_STATE_HOME/kuv/ (default ~/.local/state/kuv/), created 0700 and
// checked to be a real directory of the user. Empty (and error) when unusable.
KUV_EXPORT std::string userStateDir(std::string* error = nullptr);
// The per-user place of a path in an installation's per-user areas (DIR/log..., DIR/data/pubcfg...):
// the path itself in an installation the user owns, else the same place under userStateDir(), so that
// users of a shared installation never share a file. Any other path is returned unchanged.
KUV_EXPORT std::string userStatePath(const std::string& path);
// Opens path for the open(2) flags given, never through a final symbolic link and never blocking on a
// FIFO or device, and keeps it only when it is a regular file (else EINVAL). New files get mode. The
// descriptor is close-on-exec and blocking unless flags ask for O_NONBLOCK; info, when given, receives
// the file's status. An invalid descriptor with errno set on failure.
KUV_EXPORT UniqueFd openNoFollow(const std::string& path, int flags, unsigned int mode = 0600, struct stat* info = nullptr);
// Writes content to path through a temporary file in the same directory and rename(). true on success.
KUV_EXPORT bool writeFileAtomic(const std::string& path, const std::string& content, unsigned int mode = 0644);
// The escaping rule of every log writer: C0 controls, DEL and the backslash as \n \r \t \\ \xHH,
// C1 controls and U+2028/U+2029 as \uHHHH, every byte that is not well-formed UTF-8 as \xHH.
// escapeBackslash=false leaves backslashes alone (text that is already escaped, such as log lines).
KUV_EXPORT std::string escapeControl(const std::string& text, bool escapeBackslash = true);
// Longest message a record carries, in escaped bytes.
constexpr size_t kMaxLogMessage = 16 * 1024;
// A message as a record carries it: one final line feed dropped, escaped, and cut to limit bytes with
// a marker " [... N bytes cut]" (N counted in the message's own bytes; alreadyCut is added for text
// that the caller cut before).
KUV_EXPORT std::string logMessage(const std::string& text, size_t limit = kMaxLogMessage, size_t alreadyCut = 0);

// A deferral takes a program launch and either keeps it to run later (true) or declines (false: the
// launch runs now). The GUI shell installs one so that launches asked for during start-up run once its
// event loop is up; CProcess::execute then reports only whether the program can be run.
using LaunchDeferral = std::function<bool(std::function<void()>)>;
KUV_EXPORT void setLaunchDeferral(LaunchDeferral deferral);
KUV_EXPORT bool deferLaunch(std::function<void()> launch);

} // namespace kuv
