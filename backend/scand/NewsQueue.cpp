// SPDX-License-Identifier: GPL-2.0-or-later
#include "NewsQueue.h"

#include "KuvScanProtocol.h"

namespace kuv {
namespace scand {

bool NewsQueue::push(int64_t type, std::string body)
{
    if (type == kuvscan::KUV_SCAN_MSG_STATUS && !m_items.empty() &&
        m_items.back().first == kuvscan::KUV_SCAN_MSG_STATUS) {
        m_items.back().second = std::move(body);
        return false;
    }
    if (m_items.size() >= kCap) {
        m_items.pop_front();
    }
    m_items.emplace_back(type, std::move(body));
    return true;
}

NewsQueue::News NewsQueue::pop()
{
    News news = std::move(m_items.front());
    m_items.pop_front();
    return news;
}

} // namespace scand
} // namespace kuv
