// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include "KuvScanProtocol.h"
#include "NewsQueue.h"

using kuv::scand::NewsQueue;

namespace {

constexpr int64_t kStatus = kuvscan::KUV_SCAN_MSG_STATUS;
constexpr int64_t kEvent = kuvscan::KUV_SCAN_MSG_EVENT;

} // namespace

// A job queued, started and ended while the subscribers' sender is busy: one status goes out, the last.
TEST(NewsQueue, AWaitingStatusIsReplacedByTheNextOne)
{
    NewsQueue q;
    EXPECT_TRUE(q.push(kStatus, "queued"));
    EXPECT_FALSE(q.push(kStatus, "running"));
    EXPECT_FALSE(q.push(kStatus, "idle"));
    ASSERT_EQ(q.size(), 1u);
    EXPECT_EQ(q.pop(), NewsQueue::News(kStatus, "idle"));
    EXPECT_TRUE(q.empty());
}

// Statuses on either side of other news keep their order with it: the subscriber never learns of the end
// of a job before the status that came before it.
TEST(NewsQueue, OtherNewsKeepsItsPlaceAndOrder)
{
    NewsQueue q;
    q.push(kStatus, "s1");
    q.push(kEvent, "e1");
    q.push(kStatus, "s2");
    q.push(kStatus, "s3");
    q.push(kEvent, "e2");
    q.push(kEvent, "e3");
    ASSERT_EQ(q.size(), 5u);
    EXPECT_EQ(q.pop(), NewsQueue::News(kStatus, "s1"));
    EXPECT_EQ(q.pop(), NewsQueue::News(kEvent, "e1"));
    EXPECT_EQ(q.pop(), NewsQueue::News(kStatus, "s3"));
    EXPECT_EQ(q.pop(), NewsQueue::News(kEvent, "e2"));
    EXPECT_EQ(q.pop(), NewsQueue::News(kEvent, "e3"));
}

// Once a status was taken for sending, the next one is news again.
TEST(NewsQueue, AStatusAlreadyTakenIsNotReplaced)
{
    NewsQueue q;
    q.push(kStatus, "s1");
    EXPECT_EQ(q.pop().second, "s1");
    EXPECT_TRUE(q.push(kStatus, "s2"));
    EXPECT_EQ(q.pop().second, "s2");
}

// Bounded: the oldest news goes first.
TEST(NewsQueue, PastItsCapTheOldestNewsGoes)
{
    NewsQueue q;
    for (size_t i = 0; i < NewsQueue::kCap + 5; ++i) {
        q.push(kEvent, std::to_string(i));
    }
    EXPECT_EQ(q.size(), NewsQueue::kCap);
    EXPECT_EQ(q.pop().second, "5");
}
