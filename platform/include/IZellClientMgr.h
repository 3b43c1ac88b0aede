// SPDX-License-Identifier: GPL-2.0-or-later
// The bus client library as loaded at run time: client manager, endpoints and receivers.
#pragma once

#include <cstdint>

#include "Guid.h"

// Receivers implement this; the bus calls ReceiveCallback on one of its worker threads, usually the one that
// read the message, so a receiver that takes long holds back its client's later messages (as before, with
// "thread_nums" 1) but never the broker's answers that other threads wait for.
class IMRReceiveComplete {
public:
    virtual ~IMRReceiveComplete() = default;
    // endpoint: the IZellMREndPoint4* that received the message (as an integer);
    // msgType, content, length: the message; sender: a const GUID* of the sending endpoint, valid
    // during the call; sequence: the sender's message sequence number.
    virtual void ReceiveCallback(uint64_t endpoint, int64_t msgType, const char* content, int length,
                                 uint64_t sender, uint64_t sequence) = 0;
};

// registerRecvNotify with this type receives every message type that has no receiver of its own.
constexpr int64_t kZellAnyMsgType = -1;

// Results of IZellMREndPoint4::sendMsgWait.
enum _ZELL_SEND_RESULT {
    ZELL_SEND_ROUTED = 0,       // the broker handed the message to the destination's connection
    ZELL_SEND_UNKNOWN_DEST = 1, // no endpoint is registered under the destination GUID
    ZELL_SEND_CONGESTED = 2,    // the destination did not keep up; the broker dropped the message
    ZELL_SEND_NO_BROKER = 3,    // not connected, or no answer within the timeout
    ZELL_SEND_BAD_ARGS = -1,    // endpoint not initialised, body too large (16 MiB) or inconsistent
};

class IZellMREndPoint4 {
public:
    // Names the endpoint on the bus. 0 on success (with no broker yet: registered once it is reachable);
    // non-zero when the GUID is taken by a live endpoint (1 in this client, 2 elsewhere on the bus), is all
    // zeros, or the endpoint is initialised already (-1).
    virtual int init(const GUID& guid) = 0;
    // Leaves the bus and forgets the receivers; returns once no callback of this endpoint runs, and none
    // runs afterwards (a receiver may call it on its own endpoint). 0, or 1 when not initialised.
    virtual int uninit() = 0;
    // Routes messages of msgType to receiver (not owned). flags is reserved, 0. 0 on success. Receivers of one
    // endpoint are called one at a time, in the order the messages arrived.
    virtual int registerRecvNotify(int64_t msgType, IMRReceiveComplete* receiver, int flags) = 0;
    // 0 when a receiver was removed (1 when there was none); it is not called once this returns.
    virtual int unregisterRecvNotify(int64_t msgType) = 0;
    // Sends a message to the endpoint named dest. 0 when handed to the bus; 1 while no broker is
    // connected; 2 when the send queue stayed full; -1 for bad arguments (see sendMsgWait).
    virtual int sendMsg(const GUID& dest, int64_t msgType, const char* body, int length) = 0;
    // Sends and waits up to timeoutMs for the broker's verdict; one of _ZELL_SEND_RESULT. (Not pure so that
    // endpoints without a broker, such as test doubles, need not provide it.)
    virtual int sendMsgWait(const GUID& /*dest*/, int64_t /*msgType*/, const char* /*body*/, int /*length*/,
                            int /*timeoutMs*/)
    {
        return ZELL_SEND_NO_BROKER;
    }
    // 1 once the broker has confirmed this endpoint's GUID; -1 while the broker refuses it (another live
    // endpoint has it; asked again every few seconds); 0 otherwise (not initialised, or not confirmed yet).
    virtual int isRegistered() { return 0; }
    // notify(context) is called on a bus thread each time isRegistered() may have changed; null removes it,
    // and once that returns it is not called again (uninit() removes it too, so notify must not call that).
    // For waiting on the registration without polling.
    virtual void setRegisteredNotify(void (*notify)(void* context), void* context)
    {
        (void)notify;
        (void)context;
    }

protected:
    ~IZellMREndPoint4() = default;
};

// level: 0 most severe .. 4 least; text: one line, control characters escaped; category: one of
// _ZELL_LOG_CATEGORY (what setLogMask selects).
typedef void (*PFN_ZELL_LOG_CALLBACK)(int level, const char* text, int category);

