// Who goes first to the device.
#include "mediaio/store/asyncio.h"

#include <gtest/gtest.h>

namespace {

using namespace zemstore;
using Clock = std::chrono::steady_clock;

IoRequest Request(bool realTime, IoOp op = IoOp::kRead) {
    IoRequest request;
    request.op = op;
    request.realTime = realTime;
    return request;
}

TEST(IoQueue, RealTimeOvertakesWhatWaits) {
    CIoQueue queue;
    const Clock::time_point now = Clock::time_point{} + std::chrono::hours(1);
    IoRequest background[10];
    for (IoRequest& request : background) {
        request = Request(false);
        queue.Push(request, now);
    }
    IoRequest first = Request(true);
    queue.Push(first, now);
    EXPECT_EQ(queue.Pick(now), &first);
    EXPECT_EQ(queue.Pick(now), &background[0]) << "one request of the others beside it";
    EXPECT_EQ(queue.Pick(now), nullptr) << "and no more while the real-time client is active";
    queue.Finished(first);
    EXPECT_EQ(queue.Pick(now + std::chrono::milliseconds(999)), nullptr);
    const auto later = now + std::chrono::milliseconds(1000);
    for (unsigned i = 1; i < CIoQueue::kBackgroundLimit; ++i)
        EXPECT_EQ(queue.Pick(later), &background[i]);
    EXPECT_EQ(queue.Pick(later), nullptr);
    queue.Finished(background[0]);
    EXPECT_EQ(queue.Pick(later), &background[CIoQueue::kBackgroundLimit]);
}

TEST(IoQueue, WaitingForTheDeviceHoldsNobodyUp) {
    CIoQueue queue;
    const Clock::time_point now = Clock::time_point{} + std::chrono::hours(1);
    IoRequest sync = Request(false, IoOp::kSync);
    IoRequest read = Request(false);
    queue.Push(sync, now);
    queue.Push(read, now);
    EXPECT_EQ(queue.Pick(now), &sync);
    EXPECT_EQ(queue.Pick(now), &read);
    EXPECT_EQ(queue.InFlight(), 2u);
    EXPECT_TRUE(queue.Empty());
}

}  // namespace
