// SPDX-License-Identifier: GPL-2.0-or-later
// Bus messages of the back end kuv-scand: message types, the back end's GUID and the JSON body keys.
#pragma once

#include <cstdint>

// Every body is one compact JSON object in UTF-8. A path that is not valid UTF-8 travels as an object
// {"b64": "<base64 of the exact bytes>"} wherever a path string may stand, so no name is ever changed.
// Unknown keys are ignored; a body that cannot be used is answered with KUV_SCAN_MSG_ERROR.
namespace kuvscan {

// The back end's endpoint, one per user bus.
constexpr const char* kScandGuid = "5CA4D0E1-7B2F-4E8A-9C31-0F6B2D8E4A17";

// Caps on what the back end accepts in one request.
constexpr int kMaxRequestBytes = 4 * 1024 * 1024;
constexpr int kMaxRequestPaths = 100000;
constexpr int kMaxJobIdBytes = 128;

enum _KUV_SCAN_MSG : int64_t {
    // client -> back end: {"job": "<client-chosen id>", "paths": [path, ...],
    //   "options": {"report_clean": bool (default false), "max_file_size": bytes (0 = setting),
    //               "scan_archives": bool, "quarantine": bool, "exclude": [path, ...]}}
    // Jobs run one after another per back end; a request while one runs is queued, never lost (at most
    // 64 wait; beyond that the request gets KUV_SCAN_MSG_ERROR "queue_full"). Paths are absolute: a
    // relative one is reported as an "error" result, "not an absolute path". Folders are walked
    // recursively without following symbolic links (a path given here that is a link is followed once)
    // and never into /proc, /sys or /dev. Every message about a job goes to the endpoint that sent
    // the request; one that has left the bus ends its job without further messages.
    KUV_SCAN_MSG_REQUEST = 4001,
    // back end -> requester: {"job", "position": 0 running now / N waiting}
    KUV_SCAN_MSG_ACCEPTED = 4002,
    // back end -> requester, at most every 100 ms while a job runs:
    // {"job", "state": "counting" | "scanning", "files_total": N (-1 while still counting),
    //  "files_scanned", "bytes_scanned", "bytes_total" (-1 while counting), "threats", "current": path,
    //  "elapsed_ms"}
    KUV_SCAN_MSG_PROGRESS = 4003,
    // back end -> requester, batched (at most every 100 ms, at most 256 results a message):
    // {"job", "results": [{"path", "verdict", "signature", "reason"}]}; all four keys are always there.
    // verdict: "infected" | "clean" (only with report_clean) | "error" (reason: "permission denied",
    // "vanished", ...) | "skipped" (reason: "fifo", "socket", "device", "excluded", ...) |
    // "partial" (reason: "not fully scanned: <limit>") | "quarantined" | "deleted"
    KUV_SCAN_MSG_RESULTS = 4004,
    // back end -> requester, always the last message of a job:
    // {"job", "state": "done" | "cancelled" | "failed", "reason", "files", "bytes", "infected", "errors",
    //  "skipped", "partial", "duration_ms"}
    // files: files scanned to the end (clean or infected); bytes: their size. A job fails when the back
    // end stops during it ("the back end is stopping") or has no signature database. A back end that
    // dies sends nothing more: a client watches the "pid" of KUV_SCAN_MSG_STATUS (pidfd_open) and takes
    // the job as failed when that process ends (kuvctl scan does).
    KUV_SCAN_MSG_JOB_END = 4005,
    // client -> back end: {"job"}; the job ends as "cancelled" within 200 ms (queued jobs at once).
    KUV_SCAN_MSG_CANCEL = 4006,
    // client -> back end: {} or {"subscribe": bool}; the answer is one KUV_SCAN_MSG_STATUS, and with
    // subscribe true the sender receives every later status and event until it leaves the bus.
    KUV_SCAN_MSG_STATUS_REQUEST = 4007,
    // back end -> subscribers (and to the sender of KUV_SCAN_MSG_STATUS_REQUEST), whenever it changes:
    // {"state": "starting" | "ready" | "reloading" | "error" | "stopping",
    //  "engine": "libclamav" | "clamd", "engine_version", "db_version", "signatures", "db_time" (unix s),
    //  "db_dirs": [...], "db_error", "last_scan": {"job", "state", "end_time", "files", "infected"},
    //  "jobs_running", "jobs_queued", "pid"}
    KUV_SCAN_MSG_STATUS = 4008,
    // back end -> subscribers: {"time" (unix ms), "kind": "detection" | "action" | "engine" | "job",
    //  "severity": "info" | "warning" | "critical", "path", "signature", "action", "detail", "job"}
    KUV_SCAN_MSG_EVENT = 4009,
    // back end -> sender of a request it cannot use: {"request_type", "job" (when known), "error", "detail"}
    // error: "too_large", "bad_json", "bad_request", "duplicate_job", "queue_full", "stopping",
    // "unknown_job" (cancel), "too_many_subscribers", "unknown_type"; detail says it in words.
    KUV_SCAN_MSG_ERROR = 4010,
};

} // namespace kuvscan

// Subscribers that were there before the back end. A client that wants status and events also when
// the back end starts (or restarts) after it puts its endpoint GUID, one per line ("XXXXXXXX-XXXX-
// XXXX-XXXX-XXXXXXXXXXXX\n"), in this file of the per-user runtime directory ($XDG_RUNTIME_DIR/kuv/,
// 0600). When the back end has joined the bus it reads the file (at most kMaxSubscriberFileBytes;
// lines that are not a GUID are skipped) and treats every GUID listed as if it had sent
// KUV_SCAN_MSG_STATUS_REQUEST {"subscribe": true}: it sends each one KUV_SCAN_MSG_STATUS at once, and
// later statuses and events. A listed endpoint that is not on the bus is simply dropped.
namespace kuvscan {
constexpr const char* kSubscribersFile = "scand-subscribers";
constexpr int kMaxSubscriberFileBytes = 4096;
} // namespace kuvscan

// The user's scan settings: $XDG_CONFIG_HOME/kuv/scan.json (default ~/.config/kuv/scan.json, 0600),
// one JSON object, read afresh by the back end for every job so a change applies without a restart;
// options of a request win over it. Missing keys take the default, unknown keys are ignored:
//   "excluded": [path, ...]   folders never scanned (a path that is not UTF-8 as {"hex": bytes}); []
//   "max_file_size": bytes    files above it are reported "partial"; 0 = the engine's default; 104857600
//   "scan_archives": bool     look inside archives; true
//   "use_clamd": bool         scan with the system's clamd instead of the built-in engine; false
//   "clamd_socket": path      clamd's local socket; "/run/clamav/clamd.ctl"
//   "history_days": N         days of scan history kept, 0 = for ever; 90
// The back end watches the file: a change of "use_clamd" or "clamd_socket" swaps the engine in the
// background (running scans finish on the old one); a clamd that cannot be used leaves the engine as
// it is, and KUV_SCAN_MSG_STATUS "db_error" and an "engine" event ("kept") say why.
// Quarantine and history live in $XDG_DATA_HOME/kuv/ (quarantine/ and history.sqlite), see kuvctl(1).
