// SPDX-License-Identifier: GPL-2.0-or-later
// The engine jobs scan with. The user's choice of engine swaps it whole; a file being scanned keeps the
// engine it started with, which goes when its last scan ends.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "ScanEngine.h"

namespace kuv {
namespace scand {

class EngineSwitch final : public kuv::scan::IScanEngine {
public:
    void set(std::shared_ptr<kuv::scan::IScanEngine> engine)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_engine = std::move(engine);
    }
    std::shared_ptr<kuv::scan::IScanEngine> get() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_engine;
    }
    kuv::scan::ScanResult scanFd(int fd, const std::string& path, const kuv::scan::ScanLimits& limits,
                                 const std::atomic<bool>* cancel) override
    {
        const auto engine = get();
        if (!engine) {
            kuv::scan::ScanResult none;
            none.reason = "engine: none";
            return none;
        }
        return engine->scanFd(fd, path, limits, cancel);
    }
    kuv::scan::EngineInfo info() const override
    {
        const auto engine = get();
        return engine ? engine->info() : kuv::scan::EngineInfo();
    }

private:
    mutable std::mutex m_mutex;
    std::shared_ptr<kuv::scan::IScanEngine> m_engine;
};

} // namespace scand
} // namespace kuv
