// allocator: frame memory over a day of mixed sizes, and what a run costs. Google Benchmark; the
// day is the same in every run.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <queue>
#include <random>
#include <vector>

#include "mediaio/zemmemallocator.h"

namespace {

constexpr size_t kMemory = 125829120;  // what a server gives its channels in ordinary mode
constexpr size_t kPage = 4096;

// The largest run that could be had now, in bytes.
size_t LargestRun(CZemMemAllocator& allocator) {
    size_t low = 0;
    size_t high = kMemory / kPage;
    while (low < high) {
        const size_t middle = (low + high + 1) / 2;
        void* run = allocator.Allocate(middle * kPage);
        if (run == nullptr) {
            high = middle - 1;
        } else {
            allocator.Free(run);
            low = middle;
        }
    }
    return low * kPage;
}

// What one recording client sends: so many frames a second, of sizes around a mean.
struct Source {
    size_t mean_bytes;
    uint32_t perDay_frames;
};
constexpr uint32_t kDay_ms = 24 * 3600 * 1000;
constexpr Source kSources[] = {
    {5529600, kDay_ms / 40},  // uncompressed 1080 lines, 4:2:2, at 25 frames a second
    {2500000, kDay_ms / 40},  // a mezzanine codec
    {1048576, kDay_ms / 20},  // intra frames at 50 a second
    {400000, kDay_ms / 40},   // long GOP
    {150000, kDay_ms / 20},   // a proxy
    {9600, kDay_ms / 40},     // PCM
    {7680, kDay_ms / 40},
};

// A frame's memory comes home when the device has it: after 1 to 10 ms, but every ten minutes or so
// the device is busy with something else for up to a second, in which more comes than there is
// memory for.
void Day(benchmark::State& state) {
    struct Event {
        uint64_t at_us;
        void* run;  // to be freed; null: the next frame of a source
        uint32_t source;
        bool operator>(const Event& other) const { return at_us > other.at_us; }
    };
    for (auto _ : state) {
        std::mt19937 random(20261121);
        CZemMemAllocator allocator;
        if (FAILED(allocator.Initialize(kMemory, nullptr))) state.SkipWithError("no memory");
        std::priority_queue<Event, std::vector<Event>, std::greater<>> events;
        constexpr auto sources = static_cast<uint32_t>(std::size(kSources));
        for (uint32_t i = 0; i < sources; ++i)
            events.push({random() % 40000, nullptr, i});
        uint64_t frames = 0;
        uint64_t dropped = 0;
        uint64_t droppedInPieces = 0;  // although as many pages were free
        size_t mostUsed = 0;
        double worst = 1;  // largest run over all that is free, while half of it is handed out
        uint64_t nextLook_us = 0;
        uint64_t busyUntil_us = 0;
        while (!events.empty()) {
            const Event event = events.top();
            events.pop();
            if (event.run != nullptr) {
                allocator.Free(event.run);
                continue;
            }
            if (event.at_us >= uint64_t{kDay_ms} * 1000) continue;
            const Source& source = kSources[event.source];
            const size_t size = source.mean_bytes / 2 + random() % source.mean_bytes;
            void* run = allocator.Allocate(size);
            ++frames;
            if (run == nullptr) {
                ++dropped;
                droppedInPieces += allocator.BytesInUse() + size + kPage <= kMemory;
            }
            if (random() % (15000 * sources) == 0) busyUntil_us = event.at_us + random() % 1000000;
            uint64_t home = event.at_us + 1000 + random() % 9000;
            home = std::max(home, busyUntil_us + random() % 20000);
            if (run != nullptr) events.push({home, run, 0});
            const uint64_t period = uint64_t{kDay_ms} * 1000 / source.perDay_frames;
            events.push({event.at_us + period, nullptr, event.source});
            mostUsed = std::max(mostUsed, allocator.BytesInUse());
            const size_t free = kMemory - allocator.BytesInUse();
            if (event.at_us >= nextLook_us && free < kMemory / 2 && free > kMemory / 8) {
                nextLook_us = event.at_us + 100000;
                worst = std::min(
                    worst, static_cast<double>(LargestRun(allocator)) / static_cast<double>(free));
            }
        }
        state.counters["frames"] = static_cast<double>(frames);
        state.counters["dropped"] = static_cast<double>(dropped);
        state.counters["dropped_in_pieces"] = static_cast<double>(droppedInPieces);
        state.counters["most_used_MB"] = static_cast<double>(mostUsed) / 1e6;
        state.counters["worst_run_of_free"] = worst;
        state.counters["ns_per_frame"] =
            benchmark::Counter(static_cast<double>(frames) / 1e9,
                               benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
        if (allocator.BytesInUse() != 0 || LargestRun(allocator) != kMemory / kPage * kPage)
            state.SkipWithError("not everything came home");
    }
}
BENCHMARK(Day)->Iterations(1)->Unit(benchmark::kSecond);

// A run taken and given back beside others that are handed out, by one thread or several.
void TakeAndGive(benchmark::State& state) {
    static CZemMemAllocator* allocator = nullptr;
    static std::vector<void*> live;
    if (state.thread_index() == 0) {
        allocator = new CZemMemAllocator;
        if (FAILED(allocator->Initialize(kMemory, nullptr))) state.SkipWithError("no memory");
        for (int i = 0; i < 100; ++i)
            live.push_back(allocator->Allocate(400000));
        for (size_t i = 0; i < live.size(); i += 2) {
            allocator->Free(live[i]);
            live[i] = nullptr;
        }
    }
    for (auto _ : state) {
        void* run = allocator->Allocate(1 << 20);
        benchmark::DoNotOptimize(run);
        allocator->Free(run);
    }
    if (state.thread_index() == 0) {
        for (void* run : live)
            allocator->Free(run);
        live.clear();
        delete allocator;
    }
}
BENCHMARK(TakeAndGive)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
