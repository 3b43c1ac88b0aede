// SPDX-License-Identifier: GPL-2.0-or-later
// The per-user quarantine: files moved into $XDG_DATA_HOME/kuv/quarantine, stored neutralised,
// restored with their mode and times, never lost on the way in or out.
#pragma once

#include <sys/stat.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <json/value.h>

#include "StoreDb.h"
#include "UniqueFd.h"

namespace kuv {
namespace store {

enum class QStatus {
    Ok,
    NotFound,   // no such entry, or no such file to quarantine
    NotRegular, // only regular files go into the quarantine
    Exists,     // restore: something stands at the original path
    NoFolder,   // restore: the original folder is gone
    Changed,    // the file changed while it was being read; nothing was moved
    Damaged,    // the stored copy no longer matches its digest
    Failed,     // I/O or database error; message says which
};

struct QResult {
    QStatus status = QStatus::Ok;
    std::string message;
    bool ok() const { return status == QStatus::Ok; }
};

enum class RestoreMode {
    Refuse, // fail with QStatus::Exists when the original path is taken
    Beside, // then restore as "<name>.restored", "<name>.restored-2", ...
};

class QuarantineStore {
public:
    // dataDir: the user's kuv data folder (userDataDir() unless a test says otherwise). Creates it and
    // quarantine/ (0700), opens the database, finishes or undoes what an interrupted operation left,
    // and makes the index match the stored files. nullptr with error when the store cannot be used.
    static std::unique_ptr<QuarantineStore> open(const std::string& dataDir, std::string& error);
    ~QuarantineStore();

    // Things the user should hear about from open (a database kept aside, a recovered operation).
    const std::vector<std::string>& notices() const { return m_notices; }
    StoreDb& db() { return *m_db; }
    const std::string& quarantineDir() const { return m_qdirPath; }

    QResult quarantine(const std::string& path, const std::string& signature, const std::string& job,
                       QuarantineEntry* entry = nullptr);
    QResult restore(const std::string& id, RestoreMode mode, std::string* restoredTo = nullptr);
    QResult remove(const std::string& id);
    std::vector<QuarantineEntry> list();

    // Test seam: called with the number of each step of an operation as it is reached; a test stops
    // the process there. KUV_QUARANTINE_CRASH_AT=N in the environment kills the process at step N.
    // Quarantine: 1 intent written, 2 moved into the store (same file system), 3 half the copy written,
    // 4 copy synced, 5 copy in place, 6 original removed, 7 intent removed.
    // Restore: 11 intent written, 12 temporary copy synced, 13 linked in place, 14 temporary removed.
    static void setStepHook(std::function<void(int)> hook);

    // Name of the stored file of an entry inside quarantineDir().
    static std::string storedName(const std::string& id) { return id + ".kq"; }

private:
    QuarantineStore() = default;
    QResult openSource(const std::string& path, kuv::UniqueFd& parent, std::string& name, kuv::UniqueFd& src,
                       struct stat& st);
    QResult writeNeutralised(int srcFd, int outFd, const QuarantineEntry& e);
    QResult writeRestored(int inFd, off_t payload, uint64_t seed, int outFd, const QuarantineEntry& e);
    void recover();
    bool listQuarantineDir(std::vector<std::string>& names) const;
    bool has(const std::string& name) const;
    void recoverQuarantine(const std::string& id, const std::string& intentName);
    void removeOriginalIfUnchanged(const std::string& original, const Json::Value& intent);
    void putRawBack(const std::string& id, const std::string& original);
    void recoverRestore(const std::string& id, const std::string& intentName);
    bool restoreWasDone(const std::string& id, const std::string& temp, const std::string& target);
    void syncIndex(const std::vector<std::string>& names);
    void step(int n);

    std::string m_dataDir;
    std::string m_qdirPath;
    kuv::UniqueFd m_qdir;
    kuv::UniqueFd m_lock;
    std::unique_ptr<StoreDb> m_db;
    std::vector<std::string> m_notices;
};

const char* statusName(QStatus status);

// An entry as a JSON object; its original path goes under pathKey as path, in the form each reader
// keeps it (hex in the stored file's header, kuvscan's path form in kuvctl's output).
Json::Value entryToJson(const QuarantineEntry& e, const char* pathKey, Json::Value path);

} // namespace store
} // namespace kuv
