// SPDX-License-Identifier: GPL-2.0-or-later
// GUI shell settings in gui_shell.conf, the journal seam, and the interface language.
#pragma once

#include <string>

#include <json/json.h>

namespace kuv {
namespace shell {

constexpr const char* kShellConfFile = "gui_shell.conf";
constexpr const char* kStopBackendKey = "stop_backend_on_quit";
constexpr const char* kLanguageKey = "language";

// Thread-safe: control code 2 reads it from whatever thread asks.
bool stopBackendOnQuit();
bool setStopBackendOnQuit(bool stop);

// What basegui::Common::setLan asked for.
void setRequestedLanguage(const std::string& language);
std::string requestedLanguage();

// The language the shell shows: the "language" setting when set; else the user's locale (LANGUAGE,
// LC_ALL, LC_MESSAGES, LANG) where a catalog exists for it, C, POSIX and English meaning "en"; else
// basegui::Common::setLan's; else "en".
std::string effectiveLanguage();
// The language the locale asks for ("en", "zh-CN"), or empty when no catalog matches it.
std::string localeLanguage();
// The "language" setting itself (the user's, else the installation's); empty when none is made.
std::string languageSetting();
// An empty language removes the setting, so the locale decides again.
bool setLanguageSetting(const std::string& language);
// The user's own gui_shell.conf ($XDG_CONFIG_HOME/kuv/, default ~/.config/kuv/): it overlays the
// installation's, key by key, and takes the settings made in the GUI. Empty when there is no home.
std::string shellConfPath();
// The installation's gui_shell.conf (the defaults of every user).
std::string installedShellConfPath();

// Appends one compact JSON line to $KUV_SHELL_JOURNAL when it is set; flushed at once.
void journal(const Json::Value& record);
// Whether $KUV_SHELL_JOURNAL is set: records need not be built otherwise.
bool journalling();

} // namespace shell
} // namespace kuv
