// SPDX-License-Identifier: GPL-2.0-or-later
#include "PathWatch.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace kuv {

bool PathWatch::watch(const std::string& path)
{
    const std::filesystem::path file(path);
    struct stat st {};
    if (!file.has_filename() || ::lstat(path.c_str(), &st) != 0) {
        if (errno == 0) {
            errno = EINVAL;
        }
        return false;
    }
    UniqueFd fd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!fd.valid()) {
        return false;
    }
    const std::string dir = file.has_parent_path() ? file.parent_path().string() : std::string(".");
    // Only what can take the file away: entries leaving or arriving, and the directory itself going.
    const int wd = inotify_add_watch(fd.get(), dir.c_str(),
                                     IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE_SELF |
                                         IN_MOVE_SELF | IN_ONLYDIR);
    if (wd < 0) {
        return false;
    }
    m_inotify = std::move(fd);
    m_dirWatch = wd;
    m_path = path;
    m_name = file.filename().string();
    m_why.clear();
    return true;
}

bool PathWatch::gone()
{
    if (!m_why.empty()) {
        return true;
    }
    if (!m_inotify.valid()) {
        return false;
    }
    alignas(inotify_event) char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(m_inotify.get(), buffer, sizeof buffer);
        if (n <= 0) {
            return !m_why.empty();
        }
        for (ssize_t off = 0; off < n && m_why.empty();) {
            const auto* e = reinterpret_cast<const inotify_event*>(buffer + off);
            off += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
            if (e->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED)) {
                m_why = "the directory of " + m_path + " went away";
            } else if (e->len > 0 && m_name == e->name) {
                // Every event watched for names an entry leaving or arriving: either way the file this
                // daemon serves through is no longer at its path (an arrival replaced it).
                m_why = m_path + ((e->mask & (IN_DELETE | IN_MOVED_FROM)) ? " was removed" : " was replaced");
            }
        }
    }
}

} // namespace kuv
