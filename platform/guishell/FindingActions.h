// SPDX-License-Identifier: GPL-2.0-or-later
// What a person can do with a finding, for every page that lists findings: quarantine, delete, ignore.
#pragma once

#include <cstdint>
#include <string>

#include <QString>

namespace kuv {
namespace shell {

struct FindingOutcome {
    bool ok = false;
    QString message;      // for the person, translated
    std::string action;   // what goes into the history: "quarantined <id>", "deleted", "ignored"
    bool missing = false; // the file is no longer there
};

// A path's bytes for display: as they are when UTF-8, else with every byte outside ASCII as \xHH.
QString displayBytes(const std::string& path);

// Moves the file into the user's quarantine. historyJob > 0 records the action with that job.
FindingOutcome quarantineFinding(const std::string& path, const std::string& signature, const std::string& job,
                                 int64_t historyJob = 0);
// Removes the file for good (only a regular file; a link is never followed). Ask before calling.
FindingOutcome deleteFinding(const std::string& path, int64_t historyJob = 0);
// Leaves the file alone and notes that in the history.
FindingOutcome ignoreFinding(const std::string& path, int64_t historyJob = 0);

} // namespace shell
} // namespace kuv
