// SPDX-License-Identifier: GPL-2.0-or-later
// Process-wide settings store: one JSON object per file in the configuration directory.
#pragma once

#include "KuvExport.h"

#include <memory>
#include <string>

class KUV_EXPORT ConfigModule {
public:
    static ConfigModule* Instance();
    static void UninitInstance();

    ~ConfigModule();
    ConfigModule(const ConfigModule&) = delete;
    ConfigModule& operator=(const ConfigModule&) = delete;

    // file is relative to the configuration directory, such as "gui_shell.conf".
    bool getBool(const std::string& file, const std::string& key, bool defaultValue);
    int getInt(const std::string& file, const std::string& key, int defaultValue);
    std::string getString(const std::string& file, const std::string& key, const std::string& defaultValue);
    // Writes go to disk at once, atomically (temporary file and rename). true on success.
    bool setBool(const std::string& file, const std::string& key, bool value);
    bool setInt(const std::string& file, const std::string& key, int value);
    bool setString(const std::string& file, const std::string& key, const std::string& value);

private:
    ConfigModule();
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
