// Installation facts: installation and configuration directories, client version.
#pragma once

#include <string>

class ConstConfig {
public:
    static ConstConfig* singleInstance();
    static void UninitInstance();

    // $KUV_INSTALL_DIR, else the parent of the executable's directory; always with a final "/".
    std::string getInstallDir();
    // $KUV_CONFIG_DIR, else getInstallDir() + "etc/"; always with a final "/".
    std::string getConfigurationDir();
    // First line of getInstallDir() + "VERSION", read afresh at every call; empty when unreadable.
    std::string getClientVersion();

private:
    ConstConfig() = default;
};
