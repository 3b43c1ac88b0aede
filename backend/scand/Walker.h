// SPDX-License-Identifier: GPL-2.0-or-later
// Walks the paths of a scan job: folders recursively, never following symbolic links, never into /proc,
// /sys or /dev; reports every entry that is not a folder, with what it is.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kuv {
namespace scand {

struct WalkEntry {
    enum class Kind {
        Regular, // to be opened and scanned
        Skipped, // never opened: reason "fifo", "socket", "device", "symbolic link", "excluded", ...
        Error,   // reason: "permission denied", "vanished", ...
    };
    Kind kind = Kind::Regular;
    std::string path;
    uint64_t size = 0;
    std::string reason;
};

class Walker {
public:
    using Visit = std::function<bool(WalkEntry&& entry)>; // false stops the walk

    // exclude: paths whose subtree is left out (compared byte for byte, as whole components).
    Walker(std::vector<std::string> exclude, const std::atomic<bool>* cancel) :
        m_exclude(std::move(exclude)), m_cancel(cancel)
    {
    }

    // Visits everything below each root in turn. A root that is a symbolic link is followed once (the
    // user named it); nothing below it is. Returns false when cancelled or stopped by visit.
    bool walk(const std::vector<std::string>& roots, const Visit& visit);

    // Whether the directory must not be entered: /proc, /sys, /dev, or a proc/sysfs/devpts mount.
    static bool isVirtualDir(const std::string& path, int dirFd);
    static const char* kindName(unsigned int mode); // "fifo", "socket", "device", ...

private:
    bool excluded(const std::string& path) const;
    bool cancelled() const { return m_cancel != nullptr && m_cancel->load(std::memory_order_relaxed); }
    bool walkRoot(const std::string& rawRoot, const Visit& visit);
    bool walkDir(const std::string& root, const Visit& visit);
    bool readDir(const std::string& dir, bool isRoot, const Visit& visit, std::vector<std::string>& children);

    std::vector<std::string> m_exclude;
    const std::atomic<bool>* m_cancel;
};

// "permission denied", "vanished", or strerror's text, for an errno of open/stat/readdir.
std::string errnoReason(int error);

} // namespace scand
} // namespace kuv
