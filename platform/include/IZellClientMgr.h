// The bus client library as loaded at run time: client manager, endpoints and receivers.
#pragma once

#include <cstdint>

#include "Guid.h"

// Receivers implement this; the bus calls ReceiveCallback on one of its dispatch threads.
class IMRReceiveComplete {
public:
    virtual ~IMRReceiveComplete() = default;
    // endpoint: the IZellMREndPoint4* that received the message (as an integer);
    // msgType, content, length: the message; sender: a const GUID* of the sending endpoint, valid
    // during the call; sequence: the sender's message sequence number.
    virtual void ReceiveCallback(uint64_t endpoint, int64_t msgType, const char* content, int length,
                                 uint64_t sender, uint64_t sequence) = 0;
};

class IZellMREndPoint4 {
public:
    // Names the endpoint on the bus. 0 on success; non-zero when the GUID is taken by a live endpoint.
    virtual int init(const GUID& guid) = 0;
    // Leaves the bus; returns once no callback of this endpoint runs, and none runs afterwards.
    virtual int uninit() = 0;
    // Routes messages of msgType to receiver (not owned). flags is reserved, 0. 0 on success.
    virtual int registerRecvNotify(int64_t msgType, IMRReceiveComplete* receiver, int flags) = 0;
    virtual int unregisterRecvNotify(int64_t msgType) = 0;
    // Sends a message to the endpoint named dest. 0 when handed to the bus.
    virtual int sendMsg(const GUID& dest, int64_t msgType, const char* body, int length) = 0;

protected:
    ~IZellMREndPoint4() = default;
};

typedef void (*PFN_ZELL_LOG_CALLBACK)(int level, const char* text, int reserved);

class IZellClientMgr {
public:
    virtual const char* version() = 0;
    // 1 while connected to the broker, else 0.
    virtual int isConnected() = 0;
    virtual int endPointCount() = 0;
    virtual IZellMREndPoint4* createEndPoint() = 0;
    virtual int64_t destroyEndPoint(IZellMREndPoint4* endPoint) = 0;
    // settings: compact JSON ("log_path", "log_backup_path", "socket_addr", "thread_nums", "log_level",
    // "log_size"); module: the client's name. 0 on success.
    virtual int init(const char* settings, const char* module) = 0;
    // Levels: 0 most severe .. 4 least.
    virtual void setLogCallback(PFN_ZELL_LOG_CALLBACK callback) = 0;
    virtual void setLogLevel(int level) = 0;
    virtual void setLogMask(uint32_t mask) = 0;
    virtual void release() = 0;
    virtual void stop() = 0;

protected:
    ~IZellClientMgr() = default;
};

extern "C" {
typedef IZellClientMgr* (*PFN_CreateInstance)(const char* instanceGuid);
typedef int (*PFN_DestoryInstance)(const char* instanceGuid, IZellClientMgr* instance);
}
