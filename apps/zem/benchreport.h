// What zem bench tells of its runs: for people, and as JSON. Main thread only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "apps/zem/benchworker.h"

namespace zem {

// A frame that is written is one run of the server's frame memory: of the smaller of the two that
// servers have, and of the larger.
inline constexpr uint64_t kFrameMemory_bytes = 120u << 20;
inline constexpr const char* kFrameMemoryText =
    "the server's frame memory (120M; 240M in file-server mode, HttpFileServer=1)";

struct BenchRun {
    const char* mode;
    double seconds = 0;
    BenchResult total;
};

struct BenchReport {
    std::string server;
    std::string folderNote;  // behind the size of the frames; see NearestFolder
    std::vector<BenchRun> runs;
    bool compared = false;  // all that was written
    uint64_t lost = 0;
};

void PrintBench(const BenchPlan& plan, const BenchReport& report);
void PrintBenchJson(const BenchPlan& plan, const BenchReport& report);

}  // namespace zem
