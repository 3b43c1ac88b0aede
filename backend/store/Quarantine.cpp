// SPDX-License-Identifier: GPL-2.0-or-later
#include "Quarantine.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <json/json.h>

#include "SafeIo.h"
#include "ScanSettings.h"
#include "Sha256.h"
#include "StorePaths.h"

namespace kuv {
namespace store {

namespace {

constexpr char kMagic[8] = {'K', 'U', 'V', 'Q', 'U', 'A', 'R', '1'};
constexpr uint32_t kMaxHeader = 64 * 1024;
constexpr size_t kChunk = 64 * 1024;
constexpr const char* kDbName = "history.sqlite";

std::mutex g_hookMutex;
std::function<void(int)> g_hook;

using UniqueFd = kuv::UniqueFd;

std::string errnoText(const std::string& what)
{
    return what + ": " + std::strerror(errno);
}

QResult failed(QStatus status, const std::string& message)
{
    return QResult{status, message};
}

// Position-addressable key stream: byte i of the stored payload is byte i of the original XOR this.
inline uint64_t mix(uint64_t x)
{
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

void applyKey(uint64_t seed, uint64_t offset, char* data, size_t size)
{
    for (size_t i = 0; i < size; ++i) {
        const uint64_t pos = offset + i;
        const uint64_t word = mix(seed ^ ((pos >> 3) * 0xd6e8feb86659fd93ULL));
        data[i] = static_cast<char>(static_cast<unsigned char>(data[i]) ^ static_cast<unsigned char>(word >> (8 * (pos & 7))));
    }
}

uint64_t randomSeed()
{
    std::string bytes;
    hexDecode(randomId().substr(0, 16), bytes);
    uint64_t seed = 0;
    std::memcpy(&seed, bytes.data(), sizeof seed);
    return seed | 1;
}

bool writeAll(int fd, const char* data, size_t size)
{
    return kuv::safeWrite(fd, data, size) == static_cast<ssize_t>(size);
}

ssize_t preadFull(int fd, char* buf, size_t size, off_t offset)
{
    size_t got = 0;
    while (got < size) {
        const ssize_t n = kuv::retryEintr([&] { return ::pread(fd, buf + got, size - got, offset + off_t(got)); });
        if (n < 0) {
            return -1;
        }
        if (n == 0) {
            break;
        }
        got += size_t(n);
    }
    return ssize_t(got);
}

std::string compact(const Json::Value& v)
{
    Json::StreamWriterBuilder b;
    b["indentation"] = "";
    return Json::writeString(b, v);
}

bool parseJson(const std::string& text, Json::Value& out)
{
    Json::CharReaderBuilder b;
    b["collectComments"] = false;
    std::unique_ptr<Json::CharReader> r(b.newCharReader());
    std::string errs;
    return r->parse(text.data(), text.data() + text.size(), &out, &errs) && out.isObject();
}

// A small file created exclusively inside dirFd, written and synced, then the folder synced.
bool writeSynced(int dirFd, const std::string& name, const std::string& content)
{
    UniqueFd fd(::openat(dirFd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd.valid() || !writeAll(fd.get(), content.data(), content.size()) || ::fsync(fd.get()) != 0) {
        const int saved = errno;
        ::unlinkat(dirFd, name.c_str(), 0);
        errno = saved;
        return false;
    }
    return syncDir(dirFd);
}

bool readSmall(int dirFd, const std::string& name, std::string& out)
{
    UniqueFd fd(::openat(dirFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid()) {
        return false;
    }
    return readUpTo(fd.get(), kMaxHeader, out);
}

int64_t toNs(const struct timespec& ts)
{
    return int64_t(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

struct timespec fromNs(int64_t ns)
{
    struct timespec ts {};
    ts.tv_sec = time_t(ns / 1000000000LL);
    ts.tv_nsec = long(ns % 1000000000LL);
    if (ts.tv_nsec < 0) {
        ts.tv_nsec += 1000000000L;
        ts.tv_sec -= 1;
    }
    return ts;
}

bool entryFromJson(const Json::Value& v, QuarantineEntry& e)
{
    if (!v["id"].isString() || !v["path_hex"].isString() || !hexDecode(v["path_hex"].asString(), e.originalPath)) {
        return false;
    }
    e.id = v["id"].asString();
    e.size = v["size"].asUInt64();
    e.mode = v["mode"].asUInt();
    e.uid = v["uid"].asUInt();
    e.gid = v["gid"].asUInt();
    e.atimeNs = v["atime_ns"].asInt64();
    e.mtimeNs = v["mtime_ns"].asInt64();
    e.sha256 = v["sha256"].asString();
    e.signature = v["signature"].asString();
    e.quarantinedAt = v["date"].asInt64();
    e.job = v["job"].asString();
    return true;
}

// Reads the header of a stored file; payloadOffset is where the neutralised content starts.
bool readStoredHeader(int fd, QuarantineEntry& e, uint64_t& seed, off_t& payloadOffset)
{
    char head[12];
    if (preadFull(fd, head, sizeof head, 0) != ssize_t(sizeof head) || std::memcmp(head, kMagic, 8) != 0) {
        return false;
    }
    uint32_t len = 0;
    for (int i = 0; i < 4; ++i) {
        len |= uint32_t(static_cast<unsigned char>(head[8 + i])) << (8 * i);
    }
    if (len == 0 || len > kMaxHeader) {
        return false;
    }
    std::string text(len, '\0');
    if (preadFull(fd, &text[0], len, 12) != ssize_t(len)) {
        return false;
    }
    Json::Value v;
    if (!parseJson(text, v) || !entryFromJson(v, e) || !v["seed"].isString()) {
        return false;
    }
    std::string seedBytes;
    if (!hexDecode(v["seed"].asString(), seedBytes) || seedBytes.size() != 8) {
        return false;
    }
    std::memcpy(&seed, seedBytes.data(), 8);
    payloadOffset = off_t(12 + len);
    struct stat st {};
    return ::fstat(fd, &st) == 0 && uint64_t(st.st_size) == uint64_t(payloadOffset) + e.size;
}

// SHA-256 and size of what fd holds now.
bool hashFd(int fd, std::string& sha, uint64_t& size)
{
    Sha256 h;
    std::string buf(kChunk, '\0');
    uint64_t off = 0;
    for (;;) {
        const ssize_t n = preadFull(fd, &buf[0], kChunk, off_t(off));
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            break;
        }
        h.update(buf.data(), size_t(n));
        off += uint64_t(n);
    }
    sha = h.hexFinish();
    size = off;
    return true;
}

class FileLock {
public:
    explicit FileLock(int fd) : m_fd(fd)
    {
        kuv::retryEintr([&] { return ::flock(m_fd, LOCK_EX); });
    }
    ~FileLock() { ::flock(m_fd, LOCK_UN); }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    int m_fd;
};

bool endsWith(const std::string& s, const std::string& suffix)
{
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool isId(const std::string& s)
{
    if (s.size() != 32) {
        return false;
    }
    for (char c : s) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
    }
    return true;
}

UniqueFd openParent(const std::string& path, std::string& name)
{
    std::string parent;
    if (!splitPath(path, parent, name)) {
        errno = EINVAL;
        return UniqueFd();
    }
    return UniqueFd(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// Puts the file at tempName in place as finalName without ever replacing what stands there.
int linkNoReplace(int dirFd, const std::string& tempName, const std::string& finalName)
{
    if (::linkat(dirFd, tempName.c_str(), dirFd, finalName.c_str(), 0) == 0) {
        return 0;
    }
    if (errno == EEXIST) {
        return EEXIST;
    }
    // File systems without hard links: an exclusive rename does the same.
    if (::renameat2(dirFd, tempName.c_str(), dirFd, finalName.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    return errno;
}

// The record of the file at path, as stat saw it; its digest and size come from reading it.
QuarantineEntry newEntry(const std::string& path, const struct stat& st, const std::string& signature,
                         const std::string& job)
{
    QuarantineEntry e;
    e.id = randomId();
    e.originalPath = path;
    e.mode = st.st_mode & 07777;
    e.uid = st.st_uid;
    e.gid = st.st_gid;
    e.atimeNs = toNs(st.st_atim);
    e.mtimeNs = toNs(st.st_mtim);
    e.signature = signature;
    e.job = job;
    e.quarantinedAt = nowMs();
    return e;
}

// Links the restored copy tempName in place as name, or beside it as "<name>.restored", "<name>.restored-2",
// ... when asked; 0 with the name used in finalName, else an errno (EEXIST: every name was taken).
int linkRestored(int dirFd, const std::string& tempName, const std::string& name, RestoreMode mode,
                 std::string& finalName)
{
    finalName = name;
    int rc = linkNoReplace(dirFd, tempName, finalName);
    for (int n = 1; rc == EEXIST && mode == RestoreMode::Beside && n < 1000; ++n) {
        finalName = name + ".restored" + (n == 1 ? std::string() : "-" + std::to_string(n));
        rc = linkNoReplace(dirFd, tempName, finalName);
    }
    return rc;
}

// path made absolute against the working directory; false with errno when that cannot be known.
bool absolutePath(const std::string& path, std::string& absolute)
{
    if (path[0] == '/') {
        absolute = path;
        return true;
    }
    char cwd[4096];
    if (::getcwd(cwd, sizeof cwd) == nullptr) {
        return false;
    }
    absolute = std::string(cwd) + "/" + path;
    return true;
}

// What recover() needs to finish or undo a quarantine of e's file (stat st) cut short.
Json::Value quarantineIntent(const QuarantineEntry& e, const struct stat& st, bool sameFs)
{
    Json::Value intent(Json::objectValue);
    intent["op"] = "quarantine";
    intent["path_hex"] = hexEncode(e.originalPath);
    intent["dev"] = Json::UInt64(st.st_dev);
    intent["ino"] = Json::UInt64(st.st_ino);
    intent["size"] = Json::UInt64(st.st_size);
    intent["mtime_ns"] = Json::Int64(e.mtimeNs);
    intent["same_fs"] = sameFs;
    return intent;
}

} // namespace

std::unique_ptr<StoreDb> openUserDb(const std::string& dataDir, std::vector<std::string>& notices, std::string& error)
{
    UniqueFd dir = openPrivateDir(dataDir, 1, &error);
    if (!dir.valid()) {
        return nullptr;
    }
    return StoreDb::open(dataDir + "/" + kDbName, notices, error);
}

bool peekUserDb(const std::string& dataDir, int64_t& lastJob, int64_t& pending)
{
    return StoreDb::peek(dataDir + "/" + kDbName, lastJob, pending);
}

bool recordJob(const std::string& dataDir, JobRecord& job, std::vector<std::string>& notices, std::string& error)
{
    auto db = openUserDb(dataDir, notices, error);
    if (!db) {
        return false;
    }
    if (!db->addJob(job)) {
        error = db->lastError();
        return false;
    }
    ScanSettings settings;
    std::string why;
    if (!loadScanSettings(settings, &why)) {
        notices.push_back(why);
    }
    db->pruneHistory(settings.historyDays, nowMs());
    return true;
}

const char* statusName(QStatus status)
{
    switch (status) {
    case QStatus::Ok: return "ok";
    case QStatus::NotFound: return "not found";
    case QStatus::NotRegular: return "not a regular file";
    case QStatus::Exists: return "something stands at the original path";
    case QStatus::NoFolder: return "the original folder is gone";
    case QStatus::Changed: return "the file changed while it was read";
    case QStatus::Damaged: return "the stored copy is damaged";
    case QStatus::Failed: return "failed";
    }
    return "failed";
}

void QuarantineStore::setStepHook(std::function<void(int)> hook)
{
    std::lock_guard<std::mutex> lock(g_hookMutex);
    g_hook = std::move(hook);
}

void QuarantineStore::step(int n)
{
    std::function<void(int)> hook;
    {
        std::lock_guard<std::mutex> lock(g_hookMutex);
        hook = g_hook;
    }
    if (hook) {
        hook(n);
    }
    const char* at = std::getenv("KUV_QUARANTINE_CRASH_AT");
    int crashAt = 0;
    if (at != nullptr && std::from_chars(at, at + std::strlen(at), crashAt).ec == std::errc() && crashAt == n) {
        ::kill(::getpid(), SIGKILL);
    }
}

std::unique_ptr<QuarantineStore> QuarantineStore::open(const std::string& dataDir, std::string& error)
{
    std::unique_ptr<QuarantineStore> s(new QuarantineStore());
    s->m_dataDir = dataDir;
    s->m_qdirPath = dataDir + "/quarantine";
    UniqueFd data = openPrivateDir(dataDir, 1, &error);
    if (!data.valid()) {
        return nullptr;
    }
    s->m_qdir = openPrivateDir(s->m_qdirPath, 2, &error);
    if (!s->m_qdir.valid()) {
        return nullptr;
    }
    s->m_lock.reset(::openat(s->m_qdir.get(), ".lock", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!s->m_lock.valid()) {
        error = errnoText("cannot open " + s->m_qdirPath + "/.lock");
        return nullptr;
    }
    s->m_db = StoreDb::open(dataDir + "/" + kDbName, s->m_notices, error);
    if (!s->m_db) {
        return nullptr;
    }
    FileLock lock(s->m_lock.get());
    s->recover();
    return s;
}

QuarantineStore::~QuarantineStore() = default;

// What an interrupted operation left is finished or undone, then the index is made to match the stored files.
void QuarantineStore::recover()
{
    std::vector<std::string> names;
    if (!listQuarantineDir(names)) {
        m_notices.push_back(errnoText("cannot list " + m_qdirPath));
        return;
    }
    const int q = m_qdir.get();
    // A half-written copy is never an entry: the original is still where it was (or in <id>.raw).
    for (const std::string& n : names) {
        if (endsWith(n, ".tmp")) {
            ::unlinkat(q, n.c_str(), 0);
        }
    }
    for (const std::string& n : names) {
        if (endsWith(n, ".intent") && isId(n.substr(0, n.size() - 7))) {
            recoverQuarantine(n.substr(0, n.size() - 7), n);
        }
    }
    // Interrupted restores: the temporary copy goes; a copy already linked in place completes it.
    for (const std::string& n : names) {
        if (endsWith(n, ".restoring") && isId(n.substr(0, n.size() - 10))) {
            recoverRestore(n.substr(0, n.size() - 10), n);
        }
    }
    syncIndex(names);
}

bool QuarantineStore::listQuarantineDir(std::vector<std::string>& names) const
{
    UniqueFd dup(::openat(m_qdir.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dup.valid()) {
        return false;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> d(::fdopendir(dup.get()), &::closedir);
    if (!d) {
        return false;
    }
    (void)dup.release(); // now d's
    while (struct dirent* ent = ::readdir(d.get())) {
        names.emplace_back(ent->d_name);
    }
    return true;
}

bool QuarantineStore::has(const std::string& name) const
{
    struct stat st {};
    return ::fstatat(m_qdir.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
}

// A quarantine interrupted after its intent (intentName) was written.
void QuarantineStore::recoverQuarantine(const std::string& id, const std::string& intentName)
{
    const int q = m_qdir.get();
    const std::string raw = id + ".raw";
    std::string text;
    Json::Value intent;
    std::string original;
    const bool readable = readSmall(q, intentName, text) && parseJson(text, intent) &&
                          hexDecode(intent["path_hex"].asString(), original) && !original.empty();
    if (!readable) {
        if (has(raw)) {
            // Cannot happen short of a damaged disk (the intent is synced before the move); keep it.
            m_notices.push_back("quarantine: " + id + ".raw has no readable record; left in " + m_qdirPath);
            return;
        }
        ::unlinkat(q, intentName.c_str(), 0);
        return;
    }
    if (has(storedName(id))) {
        // The neutralised copy is complete: finish the move.
        if (has(raw)) {
            ::unlinkat(q, raw.c_str(), 0);
        } else {
            removeOriginalIfUnchanged(original, intent);
        }
        m_notices.push_back("quarantine: finished an interrupted quarantine of " + original);
    } else if (has(raw)) {
        putRawBack(id, original);
    }
    syncDir(q);
    ::unlinkat(q, intentName.c_str(), 0);
    syncDir(q);
}

// The original of a finished copy goes, unless it is no longer the file that was copied.
void QuarantineStore::removeOriginalIfUnchanged(const std::string& original, const Json::Value& intent)
{
    std::string name;
    UniqueFd parent = openParent(original, name);
    struct stat st {};
    if (parent.valid() && ::fstatat(parent.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
        uint64_t(st.st_dev) == intent["dev"].asUInt64() && uint64_t(st.st_ino) == intent["ino"].asUInt64() &&
        toNs(st.st_mtim) == intent["mtime_ns"].asInt64() && uint64_t(st.st_size) == intent["size"].asUInt64()) {
        ::unlinkat(parent.get(), name.c_str(), 0);
        syncDir(parent.get());
    }
}

// Moved in but not yet neutralised: put it back where it was, unless that place is taken.
void QuarantineStore::putRawBack(const std::string& id, const std::string& original)
{
    const int q = m_qdir.get();
    const std::string raw = id + ".raw";
    std::string name;
    UniqueFd parent = openParent(original, name);
    if (parent.valid() && ::renameat2(q, raw.c_str(), parent.get(), name.c_str(), RENAME_NOREPLACE) == 0) {
        syncDir(parent.get());
        m_notices.push_back("quarantine: an interrupted quarantine was undone; " + original + " is back");
    } else {
        const std::string keep = id + ".orphan";
        ::renameat(q, raw.c_str(), q, keep.c_str());
        m_notices.push_back("quarantine: an interrupted quarantine of " + original + " could not be undone (" +
                            std::strerror(errno) + "); the file is kept as " + m_qdirPath + "/" + keep);
    }
}

// A restore interrupted after its intent (intentName) was written.
void QuarantineStore::recoverRestore(const std::string& id, const std::string& intentName)
{
    const int q = m_qdir.get();
    std::string text;
    Json::Value intent;
    std::string temp, target;
    if (readSmall(q, intentName, text) && parseJson(text, intent) && hexDecode(intent["temp_hex"].asString(), temp) &&
        hexDecode(intent["target_hex"].asString(), target) && restoreWasDone(id, temp, target)) {
        ::unlinkat(q, storedName(id).c_str(), 0);
        syncDir(q);
        m_db->removeQuarantine(id);
        m_notices.push_back("quarantine: finished an interrupted restore to " + target);
    }
    ::unlinkat(q, intentName.c_str(), 0);
    syncDir(q);
}

// Whether the restored file stands at target; the temporary copy (temp) goes in any case.
bool QuarantineStore::restoreWasDone(const std::string& id, const std::string& temp, const std::string& target)
{
    std::string tempName, targetName, targetParent;
    UniqueFd parent = openParent(temp, tempName);
    splitPath(target, targetParent, targetName);
    struct stat ts {}, fs {};
    const bool haveTemp = parent.valid() && tempName.rfind(".kuv-restore-", 0) == 0 &&
                          ::fstatat(parent.get(), tempName.c_str(), &ts, AT_SYMLINK_NOFOLLOW) == 0;
    const bool haveFinal = parent.valid() && ::fstatat(parent.get(), targetName.c_str(), &fs, AT_SYMLINK_NOFOLLOW) == 0;
    if (haveTemp) {
        ::unlinkat(parent.get(), tempName.c_str(), 0);
        syncDir(parent.get());
        return haveFinal && ts.st_dev == fs.st_dev && ts.st_ino == fs.st_ino;
    }
    if (haveFinal && S_ISREG(fs.st_mode)) {
        QuarantineEntry e;
        UniqueFd ffd(::openat(parent.get(), targetName.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        std::string sha;
        uint64_t size = 0;
        return m_db->quarantineEntry(id, e) && ffd.valid() && hashFd(ffd.get(), sha, size) && sha == e.sha256 &&
               size == e.size;
    }
    return false;
}

// The stored files are the truth; the index follows them.
void QuarantineStore::syncIndex(const std::vector<std::string>& names)
{
    std::vector<std::string> present;
    for (const std::string& n : names) {
        if (!endsWith(n, ".kq") || !isId(n.substr(0, n.size() - 3)) || !has(n)) {
            continue;
        }
        const std::string id = n.substr(0, n.size() - 3);
        present.push_back(id);
        QuarantineEntry known;
        if (m_db->quarantineEntry(id, known)) {
            continue;
        }
        UniqueFd fd(::openat(m_qdir.get(), n.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        QuarantineEntry e;
        uint64_t seed = 0;
        off_t off = 0;
        if (fd.valid() && readStoredHeader(fd.get(), e, seed, off) && e.id == id) {
            if (m_db->addQuarantine(e)) {
                m_notices.push_back("quarantine: entry " + id + " added back to the index");
            }
        } else {
            m_notices.push_back("quarantine: " + m_qdirPath + "/" + n + " is not a readable entry; left alone");
        }
    }
    for (const QuarantineEntry& e : m_db->quarantineEntries()) {
        const bool found = std::find(present.begin(), present.end(), e.id) != present.end();
        if (!found && !has(storedName(e.id))) {
            m_db->removeQuarantine(e.id);
        }
    }
}

// Opens the regular file at path (never through a link) and its folder; its stat in st.
QResult QuarantineStore::openSource(const std::string& path, UniqueFd& parent, std::string& name, UniqueFd& src,
                                    struct stat& st)
{
    parent = openParent(path, name);
    if (!parent.valid()) {
        return failed(errno == ENOENT ? QStatus::NotFound : QStatus::Failed, errnoText("cannot open the folder of " + path));
    }
    // O_NOATIME where allowed, so that reading it does not change the access time recorded for it.
    const int readFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
    src.reset(::openat(parent.get(), name.c_str(), readFlags | O_NOATIME));
    if (!src.valid() && errno == EPERM) {
        src.reset(::openat(parent.get(), name.c_str(), readFlags));
    }
    if (!src.valid()) {
        if (errno == ELOOP) {
            return failed(QStatus::NotRegular, path + " is a symbolic link");
        }
        return failed(errno == ENOENT ? QStatus::NotFound : QStatus::Failed, errnoText("cannot open " + path));
    }
    if (::fstat(src.get(), &st) != 0) {
        return failed(QStatus::Failed, errnoText("cannot stat " + path));
    }
    if (!S_ISREG(st.st_mode)) {
        return failed(QStatus::NotRegular, path + " is not a regular file");
    }
    return QResult{};
}

// Header and neutralised content of e's file, read from srcFd, written to outFd; step 3 at half the content.
QResult QuarantineStore::writeNeutralised(int srcFd, int outFd, const QuarantineEntry& e)
{
    const uint64_t seed = randomSeed();
    Json::Value header = entryToJson(e, "path_hex", hexEncode(e.originalPath));
    header["seed"] = hexEncode(std::string(reinterpret_cast<const char*>(&seed), sizeof seed));
    const std::string headerText = compact(header);
    std::string head(kMagic, 8);
    for (int i = 0; i < 4; ++i) {
        head += static_cast<char>((headerText.size() >> (8 * i)) & 0xff);
    }
    head += headerText;
    if (!writeAll(outFd, head.data(), head.size())) {
        return failed(QStatus::Failed, errnoText("cannot write " + m_qdirPath));
    }
    Sha256 again;
    std::string buf(kChunk, '\0');
    uint64_t off = 0;
    bool half = false;
    for (;;) {
        const ssize_t n = preadFull(srcFd, &buf[0], kChunk, off_t(off));
        if (n < 0) {
            return failed(QStatus::Failed, errnoText("cannot read " + e.originalPath));
        }
        if (n == 0) {
            break;
        }
        again.update(buf.data(), size_t(n));
        applyKey(seed, off, &buf[0], size_t(n));
        if (!writeAll(outFd, buf.data(), size_t(n))) {
            return failed(QStatus::Failed, errnoText("cannot write " + m_qdirPath));
        }
        off += uint64_t(n);
        if (!half && off * 2 >= e.size) {
            half = true;
            step(3);
        }
    }
    if (!half) {
        step(3);
    }
    if (off != e.size || again.hexFinish() != e.sha256) {
        return failed(QStatus::Changed, e.originalPath + " changed while it was read; it was left where it was");
    }
    return QResult{};
}

QResult QuarantineStore::quarantine(const std::string& pathIn, const std::string& signature, const std::string& job,
                                    QuarantineEntry* entryOut)
{
    if (pathIn.empty()) {
        return failed(QStatus::NotFound, "empty path");
    }
    std::string path;
    if (!absolutePath(pathIn, path)) {
        return failed(QStatus::Failed, errnoText("cannot resolve " + pathIn));
    }
    FileLock lock(m_lock.get());
    const int q = m_qdir.get();
    std::string name;
    UniqueFd parent;
    UniqueFd src;
    struct stat st {};
    const QResult opened = openSource(path, parent, name, src, st);
    if (!opened.ok()) {
        return opened;
    }
    struct stat qst {};
    ::fstat(q, &qst);
    const bool sameFs = st.st_dev == qst.st_dev;

    QuarantineEntry e = newEntry(path, st, signature, job);
    uint64_t size = 0;
    if (!hashFd(src.get(), e.sha256, size)) {
        return failed(QStatus::Failed, errnoText("cannot read " + path));
    }
    e.size = size;

    const std::string intentName = e.id + ".intent";
    const std::string rawName = e.id + ".raw";
    const std::string tmpName = e.id + ".tmp";
    const std::string storedFile = storedName(e.id);
    if (!writeSynced(q, intentName, compact(quarantineIntent(e, st, sameFs)))) {
        return failed(QStatus::Failed, errnoText("cannot write to " + m_qdirPath));
    }
    step(1);
    auto dropIntent = [&]() {
        ::unlinkat(q, intentName.c_str(), 0);
        syncDir(q);
    };
    bool moved = false;
    if (sameFs) {
        // One atomic rename takes the file out of the user's folder at once.
        if (::renameat2(parent.get(), name.c_str(), q, rawName.c_str(), RENAME_NOREPLACE) == 0) {
            moved = true;
            syncDir(q);
            syncDir(parent.get());
            step(2);
        }
        // Otherwise (a rename refused by the file system): copy as across file systems.
    }
    auto undo = [&](QStatus status, const std::string& why) {
        const int saved = errno;
        ::unlinkat(q, tmpName.c_str(), 0);
        if (moved && ::renameat2(q, rawName.c_str(), parent.get(), name.c_str(), RENAME_NOREPLACE) == 0) {
            syncDir(parent.get());
        } else if (moved) {
            // Something new stands at the original path: keep the file where it is, never lose it.
            ::renameat(q, rawName.c_str(), q, (e.id + ".orphan").c_str());
            m_notices.push_back("quarantine: " + path + " was kept as " + m_qdirPath + "/" + e.id + ".orphan");
        }
        syncDir(q);
        dropIntent();
        errno = saved;
        return failed(status, why);
    };

    // The neutralised copy: magic, header, content XOR a per-entry key stream; 0600, never executable.
    UniqueFd out(::openat(q, tmpName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!out.valid()) {
        return undo(QStatus::Failed, errnoText("cannot create " + m_qdirPath + "/" + tmpName));
    }
    const QResult copied = writeNeutralised(src.get(), out.get(), e);
    if (!copied.ok()) {
        return undo(copied.status, copied.message);
    }
    if (::fsync(out.get()) != 0) {
        return undo(QStatus::Failed, errnoText("cannot sync " + m_qdirPath));
    }
    out.reset();
    step(4);
    if (::renameat2(q, tmpName.c_str(), q, storedFile.c_str(), RENAME_NOREPLACE) != 0 || !syncDir(q)) {
        return undo(QStatus::Failed, errnoText("cannot store " + m_qdirPath + "/" + storedFile));
    }
    step(5);
    if (moved) {
        ::unlinkat(q, rawName.c_str(), 0);
        syncDir(q);
    } else {
        // Only the file that was copied goes: a file put there meanwhile stays.
        struct stat now {};
        if (::fstatat(parent.get(), name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 && now.st_dev == st.st_dev &&
            now.st_ino == st.st_ino) {
            if (::unlinkat(parent.get(), name.c_str(), 0) != 0) {
                const std::string why = errnoText("cannot remove " + path);
                ::unlinkat(q, storedFile.c_str(), 0);
                syncDir(q);
                dropIntent();
                return failed(QStatus::Failed, why + "; it was left where it was");
            }
            syncDir(parent.get());
        }
    }
    step(6);
    dropIntent();
    step(7);
    if (!m_db->addQuarantine(e)) {
        // The stored file holds its own record: the next open indexes it.
        m_notices.push_back("quarantine index: " + m_db->lastError());
    }
    if (entryOut != nullptr) {
        *entryOut = e;
    }
    return QResult{};
}

// The original content of e from the stored file inFd (payload at payload) into outFd, with its owner,
// mode and times, synced.
QResult QuarantineStore::writeRestored(int inFd, off_t payload, uint64_t seed, int outFd, const QuarantineEntry& e)
{
    const std::string stored = m_qdirPath + "/" + storedName(e.id);
    Sha256 h;
    std::string buf(kChunk, '\0');
    uint64_t off = 0;
    while (off < e.size) {
        const size_t want = size_t(std::min<uint64_t>(kChunk, e.size - off));
        const ssize_t n = preadFull(inFd, &buf[0], want, payload + off_t(off));
        if (n != ssize_t(want)) {
            return failed(QStatus::Damaged, stored + " is damaged (short)");
        }
        applyKey(seed, off, &buf[0], want);
        h.update(buf.data(), want);
        if (!writeAll(outFd, buf.data(), want)) {
            return failed(QStatus::Failed, errnoText("cannot write " + e.originalPath));
        }
        off += want;
    }
    if (h.hexFinish() != e.sha256) {
        return failed(QStatus::Damaged, stored + " does not match its SHA-256");
    }
    // Owner first (it clears set-id bits), then mode, then times.
    if (::geteuid() == 0) {
        (void)::fchown(outFd, e.uid, e.gid);
    }
    if (::fchmod(outFd, e.mode & 07777) != 0) {
        return failed(QStatus::Failed, errnoText("cannot set the mode of " + e.originalPath));
    }
    const struct timespec times[2] = {fromNs(e.atimeNs), fromNs(e.mtimeNs)};
    if (::futimens(outFd, times) != 0 || ::fsync(outFd) != 0) {
        return failed(QStatus::Failed, errnoText("cannot finish " + e.originalPath));
    }
    return QResult{};
}

QResult QuarantineStore::restore(const std::string& id, RestoreMode mode, std::string* restoredTo)
{
    if (!isId(id)) {
        return failed(QStatus::NotFound, "no quarantine entry " + id);
    }
    FileLock lock(m_lock.get());
    const int q = m_qdir.get();
    const std::string storedFile = storedName(id);
    UniqueFd in(::openat(q, storedFile.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!in.valid()) {
        if (errno == ENOENT) {
            m_db->removeQuarantine(id);
            return failed(QStatus::NotFound, "no quarantine entry " + id);
        }
        return failed(QStatus::Failed, errnoText("cannot open " + m_qdirPath + "/" + storedFile));
    }
    QuarantineEntry e;
    uint64_t seed = 0;
    off_t payload = 0;
    if (!readStoredHeader(in.get(), e, seed, payload) || e.id != id) {
        return failed(QStatus::Damaged, m_qdirPath + "/" + storedFile + " is damaged");
    }
    std::string name;
    UniqueFd parent = openParent(e.originalPath, name);
    if (!parent.valid()) {
        return failed(errno == ENOENT ? QStatus::NoFolder : QStatus::Failed,
                      errnoText("cannot open the folder of " + e.originalPath));
    }
    std::string parentPath;
    splitPath(e.originalPath, parentPath, name);
    const std::string joiner = parentPath == "/" ? "" : "/";

    const std::string tempName = ".kuv-restore-" + id;
    const std::string intentName = id + ".restoring";
    {
        Json::Value intent(Json::objectValue);
        intent["op"] = "restore";
        intent["temp_hex"] = hexEncode(parentPath + joiner + tempName);
        intent["target_hex"] = hexEncode(e.originalPath);
        ::unlinkat(q, intentName.c_str(), 0);
        if (!writeSynced(q, intentName, compact(intent))) {
            return failed(QStatus::Failed, errnoText("cannot write to " + m_qdirPath));
        }
    }
    auto dropIntent = [&]() {
        ::unlinkat(q, intentName.c_str(), 0);
        syncDir(q);
    };
    step(11);
    // A leftover from an earlier attempt is ours by its name.
    ::unlinkat(parent.get(), tempName.c_str(), 0);
    UniqueFd out(::openat(parent.get(), tempName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!out.valid()) {
        const std::string why = errnoText("cannot write in the folder of " + e.originalPath);
        dropIntent();
        return failed(QStatus::Failed, why);
    }
    auto dropTemp = [&](QStatus status, const std::string& why) {
        ::unlinkat(parent.get(), tempName.c_str(), 0);
        dropIntent();
        return failed(status, why);
    };
    const QResult written = writeRestored(in.get(), payload, seed, out.get(), e);
    if (!written.ok()) {
        return dropTemp(written.status, written.message);
    }
    out.reset();
    step(12);
    std::string finalName;
    const int rc = linkRestored(parent.get(), tempName, name, mode, finalName);
    if (rc == EEXIST) {
        return dropTemp(QStatus::Exists, e.originalPath + " exists; nothing was overwritten");
    }
    if (rc != 0) {
        errno = rc;
        return dropTemp(QStatus::Failed, errnoText("cannot restore " + e.originalPath));
    }
    syncDir(parent.get());
    step(13);
    ::unlinkat(parent.get(), tempName.c_str(), 0);
    syncDir(parent.get());
    step(14);
    ::unlinkat(q, storedFile.c_str(), 0);
    syncDir(q);
    dropIntent();
    m_db->removeQuarantine(id);
    if (restoredTo != nullptr) {
        *restoredTo = parentPath + joiner + finalName;
    }
    return QResult{};
}

QResult QuarantineStore::remove(const std::string& id)
{
    if (!isId(id)) {
        return failed(QStatus::NotFound, "no quarantine entry " + id);
    }
    FileLock lock(m_lock.get());
    const int q = m_qdir.get();
    if (::unlinkat(q, storedName(id).c_str(), 0) != 0) {
        if (errno != ENOENT) {
            return failed(QStatus::Failed, errnoText("cannot delete " + m_qdirPath + "/" + storedName(id)));
        }
        QuarantineEntry e;
        const bool known = m_db->quarantineEntry(id, e);
        m_db->removeQuarantine(id);
        if (!known) {
            return failed(QStatus::NotFound, "no quarantine entry " + id);
        }
        return QResult{};
    }
    syncDir(q);
    if (!m_db->removeQuarantine(id)) {
        m_notices.push_back("quarantine index: " + m_db->lastError());
    }
    return QResult{};
}

std::vector<QuarantineEntry> QuarantineStore::list()
{
    return m_db->quarantineEntries();
}

Json::Value entryToJson(const QuarantineEntry& e, const char* pathKey, Json::Value path)
{
    Json::Value v(Json::objectValue);
    v["id"] = e.id;
    v[pathKey] = std::move(path);
    v["size"] = Json::UInt64(e.size);
    v["mode"] = e.mode;
    v["uid"] = e.uid;
    v["gid"] = e.gid;
    v["atime_ns"] = Json::Int64(e.atimeNs);
    v["mtime_ns"] = Json::Int64(e.mtimeNs);
    v["sha256"] = e.sha256;
    v["signature"] = e.signature;
    v["date"] = Json::Int64(e.quarantinedAt);
    v["job"] = e.job;
    return v;
}

} // namespace store
} // namespace kuv
