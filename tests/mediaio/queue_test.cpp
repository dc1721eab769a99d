// Who goes first to the device, and how long the real-time client waits for it: a device of one
// request at a time, or of several, in a time of the test's own.
#include "mediaio/store/asyncio.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <vector>

#include "seeded.h"

namespace {

using namespace zemstore;
using Clock = CIoQueue::Clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr Clock::time_point kStart = Clock::time_point{} + std::chrono::hours(1);

IoRequest Request(bool realTime, IoOp op = IoOp::kRead, bool ahead = false) {
    IoRequest request;
    request.op = op;
    request.realTime = realTime;
    request.ahead = ahead;
    return request;
}

TEST(IoQueue, RealTimeOvertakesWhatWaits) {
    CIoQueue queue;
    const Clock::time_point now = kStart;
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
    EXPECT_EQ(queue.Pick(now + CIoQueue::kRealTimeMemory - milliseconds(1)), nullptr);
    const auto later = now + CIoQueue::kRealTimeMemory;
    for (unsigned i = 1; i < CIoQueue::kBackgroundLimit; ++i)
        EXPECT_EQ(queue.Pick(later), &background[i]);
    EXPECT_EQ(queue.Pick(later), nullptr);
    queue.Finished(background[0]);
    EXPECT_EQ(queue.Pick(later), &background[CIoQueue::kBackgroundLimit]);
}

TEST(IoQueue, ARealTimeClientThatIsServedFromThePageCacheCountsAsActive) {
    CIoQueue queue;
    EXPECT_FALSE(queue.RealTimeActive(kStart)) << "nobody was there yet";
    queue.RealTimeSeen(kStart);
    IoRequest background[2] = {Request(false), Request(false)};
    for (IoRequest& request : background)
        queue.Push(request, kStart);
    EXPECT_EQ(queue.Pick(kStart), &background[0]);
    EXPECT_EQ(queue.Pick(kStart), nullptr);
}

TEST(IoQueue, WhatIsReadAheadGoesBehindWhatIsWaitedFor) {
    CIoQueue queue;
    IoRequest ahead[3] = {Request(true, IoOp::kFetch, true), Request(true, IoOp::kFetch, true),
                          Request(true, IoOp::kFetch, true)};
    IoRequest theirs = Request(false, IoOp::kFetch, true);
    IoRequest background = Request(false);
    IoRequest wanted[2] = {Request(true), Request(true)};
    for (IoRequest* request : {&theirs, &background, &ahead[0], &ahead[1], &ahead[2], &wanted[0]})
        queue.Push(*request, kStart);
    EXPECT_EQ(queue.Pick(true, kStart), &wanted[0]);
    EXPECT_EQ(queue.Pick(true, kStart), nullptr) << "reading ahead waits for the wanted one";
    queue.Finished(wanted[0]);
    EXPECT_EQ(queue.Pick(true, kStart), &ahead[0]);
    EXPECT_EQ(queue.Pick(true, kStart), &ahead[1]);
    EXPECT_EQ(queue.Pick(true, kStart), nullptr) << "two at a time";
    queue.Push(wanted[1], kStart);
    EXPECT_EQ(queue.Pick(true, kStart), &wanted[1]);
    EXPECT_EQ(queue.Pick(false, kStart), &background);
    EXPECT_EQ(queue.Pick(false, kStart), nullptr) << "reading ahead is one of the others, too";
    queue.Finished(background);
    EXPECT_EQ(queue.Pick(false, kStart), &theirs);
}

TEST(IoQueue, EachSideHasItsOwn) {
    CIoQueue queue;
    IoRequest urgent = Request(true);
    IoRequest other = Request(false);
    queue.Push(urgent, kStart);
    queue.Push(other, kStart);
    EXPECT_EQ(queue.Pick(false, kStart), &other);
    EXPECT_FALSE(queue.Empty(true));
    EXPECT_TRUE(queue.Empty(false));
    EXPECT_EQ(queue.Pick(true, kStart), &urgent);
    EXPECT_EQ(queue.InFlight(true), 1u);
    EXPECT_EQ(queue.InFlight(false), 1u);
}

TEST(IoQueue, WaitingForTheDeviceHoldsNobodyUp) {
    CIoQueue queue;
    IoRequest sync = Request(false, IoOp::kSync);
    IoRequest read = Request(false);
    queue.Push(sync, kStart);
    queue.Push(read, kStart);
    EXPECT_EQ(queue.Pick(kStart), &sync);
    EXPECT_EQ(queue.Pick(kStart), &read);
    EXPECT_EQ(queue.InFlight(), 2u);
    EXPECT_TRUE(queue.Empty());
}

// A device that takes requests in the order in which it is given them and works on `channels` of
// them at a time, each of 1 MiB for a millisecond.
class CDevice {
public:
    static constexpr microseconds kService{1000};
    CDevice(CIoQueue& queue, unsigned channels) : m_queue(queue), m_free(channels, kStart) {}

