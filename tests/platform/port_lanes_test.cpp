// The lanes of a completion port: an event comes exactly to somebody, whatever lane it came in,
// whoever opens and closes it, and wherever its descriptor moves meanwhile.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "platform/posix/port_lanes.h"

namespace {

// A client that comes back after a while, and what its server does until then. Time is what the
// test says: a look at the sockets takes 5 us, a sleep ends when the client comes.
struct CVisit {
    int eventfd = -1;
    uint64_t comes_ns = 0;
    int looks = 0, sleeps = 0;
};
thread_local CVisit* t_visit = nullptr;
thread_local uint64_t t_now_ns = 0;

std::atomic<bool> g_no_watch{false};  // nothing more can be watched

}  // namespace

// These stand in for the C library's.
extern "C" int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
    if (operation != EPOLL_CTL_ADD || !g_no_watch.load())
        return static_cast<int>(syscall(SYS_epoll_ctl, epoll, operation, fd, event));
    errno = ENOSPC;
    return -1;
}

extern "C" int epoll_wait(int epoll, epoll_event* events, int room, int timeout_ms) {
    if (!t_visit) return static_cast<int>(syscall(SYS_epoll_wait, epoll, events, room, timeout_ms));
    CVisit& visit = *t_visit;
    ++(timeout_ms == 0 ? visit.looks : visit.sleeps);
    t_now_ns = timeout_ms == 0 ? t_now_ns + 5000 : std::max(t_now_ns, visit.comes_ns);
    const uint64_t one = 1;
    if (t_now_ns >= visit.comes_ns) {
        EXPECT_EQ(write(visit.eventfd, &one, sizeof one), static_cast<ssize_t>(sizeof one));
    }
    return static_cast<int>(syscall(SYS_epoll_wait, epoll, events, room, 0));
}

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (!t_visit) return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    now->tv_sec = static_cast<time_t>(t_now_ns / 1'000'000'000);
    now->tv_nsec = static_cast<long>(t_now_ns % 1'000'000'000);
    return 0;
}

namespace posix {
namespace {

constexpr uint32_t kEvents = EPOLLIN | EPOLLET;

// A counter that is written to and taken from, owned by one thread at a time as a connection is.
class CCounter final : public CPollTarget {
public:
    CCounter() : m_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~CCounter() { close(m_fd); }
    bool Claim(uint32_t) override {
        if (m_on_claim) m_on_claim();
        int state = m_state.load();
        for (;;) {
            if (state == kOwnedEvent) return false;
            const int next = state == kIdle ? kOwned : kOwnedEvent;
            if (m_state.compare_exchange_weak(state, next)) return next == kOwned;
        }
    }
    bool Run(CPacket&) override { return false; }

    int Fd() const { return m_fd; }
    void Write() const {
        const uint64_t one = 1;
        EXPECT_EQ(write(m_fd, &one, sizeof one), static_cast<ssize_t>(sizeof one));
    }
    // By the owner.
    uint64_t Read() const {
        uint64_t value = 0;
        return read(m_fd, &value, sizeof value) == sizeof value ? value : 0;
    }
    // False: something came meanwhile, look again.
    bool Release() {
        int state = kOwned;
        if (m_state.compare_exchange_strong(state, kIdle)) return true;
        m_state.store(kOwned);
        return false;
    }
    int m_lane = 0;
    std::function<void()> m_on_claim;

private:
    static constexpr int kIdle = 0, kOwned = 1, kOwnedEvent = 2;
    int m_fd;
    std::atomic<int> m_state{kIdle};
};

class PortLanes : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_lanes.Init(3));
        ASSERT_TRUE(m_lanes.Add(0, m_counter.Fd(), kEvents, &m_counter));
    }
    CPollTarget* Look(int lane) {
        bool idle;
        CPollTarget* target = m_lanes.Wait(lane, 0, false, &idle);
        return target ? target : m_lanes.Pop(lane);
    }

    CPortLanes m_lanes;
    CCounter m_counter;
};

