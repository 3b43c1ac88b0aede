// SPDX-License-Identifier: GPL-2.0-or-later
// Installation facts: installation and configuration directories, client version.
#pragma once

#include "KuvExport.h"

#include <string>

class KUV_EXPORT ConstConfig {
public:
    static ConstConfig* singleInstance();
    static void UninitInstance();

    // $KUV_INSTALL_DIR, else the parent of the executable's directory; always with a final "/".
    std::string getInstallDir();
    // The per-user path of an install-relative path such as "log/" or "data/pubcfg/.guiexit": in an
    // installation the user owns, getInstallDir() + installRelative; in a shared one (such as the
    // package's /opt/kuv) the same place under $XDG_STATE_HOME/kuv/ (default ~/.local/state/kuv/, 0700).
    // Paths outside the per-user areas (log/, data/pubcfg/) are returned in the installation.
    std::string getUserPath(const std::string& installRelative);
    // $KUV_CONFIG_DIR, else getInstallDir() + "etc/"; always with a final "/".
    std::string getConfigurationDir();
    // First line of getInstallDir() + "VERSION", read afresh at every call; empty when unreadable.
    std::string getClientVersion();

private:
    ConstConfig() = default;
};