    // Gives the device whatever may go to it now.
    void Feed(Clock::time_point now) {
        for (IoRequest* request = m_queue.Pick(now); request != nullptr;
             request = m_queue.Pick(now)) {
            if (request->realTime) {
                unsigned before = 0;
                for (const auto& [end, other] : m_working)
                    before += !other->realTime;
                m_mostBefore = std::max(m_mostBefore, before);
            }
            auto& channel = *std::min_element(m_free.begin(), m_free.end());
            channel = std::max(channel, now) + kService;
            m_working.emplace(channel, request);
        }
    }
    Clock::time_point Next() const {
        return m_working.empty() ? Clock::time_point::max() : m_working.begin()->first;
    }
    IoRequest* Finish() {
        IoRequest* request = m_working.begin()->second;
        m_working.erase(m_working.begin());
        m_queue.Finished(*request);
        return request;
    }
    // The most requests of the others that were at the device when a real-time one got there.
    unsigned MostBefore() const { return m_mostBefore; }

private:
    CIoQueue& m_queue;
    std::vector<Clock::time_point> m_free;
    std::multimap<Clock::time_point, IoRequest*> m_working;
    unsigned m_mostBefore = 0;
};

struct Latencies {
    microseconds p99;
    microseconds most;
    unsigned mostBefore;
    size_t backgroundReads;
};

// `readers` ask for the next 1 MiB as soon as they have the last; the real-time client for a frame
// of three pieces, one after another, every 40 ms and a little.
Latencies Play(unsigned readers, unsigned channels, unsigned seed) {
    constexpr unsigned kFrames = 1000;
    constexpr unsigned kPieces = 3;
    CRandom random(seed);
    CIoQueue queue;
    CDevice device(queue, channels);
    std::vector<IoRequest> background(readers, Request(false));
    Clock::time_point now = kStart;
    queue.RealTimeSeen(now);  // it has opened its file
    for (IoRequest& request : background)
        queue.Push(request, now);
    IoRequest piece = Request(true);
    std::vector<microseconds> latencies;
    Clock::time_point asked = now + milliseconds(40);
    unsigned pieces = 0;
    size_t backgroundReads = 0;
    while (latencies.size() < kFrames) {
        device.Feed(now);
        const bool idle = pieces == 0;
        if (idle && asked <= device.Next()) {
            now = asked;
            pieces = kPieces;
            queue.BeginRealTimeRead(now);
            queue.Push(piece, now);
            continue;
        }
        now = device.Next();
        IoRequest* done = device.Finish();
        if (!done->realTime) {
            ++backgroundReads;
            queue.Push(*done, now);
        } else if (--pieces > 0) {
            queue.Push(piece, now);
        } else {
            queue.EndRealTimeRead();
            latencies.push_back(std::chrono::duration_cast<microseconds>(now - asked));
            asked = asked + milliseconds(40) + microseconds(random() % 1000);
        }
    }
    std::sort(latencies.begin(), latencies.end());
    return {latencies[kFrames * 99 / 100], latencies.back(), device.MostBefore(), backgroundReads};
}

TEST(RealTimeQueue, AtMostOneOtherRequestIsAheadOfAFrame) {
    for (unsigned seed = 1; seed <= 5; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        const Latencies alone = Play(0, 1, seed);
        const Latencies busy = Play(8, 1, seed);
        EXPECT_EQ(alone.most, 3 * CDevice::kService);
        EXPECT_EQ(busy.mostBefore, 1u);
        EXPECT_LE(busy.most, alone.most + CDevice::kService);
        EXPECT_GT(busy.p99, alone.p99) << "the others' request was ahead of it time and again";
        EXPECT_GT(busy.backgroundReads, 30000u) << "the device is hardly ever idle";
    }
}

// One who reads without a pause leaves the others a request for every other of its frames.
TEST(RealTimeQueue, TheOthersDoNotStarve) {
    CIoQueue queue;
    CDevice device(queue, 1);
    IoRequest background = Request(false);
    IoRequest piece = Request(true);
    Clock::time_point now = kStart;
    queue.Push(background, now);
    unsigned theirs = 0;
    constexpr unsigned kFrames = 100;
    for (unsigned frame = 0; frame < kFrames; ++frame) {
        queue.BeginRealTimeRead(now);
        queue.Push(piece, now);
        for (bool read = false; !read;) {
            device.Feed(now);
            now = device.Next();
            IoRequest* done = device.Finish();
            read = done == &piece;
            if (!read) {
                ++theirs;
                queue.Push(background, now);
            }
        }
        queue.EndRealTimeRead();
    }
    EXPECT_GE(theirs, kFrames / 2 - 1);
    EXPECT_LE(theirs, kFrames);
}

TEST(RealTimeQueue, AFasterDeviceHidesTheOthers) {
    const Latencies alone = Play(0, 4, 7);
    const Latencies busy = Play(8, 4, 7);
    EXPECT_EQ(busy.most, alone.most) << "theirs keep one of its four channels busy";
    EXPECT_EQ(busy.mostBefore, 1u);
}

}  // namespace