class PortLook : public PortLanes {
protected:
    void SetUp() override {
        PortLanes::SetUp();
        ASSERT_TRUE(m_lanes.Add(0, m_other.Fd(), kEvents, &m_other));
    }
    CVisit Visit(CCounter& who, uint64_t after_ns) { return Visit(who, after_ns, m_lanes); }
    static CVisit Visit(CCounter& who, uint64_t after_ns, CPortLanes& lanes) {
        CVisit visit{who.Fd(), t_now_ns + after_ns};
        t_visit = &visit;
        bool idle;
        EXPECT_EQ(lanes.Wait(0, -1, true, &idle), &who);
        t_visit = nullptr;
        EXPECT_EQ(who.Read(), 1u);
        EXPECT_TRUE(who.Release());
        return visit;
    }
    CCounter m_other;
};

TEST_F(PortLook, ComesBeforeSleepForOneClientThatIsBackSoon) {
    EXPECT_EQ(Visit(m_counter, 20'000).sleeps, 1);
    EXPECT_EQ(Visit(m_counter, 20'000).sleeps, 1) << "the same client, for the first time";
    for (int i = 0; i < 3; ++i) {
        const CVisit visit = Visit(m_counter, 20'000);
        EXPECT_EQ(visit.looks, 4);
        EXPECT_EQ(visit.sleeps, 0);
    }
}

TEST_F(PortLook, EndsSoonAndIsNotRepeatedForWhoTakesLonger) {
    for (int i = 0; i < 3; ++i)
        Visit(m_counter, 20'000);
    CVisit visit = Visit(m_counter, 1'000'000);
    EXPECT_EQ(visit.looks, 12);
    EXPECT_EQ(visit.sleeps, 1);
    visit = Visit(m_counter, 20'000);
    EXPECT_EQ(visit.looks, 0);
    EXPECT_EQ(visit.sleeps, 1);
    EXPECT_EQ(Visit(m_counter, 20'000).looks, 4) << "and soon again";
}

TEST_F(PortLook, IsForOneClientOnly) {
    for (int i = 0; i < 10; ++i) {
        CCounter& who = i % 2 == 0 ? m_counter : m_other;
        EXPECT_EQ(Visit(who, 20'000).looks, 0);
    }
}

TEST_F(PortLook, IsNotForAMachineWithOneProcessor) {
    CPortLanes one;
    ASSERT_TRUE(one.Init(1));
    CCounter counter;
    ASSERT_TRUE(one.Add(0, counter.Fd(), kEvents, &counter));
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(Visit(counter, 20'000, one).looks, 0);
}

TEST_F(PortLook, IsNotForWhoMayNotStay) {
    for (int i = 0; i < 3; ++i)
        Visit(m_counter, 20'000);
    CVisit visit{m_counter.Fd(), t_now_ns + 20'000};
    t_visit = &visit;
    bool idle;
    EXPECT_EQ(m_lanes.Wait(0, 100, true, &idle), &m_counter);
    t_visit = nullptr;
    EXPECT_EQ(visit.looks, 0);
    EXPECT_EQ(visit.sleeps, 1);
}

TEST_F(PortLanes, AnEventOfAClosedLaneComesThroughLaneZero) {
    ASSERT_TRUE(m_lanes.Move(0, 2, m_counter.Fd(), kEvents, &m_counter));
    m_counter.Write();
    EXPECT_EQ(Look(0), &m_counter);
}

TEST_F(PortLanes, AnEventOfAnOpenLaneComesThereOnly) {
    m_lanes.Open(1);
    ASSERT_TRUE(m_lanes.Move(0, 1, m_counter.Fd(), kEvents, &m_counter));
    m_counter.Write();
    EXPECT_EQ(Look(0), nullptr);
    EXPECT_EQ(Look(2), nullptr);
    EXPECT_EQ(Look(1), &m_counter);
}

TEST_F(PortLanes, AMoveAnnouncesAgainWhatCameBefore) {
    m_counter.Write();
    m_lanes.Open(1);
    ASSERT_TRUE(m_lanes.Move(0, 1, m_counter.Fd(), kEvents, &m_counter));
    EXPECT_EQ(Look(1), &m_counter);
    EXPECT_EQ(Look(0), nullptr);
}

TEST_F(PortLanes, WhatWaitsInALaneThatClosesIsForAnybody) {
    CCounter second;
    m_lanes.Open(1);
    ASSERT_TRUE(m_lanes.Move(0, 1, m_counter.Fd(), kEvents, &m_counter));
    ASSERT_TRUE(m_lanes.Add(1, second.Fd(), kEvents, &second));
    m_counter.Write();
    second.Write();
    bool idle;
    ASSERT_NE(m_lanes.Wait(1, 0, false, &idle), nullptr);
    EXPECT_EQ(m_lanes.Pop(2), nullptr);
    m_lanes.Close(1);
    EXPECT_NE(m_lanes.Pop(2), nullptr);
    EXPECT_EQ(m_lanes.Pop(2), nullptr);
}

// The worker of the lane was looking at the sockets when the lane was taken from it; it comes back
// to lane 0.
TEST_F(PortLanes, WhatComesInALaneThatClosesMeanwhileIsForAnybody) {
    CCounter second, third;
    m_lanes.Open(1);
    ASSERT_TRUE(m_lanes.Move(0, 1, m_counter.Fd(), kEvents, &m_counter));
    for (CCounter* counter : {&second, &third})
        ASSERT_TRUE(m_lanes.Add(1, counter->Fd(), kEvents, counter));
    bool closed = false;
    for (CCounter* counter : {&m_counter, &second, &third}) {
        counter->m_on_claim = [&] {
            if (!std::exchange(closed, true)) m_lanes.Close(1);
        };
        counter->Write();
    }
    bool idle;
    EXPECT_NE(m_lanes.Wait(1, 0, true, &idle), nullptr);
    EXPECT_TRUE(closed);
    EXPECT_NE(m_lanes.Pop(0), nullptr);
    EXPECT_NE(m_lanes.Pop(0), nullptr);
    EXPECT_EQ(m_lanes.Pop(0), nullptr);
}

TEST_F(PortLanes, NobodyFallsAsleepInAClosedLane) {
    m_lanes.Open(1);
    std::thread sleeper([&] {
        for (bool open = true; open;) {
            bool idle;
            m_lanes.Wait(1, -1, true, &idle);
            open = m_lanes.HomeOf(-1, 1) != 0;  // with no lane open every home is lane 0
        }
    });
    while (!m_lanes.HasSleeper(1))
        std::this_thread::yield();
    m_lanes.Close(1);
    sleeper.join();
    bool idle = true;
    EXPECT_EQ(m_lanes.Wait(1, -1, true, &idle), nullptr);
    EXPECT_FALSE(idle);
}

TEST_F(PortLanes, WhatIsPushedWakesASleeperInWhateverLane) {
    m_lanes.Open(2);
    CPollTarget* got = nullptr;
    std::thread sleeper([&] {
        while (!(got = m_lanes.Pop(2))) {
            bool idle;
            m_lanes.Wait(2, -1, true, &idle);
        }
    });
    while (!m_lanes.HasSleeper(2))
        std::this_thread::yield();
    m_counter.Write();
    ASSERT_EQ(Look(0), &m_counter);
    m_lanes.Push(&m_counter, true);
    sleeper.join();
    EXPECT_EQ(got, &m_counter);
}

// The user's bound of watches is met, or the system has no memory.
class PortLanesUnwatched : public PortLanes {
protected:
    void SetUp() override {
        PortLanes::SetUp();
        m_lanes.Open(1);
        ASSERT_TRUE(m_lanes.Move(0, 1, m_counter.Fd(), kEvents, &m_counter));
    }
    void TearDown() override { g_no_watch = false; }
};

TEST_F(PortLanesUnwatched, WhatComesInAClosedLaneIsLookedFor) {
    g_no_watch = true;
    m_lanes.Close(1);
    m_counter.Write();
    EXPECT_EQ(Look(0), &m_counter);
    EXPECT_EQ(m_counter.Read(), 1u);
    EXPECT_TRUE(m_counter.Release());
    EXPECT_EQ(Look(0), nullptr);

    g_no_watch = false;  // from the next look on it is watched again
    EXPECT_EQ(Look(0), nullptr);
    g_no_watch = true;
    m_counter.Write();
    EXPECT_EQ(Look(0), &m_counter);
}

TEST_F(PortLanesUnwatched, WhoSleepsAlreadyIsToldToLook) {
    CPollTarget* got = nullptr;
    std::thread sleeper([&] {
        for (bool idle; !got;)
            if (!(got = m_lanes.Wait(0, -1, true, &idle))) got = m_lanes.Pop(0);
    });
    while (!m_lanes.HasSleeper(0))
        std::this_thread::yield();
    g_no_watch = true;
    m_lanes.Close(1);
    m_counter.Write();
    sleeper.join();
    EXPECT_EQ(got, &m_counter);
}

TEST_F(PortLanesUnwatched, ALaneThatOpensAgainHasItsEventsToItself) {
    g_no_watch = true;
    m_lanes.Close(1);
    m_lanes.Open(1);
    m_counter.Write();
    EXPECT_EQ(Look(0), nullptr);
    EXPECT_EQ(Look(1), &m_counter);
}

TEST_F(PortLanesUnwatched, AConnectionThatCannotMoveStays) {
    g_no_watch = true;
    EXPECT_FALSE(m_lanes.Move(1, 0, m_counter.Fd(), kEvents, &m_counter));
    m_counter.Write();
    EXPECT_EQ(Look(0), nullptr);
    EXPECT_EQ(Look(1), &m_counter);
}

// Two of the lanes open and close all the time, their workers come to lane 0 meanwhile, and whoever
// has a counter in hand moves it on. Every write is read by somebody: who misses one would wait for
// ever.
TEST_F(PortLanes, NoEventIsLostWhileLanesComeAndGo) {
    constexpr int kCounters = 24;
    constexpr uint64_t kWrites = 20000;
    const auto seed = std::random_device{}();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::vector<CCounter> counters(kCounters);
    for (CCounter& counter : counters)
        ASSERT_TRUE(m_lanes.Add(0, counter.Fd(), kEvents, &counter));
    std::atomic<uint64_t> read{0};
    std::atomic<bool> done{false};
    std::array<std::atomic<bool>, 3> open{};
    const auto work = [&](int own) {
        std::minstd_rand random(seed + static_cast<unsigned>(own));
        while (!done.load()) {
            const int lane = open[static_cast<size_t>(own)].load() ? own : 0;
            auto* counter = static_cast<CCounter*>(m_lanes.Pop(lane));
            bool idle;
            if (!counter) {
                counter =
                    static_cast<CCounter*>(m_lanes.Wait(lane, lane == 0 ? -1 : 20, true, &idle));
            }
            if (!counter) continue;
            do {
                read += counter->Read();
                if (random() % 8 == 0) {
                    const int to = static_cast<int>(random() % 3);
                    const int from = std::exchange(counter->m_lane, to);
                    if (from != to) {
                        EXPECT_TRUE(m_lanes.Move(from, to, counter->Fd(), kEvents, counter));
                    }
                }
                if (random() % 16 == 0 && read.load() < kWrites) {
                    m_lanes.Push(counter, true);
                    break;
                }
            } while (!counter->Release());
            if (read.load() >= kWrites) {
                done.store(true);
                m_lanes.Shut();
            }
        }
        m_lanes.WakeAny();
    };
    std::vector<std::thread> threads;
    for (int lane : {0, 1, 2})
        threads.emplace_back(work, lane);
    threads.emplace_back([&] {
        while (!done.load()) {
            for (int lane : {1, 2}) {
                m_lanes.Open(lane);
                open[static_cast<size_t>(lane)].store(true);
                std::this_thread::yield();
                open[static_cast<size_t>(lane)].store(false);
                m_lanes.Close(lane);
            }
        }
    });
    std::minstd_rand random(seed);
    for (uint64_t i = 0; i < kWrites; ++i)
        counters[random() % kCounters].Write();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(read.load(), kWrites);
}

}  // namespace
}  // namespace posix
