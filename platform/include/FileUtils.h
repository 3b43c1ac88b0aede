// File, directory, string and process utilities.
#pragma once

#include <fstream>
#include <list>
#include <functional>
#include <string>

class CFile {
public:
    explicit CFile(const std::string& path);
    ~CFile();
    CFile(const CFile&) = delete;
    CFile& operator=(const CFile&) = delete;

    // Whether anything (a link included) exists at the path.
    bool exists() const;
    // Removes the file; false when it could not be removed. Never throws.
    bool remove();
    // std::ios::out creates or truncates the file; std::ios::in reads it. false on failure.
    bool open(std::ios_base::openmode mode);
    void close(std::ios_base::openmode mode);
    bool isOpen() const;
    // Reads the whole content of a file opened for reading. false on a read error.
    bool ReadAll(std::string& content);
    // Writes to a file opened for writing. false on a write error.
    bool Write(const std::string& content);
    const std::string& path() const { return m_strPath; }

private:
    std::string m_strPath;
    std::fstream m_stream;
};

class CFileInfo {
public:
    CFileInfo() = default;
    explicit CFileInfo(const std::string& path);

    bool isSymLink() const { return m_bSymLink; }
    bool isDir() const { return m_bDir; }
    bool isFile() const { return m_bFile; }
    // The path the entry was listed under (directory + "/" + name), never resolved.
    std::string absoluteFilePath() const { return m_strPath; }
    std::string fileName() const;

private:
    std::string m_strPath;
    bool m_bSymLink = false;
    bool m_bDir = false;
    bool m_bFile = false;
};

class CDir {
public:
    // Directory of the running executable, without a final "/".
    static std::string currentDir();
    // Entries of one directory (no recursion, no "." and ".."), in directory order, links included.
    // false when the directory cannot be read; out is cleared first.
    static bool getAllFilesInDir(std::list<CFileInfo>& out, const char* dir);
    // Creates dir and its parents with the given mode; true when it exists as a directory afterwards.
    static bool mkpath(const std::string& dir, unsigned int mode = 0755);
};

class CStr {
public:
    // ASCII lower case, in place.
    static void toLower(std::string& text);
    static void toUpper(std::string& text);
    static std::string trim(const std::string& text);
};

class CProcess {
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
std::string runtimeDir(std::string* error = nullptr);
// A logical name such as "/tmp/kuv-gui" or "./kuv_zell" resolved into the runtime directory
// (its last path component). Empty when the runtime directory is refused.
std::string runtimePath(const std::string& logicalName, std::string* error = nullptr);
// Writes content to path through a temporary file in the same directory and rename(). true on success.
bool writeFileAtomic(const std::string& path, const std::string& content, unsigned int mode = 0644);
// Escapes control characters (\n \r \t \xHH) so that outside text cannot forge log records.
std::string escapeControl(const std::string& text);

// A deferral takes a program launch and either keeps it to run later (true) or declines (false: the
// launch runs now). The GUI shell installs one so that launches asked for during start-up run once its
// event loop is up; CProcess::execute then reports only whether the program can be run.
using LaunchDeferral = std::function<bool(std::function<void()>)>;
void setLaunchDeferral(LaunchDeferral deferral);
bool deferLaunch(std::function<void()> launch);

} // namespace kuv
