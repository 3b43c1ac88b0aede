// SPDX-License-Identifier: GPL-2.0-or-later
// CGlobalTag: <name>.lock held with flock() (the kernel drops it with its holder), <name>.attr as JSON.
#include "CGlobalTag.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "CppJson.h"
#include "FileUtils.h"
#include "SafeIo.h"
#include "UniqueFd.h"

namespace {

constexpr size_t kMaxName = 200;
constexpr off_t kMaxAttributeFile = 64 * 1024;

using Fd = kuv::UniqueFd;

bool validName(const std::string& name)
{
    return !name.empty() && name.size() <= kMaxName && name != "." && name != ".." &&
           name.find('/') == std::string::npos && kuv::escapeControl(name) == name;
}

std::string lockPath(const std::string& dir, const std::string& name)
{
    return dir + name + ".lock";
}

std::string attrPath(const std::string& dir, const std::string& name)
{
    return dir + name + ".attr";
}

// Whether some process holds the tag exclusively. An exclusive holder refuses a shared lock as well,
// while readers alone (the guard passing through) grant it; a probe that gets the lock gives it back at
// once. /proc/locks would tell the same without taking anything, but reading it makes the kernel stop
// every file lock on the machine for an RCU grace period (about 10 ms on an idle machine), and a tag
// check runs on every start.
int heldExclusively(int fd)
{
    if (kuv::retryEintr([&] { return ::flock(fd, LOCK_SH | LOCK_NB); }) == 0) {
        ::flock(fd, LOCK_UN);
        return 0;
    }
    return errno == EWOULDBLOCK ? 1 : -1;
}

// The guard waits for the tag with a shared lock and lets go of it as soon as it is granted. A start
// that lands in that moment finds only readers on the tag and no holder: it waits for them to pass
// (bounded) instead of taking the guard for a running instance.
int takeFromPassingReader(int fd)
{
    constexpr int kTries = 100;
    for (int i = 0; i < kTries; ++i) {
        const int held = heldExclusively(fd);
        if (held != 0) {
            if (held > 0) {
                errno = EWOULDBLOCK;
            }
            return -1;
        }
        ::usleep(20 * 1000);
        if (kuv::retryEintr([&] { return ::flock(fd, LOCK_EX | LOCK_NB); }) == 0) {
            return 0;
        }
        if (errno != EWOULDBLOCK) {
            return -1;
        }
    }
    errno = EWOULDBLOCK;
    return -1;
}

} // namespace

struct CGlobalTag::Impl {
    std::string name;
    std::string dir;
    std::string error;
    mutable std::mutex mutex;
    mutable Fd lock;
    mutable bool held = false;
    mutable std::map<std::string, std::string> attributes;
    mutable bool reported = false;

    void reportOnce(const std::string& why) const
    {
        if (!reported) {
            reported = true;
            std::fprintf(stderr, "kuv instance tag %s: %s\n", kuv::escapeControl(name).c_str(),
                         kuv::escapeControl(why).c_str());
        }
    }

    bool publish() const
    {
        Json::Value root(Json::objectValue);
        for (const auto& kv : attributes) {
            root[kv.first] = kv.second;
        }
        std::string text;
        return CppJson::WriteJsonToString(root, text, true) &&
               kuv::writeFileAtomic(attrPath(dir, name), text + "\n", 0600);
    }
};

CGlobalTag::TagConfig CGlobalTag::TagConfig::getUserConfig()
{
    TagConfig config;
    config.dir = kuv::runtimeDir(&config.error);
    return config;
}

CGlobalTag::CGlobalTag(const std::string& name, const TagConfig& config) : m_impl(std::make_unique<Impl>())
{
    m_impl->name = name;
    m_impl->dir = config.dir;
    m_impl->error = config.error;
    if (!m_impl->dir.empty() && m_impl->dir.back() != '/') {
        m_impl->dir += '/';
    }
}

CGlobalTag::~CGlobalTag()
{
    std::lock_guard<std::mutex> guard(m_impl->mutex);
    if (m_impl->held) {
        // The attributes go first, while the tag is still ours, so a next holder's file is never touched.
        ::unlink(attrPath(m_impl->dir, m_impl->name).c_str());
        m_impl->lock.reset();
        m_impl->held = false;
    }
}

int CGlobalTag::trylock(bool wait) const
{
    Impl& d = *m_impl;
    std::lock_guard<std::mutex> guard(d.mutex);
    if (d.held) {
        return 1;
    }
    if (d.dir.empty()) {
        d.reportOnce(d.error.empty() ? std::string("no runtime directory") : d.error);
        return -1;
    }
    if (!validName(d.name)) {
        d.reportOnce("not a usable tag name");
        return -1;
    }
    const std::string path = lockPath(d.dir, d.name);
    Fd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd.get() < 0) {
        d.reportOnce("cannot open " + path + ": " + std::strerror(errno));
        return -1;
    }
    int rc = kuv::retryEintr([&] { return ::flock(fd.get(), LOCK_EX | (wait ? 0 : LOCK_NB)); });
    if (rc != 0 && errno == EWOULDBLOCK) {
        rc = takeFromPassingReader(fd.get());
    }
    if (rc != 0) {
        if (errno == EWOULDBLOCK) {
            return 2;
        }
        d.reportOnce("cannot lock " + path + ": " + std::strerror(errno));
        return -1;
    }
    d.lock.reset(fd.release());
    d.held = true;
    d.attributes.clear();
    // Whatever a dead holder published is not ours to show.
    ::unlink(attrPath(d.dir, d.name).c_str());
    return 1;
}

int CGlobalTag::setAttribute(const std::string& key, const std::string& value) const
{
    Impl& d = *m_impl;
    std::lock_guard<std::mutex> guard(d.mutex);
    if (!d.held || key.empty()) {
        return 0;
    }
    try {
        const auto previous = d.attributes;
        d.attributes[key] = value;
        if (!d.publish()) {
            d.attributes = previous;
            return 0;
        }
        return 1;
    } catch (...) {
        return 0;
    }
}

bool CGlobalTag::isHeld(const std::string& name, const TagConfig& config)
{
    if (config.dir.empty() || !validName(name)) {
        return false;
    }
    std::string dir = config.dir;
    if (dir.back() != '/') {
        dir += '/';
    }
    const std::string path = lockPath(dir, name);
    Fd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    return fd.get() >= 0 && heldExclusively(fd.get()) == 1;
}

bool CGlobalTag::readAttributes(const std::string& name, const TagConfig& config,
                                std::map<std::string, std::string>& attributes)
{
    attributes.clear();
    if (!isHeld(name, config)) {
        return false;
    }
    std::string dir = config.dir;
    if (dir.back() != '/') {
        dir += '/';
    }
    const std::string path = attrPath(dir, name);
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) {
        return errno == ENOENT; // held, nothing published yet
    }
    if (!S_ISREG(st.st_mode) || st.st_size > kMaxAttributeFile) {
        return false;
    }
    Json::Value root;
    if (!CppJson::LoadJsonFile(path.c_str(), root) || !root.isObject()) {
        return false;
    }
    try {
        for (const std::string& key : root.getMemberNames()) {
            if (root[key].isString()) {
                attributes[key] = root[key].asString();
            }
        }
    } catch (...) {
        attributes.clear();
        return false;
    }
    return true;
}
