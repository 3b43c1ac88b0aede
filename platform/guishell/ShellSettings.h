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

// The language the shell shows: the "language" key when set, else basegui::Common::setLan's, else "en".
std::string effectiveLanguage();
bool setLanguageSetting(const std::string& language);
// Full path of gui_shell.conf, for the settings page.
std::string shellConfPath();

// Appends one compact JSON line to $KUV_SHELL_JOURNAL when it is set; flushed at once.
void journal(const Json::Value& record);

} // namespace shell
} // namespace kuv
