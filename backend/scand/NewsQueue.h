// SPDX-License-Identifier: GPL-2.0-or-later
// What waits to go out to the subscribers, oldest first; a waiting status is replaced by the next one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <utility>

namespace kuv {
namespace scand {

// Not locked: its owner keeps it under the mutex that also guards the subscribers.
class NewsQueue {
public:
    using News = std::pair<int64_t, std::string>; // message type, body
    static constexpr size_t kCap = 10000;

    // A status tells how things stand now, so one that still waits at the end of the queue is replaced by
    // a newer one instead of being followed by it: a queued, a started and an ended job send their
    // subscribers one status, not three, when the sender is behind. News of any other kind keeps its place
    // and its order. Past kCap the oldest news goes (a subscriber that far behind loses it, never the
    // service). True when the queue grew, false when a waiting status was replaced.
    bool push(int64_t type, std::string body);
    bool empty() const { return m_items.empty(); }
    size_t size() const { return m_items.size(); }
    // The oldest news; the queue must not be empty.
    News pop();
    void clear() { m_items.clear(); }

private:
    std::deque<News> m_items;
};

} // namespace scand
} // namespace kuv