enum _ZELL_LOG_CATEGORY {
    ZELL_LOG_CONNECTION = 0x1, // the session with the broker
    ZELL_LOG_ENDPOINT = 0x2,   // endpoint registration
    ZELL_LOG_TRAFFIC = 0x4,    // messages not delivered or dropped
    ZELL_LOG_INTERNAL = 0x8,   // settings, threads, malformed input
};

// Results of IZellClientMgr::init (the values are the module's ABI; lastError() tells the details).
enum _ZELL_INIT_RESULT {
    ZELL_INIT_OK = 0,
    ZELL_INIT_BAD_SETTINGS = 1, // not JSON, or a key of the wrong type or out of range
    ZELL_INIT_BAD_ADDRESS = 2,  // "socket_addr" cannot be resolved (runtime directory unusable, not ipc)
    ZELL_INIT_NOT_FRESH = 3,    // init was called before, or the client was stopped
    ZELL_INIT_NO_RESOURCES = 4, // the socket, the wake descriptor or the threads could not be set up
};

// The name of an init result ("ZELL_INIT_BAD_SETTINGS"), or "ZELL_INIT_UNKNOWN".
inline const char* zellInitResultName(int code)
{
    switch (code) {
    case ZELL_INIT_OK: return "ZELL_INIT_OK";
    case ZELL_INIT_BAD_SETTINGS: return "ZELL_INIT_BAD_SETTINGS";
    case ZELL_INIT_BAD_ADDRESS: return "ZELL_INIT_BAD_ADDRESS";
    case ZELL_INIT_NOT_FRESH: return "ZELL_INIT_NOT_FRESH";
    case ZELL_INIT_NO_RESOURCES: return "ZELL_INIT_NO_RESOURCES";
    default: return "ZELL_INIT_UNKNOWN";
    }
}

class IZellClientMgr {
public:
    virtual const char* version() = 0;
    // 1 while connected to the broker, else 0.
    virtual int isConnected() = 0;
    virtual int endPointCount() = 0;
    // A new, uninitialised endpoint owned by this client; null once stopped.
    virtual IZellMREndPoint4* createEndPoint() = 0;
    // Uninitialises (see IZellMREndPoint4::uninit) and frees the endpoint; 0, or -1 when it is not one of
    // this client's endpoints. May be called from the endpoint's own receiver.
    virtual int64_t destroyEndPoint(IZellMREndPoint4* endPoint) = 0;
    // settings: compact JSON ("log_path", "log_backup_path", "socket_addr", "thread_nums", "log_level",
    // "log_size"); module: the client's name. One of _ZELL_INIT_RESULT: ZELL_INIT_OK on success (a broker
    // that is not running yet is reached in the background); the reason otherwise, with lastError() set.
    virtual int init(const char* settings, const char* module) = 0;
    // Levels: 0 most severe .. 4 least. The callback may run on any of the module's threads.
    virtual void setLogCallback(PFN_ZELL_LOG_CALLBACK callback) = 0;
    // Lines of this level and more severe ones are logged (the file and the callback).
    virtual void setLogLevel(int level) = 0;
    // Bits of _ZELL_LOG_CATEGORY that are logged; all by default.
    virtual void setLogMask(uint32_t mask) = 0;
    // Frees every endpoint and closes the module log (stops first if needed).
    virtual void release() = 0;
    // Leaves the bus and joins the module's threads: no receiver runs afterwards. Not from a receiver.
    virtual void stop() = 0;
    // The module's last error line: the reason of a failed init (kept whatever the log mask and callback),
    // or a later line it logged at level 0; "" when there was none. Valid until this thread calls it again.
    // (Added after the original operations, with a body, so callers and implementations that predate it
    // keep their slots.)
    virtual const char* lastError() { return ""; }
    // Waits up to timeoutMs for the connection to the broker; 1 when connected, else 0.
    virtual int waitConnected(int timeoutMs)
    {
        (void)timeoutMs;
        return isConnected();
    }

protected:
    ~IZellClientMgr() = default;
};

extern "C" {
// Null when an instance of that GUID text is alive.
typedef IZellClientMgr* (*PFN_CreateInstance)(const char* instanceGuid);
// Stops, releases and deletes the instance; 0, or -1 for a GUID/instance pair it did not create.
typedef int (*PFN_DestoryInstance)(const char* instanceGuid, IZellClientMgr* instance);
}
