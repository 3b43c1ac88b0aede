// SPDX-License-Identifier: GPL-2.0-or-later
// Bus endpoint test double: records what a plugin asks of it and delivers messages from a worker thread.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Guid.h"
#include "IZellClientMgr.h"

class FakeEndpoint final : public IZellMREndPoint4 {
public:
    explicit FakeEndpoint(int initResult = 0) : m_initResult(initResult) {}
    ~FakeEndpoint() = default;

    int init(const GUID& guid) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_guid = guid;
        ++m_inits;
        return m_initResult;
    }
    int uninit() override
    {
        // Like the bus: returns only once no callback runs.
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait(lock, [this] { return m_inCallback == 0; });
        ++m_uninits;
        m_receivers.clear();
        return 0;
    }
    int registerRecvNotify(int64_t msgType, IMRReceiveComplete* receiver, int) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_receivers[msgType] = receiver;
        return 0;
    }
    int unregisterRecvNotify(int64_t msgType) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_unregistered.push_back(msgType);
        return m_receivers.erase(msgType) == 1 ? 0 : -1;
    }
    int sendMsg(const GUID& dest, int64_t type, const char* body, int length) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sent.push_back(Sent{dest, type, std::string(body != nullptr ? body : "", body != nullptr ? length : 0)});
        return 0;
    }

    struct Sent {
        GUID dest;
        int64_t type;
        std::string body;
    };
    std::vector<Sent> sent()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_sent;
    }

    // Delivers on a fresh thread, as the bus's dispatch threads do; false when nobody listens.
    bool deliver(int64_t type, const std::string& body, uint64_t sequence = 1)
    {
        bool delivered = false;
        std::thread t([&] {
            IMRReceiveComplete* r = nullptr;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                auto it = m_receivers.find(type);
                if (it == m_receivers.end()) {
                    return;
                }
                r = it->second;
                ++m_inCallback;
            }
            GUID sender{};
            stringToGuid(sender, "0A1B2C3D-4E5F-6071-8293-A4B5C6D7E8F9");
            r->ReceiveCallback(reinterpret_cast<uint64_t>(this), type, body.data(), static_cast<int>(body.size()),
                               reinterpret_cast<uint64_t>(&sender), sequence);
            std::lock_guard<std::mutex> lock(m_mutex);
            --m_inCallback;
            delivered = true;
            m_cv.notify_all();
        });
        t.join();
        return delivered;
    }

    GUID guid()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_guid;
    }
    int inits()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_inits;
    }
    int uninits()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_uninits;
    }
    std::vector<int64_t> registeredTypes()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<int64_t> out;
        for (const auto& kv : m_receivers) {
            out.push_back(kv.first);
        }
        return out;
    }
    std::vector<int64_t> unregistered()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_unregistered;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    int m_initResult;
    GUID m_guid{};
    int m_inits = 0;
    int m_uninits = 0;
    int m_inCallback = 0;
    std::map<int64_t, IMRReceiveComplete*> m_receivers;
    std::vector<int64_t> m_unregistered;
    std::vector<Sent> m_sent;
};
