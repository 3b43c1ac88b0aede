// SPDX-License-Identifier: GPL-2.0-or-later
// A clamd of our own for tests: private configuration, socket and database, started on the fly.
#pragma once

#include <dirent.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Harness.h"
#include "UniqueFd.h"

namespace kuvclamd {

using kuv::UniqueFd;

// Built at run time so that no file of the project is itself the test file.
inline std::string eicar()
{
    return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-" + "ANTIVIRUS-TEST-FILE!$H+H*";
}

inline std::string hex(const std::string& s)
{
    static const char* d = "0123456789abcdef";
    std::string out;
    for (const unsigned char c : s) {
        out += d[c >> 4];
        out += d[c & 15];
    }
    return out;
}

inline std::string clamdBinary()
{
    const char* p = getenv("KUV_CLAMD");
    return p && *p ? p : "/usr/sbin/clamd";
}

inline bool canConnect(const std::string& path)
{
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    return ::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
}

// Copies the signature files of the source tree's data/signatures into dir; returns how many.
inline int copyShippedDatabase(const std::string& dir)
{
    const char* src = getenv("KUV_SOURCE_DIR");
    if (src == nullptr || *src == '\0') {
        return 0;
    }
    const std::string from = std::string(src) + "/data/signatures";
    DIR* d = ::opendir(from.c_str());
    if (d == nullptr) {
        return 0;
    }
    int copied = 0;
    while (const dirent* e = ::readdir(d)) {
        const std::string name = e->d_name;
        struct stat st;
        if (name[0] == '.' || ::stat((from + "/" + name).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            continue;
        }
        kuvtest::writeFile(dir + "/" + name, kuvtest::readFile(from + "/" + name));
        ::chmod((dir + "/" + name).c_str(), 0644);
        ++copied;
    }
    ::closedir(d);
    return copied;
}

// A clamd of our own: private config, socket, database, pid and log file in a temporary directory.
// Started by root, it runs as "nobody", like a system clamd that does not share the user's rights.
class RealClamd {
public:
    RealClamd() : m_dir("kuvclamd")
    {
        const std::string d = m_dir.path();
        const passwd* nobody = ::geteuid() == 0 ? ::getpwnam("nobody") : nullptr;
        m_otherUser = nobody != nullptr;
        // clamd binds its socket and writes its log after giving up root.
        ::mkdir((d + "/run").c_str(), 0700);
        if (m_otherUser) {
            EXPECT_EQ(::chmod(d.c_str(), 0755), 0);
            EXPECT_EQ(::chown((d + "/run").c_str(), nobody->pw_uid, nobody->pw_gid), 0);
        }
        ::mkdir((d + "/db").c_str(), 0755);
        // The database the installation ships, or, in a tree without one, an equivalent written here.
        if (copyShippedDatabase(d + "/db") == 0) {
            kuvtest::writeFile(d + "/db/kuvtest.ndb", "Kuv.Test.EICAR:0:*:" + hex(eicar()) + "\n");
            ::chmod((d + "/db/kuvtest.ndb").c_str(), 0644);
        }
        kuvtest::writeFile(d + "/clamd.conf",
                           "Foreground yes\n"
                           "LocalSocket " + socket() + "\n"
                           "DatabaseDirectory " + d + "/db\n"
                           "PidFile " + d + "/run/clamd.pid\n"
                           "LogFile " + d + "/run/clamd.log\n"
                           "TemporaryDirectory " + d + "/run\n"
                           "Bytecode no\n"
                           "MaxFileSize 1M\n"
                           "AlertExceedsMax yes\n"
                           "MaxThreads 4\n" +
                           (m_otherUser ? "User nobody\n" : ""));
        start();
    }
    ~RealClamd() { stop(); }

    void start()
    {
        m_proc = std::make_unique<kuvtest::Process>(
            std::vector<std::string>{clamdBinary(), "-c", m_dir.path() + "/clamd.conf"});
        const bool up = kuvtest::waitUntil([&] { return canConnect(socket()); }, 60000, 20);
        ASSERT_TRUE(up) << "clamd did not come up; log:\n"
                        << kuvtest::readFile(m_dir.path() + "/run/clamd.log") << m_proc->err();
    }
    void stop()
    {
        if (m_proc) {
            m_proc->signal(SIGTERM);
            if (!m_proc->wait(20000)) {
                m_proc->signal(SIGKILL);
                m_proc->wait(10000);
            }
            m_proc.reset();
        }
        ::unlink(socket().c_str());
    }
    std::string socket() const { return m_dir.path() + "/run/clamd.sock"; }
    bool otherUser() const { return m_otherUser; }
    std::string file(const std::string& name, const std::string& content) const
    {
        const std::string p = m_dir.path() + "/" + name;
        kuvtest::writeFile(p, content);
        return p;
    }

private:
    kuvtest::TempDir m_dir;
    bool m_otherUser = false;
    std::unique_ptr<kuvtest::Process> m_proc;
};

} // namespace kuvclamd
