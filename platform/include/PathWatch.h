// SPDX-License-Identifier: GPL-2.0-or-later
// Tells a daemon when the file it serves through (a socket, a lock) is removed or replaced, or its
// directory goes away: at logout the user's runtime directory is removed, and a daemon left behind
// would serve nobody while a new one takes its place.
#pragma once

#include <string>

#include "KuvExport.h"
#include "UniqueFd.h"

namespace kuv {

class KUV_EXPORT PathWatch {
public:
    // Starts watching the file at path (it must exist). false with errno set when it cannot be watched.
    bool watch(const std::string& path);
    // Readable when something happened in the file's directory; -1 before watch().
    int fd() const { return m_inotify.get(); }
    // Reads what is pending without blocking; true once the file is gone: removed, renamed away,
    // replaced by another file, or its directory removed, moved or unmounted. Stays true.
    bool gone();
    // What made it gone, for the log; empty while it is not.
    const std::string& why() const { return m_why; }

private:
    UniqueFd m_inotify;
    int m_dirWatch = -1;
    std::string m_path;
    std::string m_name;
    std::string m_why;
};

} // namespace kuv
