// See benchreport.h.
#include "apps/zem/benchreport.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "apps/zem/client/text.h"
#include "apps/zem/output.h"
#include "apps/zem/terminal.h"
#include "apps/zem/verbs.h"

namespace zem {
namespace {

double PerSecond(uint64_t count, double seconds) {
    return seconds > 0 ? static_cast<double>(count) / seconds : 0;
}

struct Quantile {
    const char* title;
    const char* key;
    double part;
};
constexpr std::array<Quantile, 4> kQuantiles = {{{"median", "p50", 0.5},
                                                 {"90 %", "p90", 0.9},
                                                 {"99 %", "p99", 0.99},
                                                 {"99.9 %", "p999", 0.999}}};

void PrintHistogram(const CLatency& latency) {
    constexpr size_t kBar = 40;
    uint64_t most = 1;
    size_t first = CLatency::kRows;
    size_t last = 0;
    for (size_t row = 0; row < CLatency::kRows; ++row) {
        if (latency.RowCount(row) == 0) continue;
        most = std::max(most, latency.RowCount(row));
        first = std::min(first, row);
        last = row;
    }
    for (size_t row = first; row <= last && first < CLatency::kRows; ++row) {
        const uint64_t count = latency.RowCount(row);
        const bool open = row + 1 == CLatency::kRows;
        const std::string bound =
            LatencyText(static_cast<double>(CLatency::RowBound_us(open ? row - 1 : row)));
        // A row that is not empty shows at least a little.
        const size_t length = static_cast<size_t>((count * kBar + most - 1) / most);
        std::printf("  %s %7s %10llu  %s\n", open ? "over " : "up to", bound.c_str(),
                    static_cast<unsigned long long>(count),
                    Painted(Stream::kOut, Colour::kCyan, std::string(length, '#')).c_str());
    }
}

void PrintRun(const BenchPlan& plan, const BenchRun& run) {
    const BenchResult& total = run.total;
    std::printf("\n%s  %llu frames in %.2f s: %s frames/s, %s/s\n",
                Painted(Stream::kOut, Colour::kBold, run.mode).c_str(),
                static_cast<unsigned long long>(total.frames), run.seconds,
                Painted(Stream::kOut, Colour::kBold,
                        std::to_string(static_cast<long>(PerSecond(total.frames, run.seconds))))
                    .c_str(),
                Painted(Stream::kOut, Colour::kBold,
                        HumanBytes(static_cast<uint64_t>(PerSecond(total.bytes, run.seconds))))
                    .c_str());
    std::printf("  latency  least %s",
                LatencyText(static_cast<double>(total.latency.Min_us())).c_str());
    for (const Quantile& quantile : kQuantiles) {
        const auto duration_us = static_cast<double>(total.latency.Percentile_us(quantile.part));
        std::printf("  %s %s", quantile.title, LatencyText(duration_us).c_str());
    }
    std::printf("  most %s\n", LatencyText(static_cast<double>(total.latency.Max_us())).c_str());
    if (plan.rate_per_s > 0) {
        std::printf("  late     %s of %llu frames were answered after the next one was due\n",
                    Painted(Stream::kOut, total.late == 0 ? Colour::kGreen : Colour::kYellow,
                            std::to_string(total.late))
                        .c_str(),
                    static_cast<unsigned long long>(total.frames));
    }
    PrintHistogram(total.latency);
}

}  // namespace

void PrintBench(const BenchPlan& plan, const BenchReport& report) {
    std::printf("%s: %s, ", report.server.c_str(), Counted(plan.connections, "connection").c_str());
    if (plan.file.empty()) {
        std::printf("frames of %s%s\n", HumanBytes(plan.frame_bytes).c_str(),
                    report.folderNote.c_str());
    } else {
        std::printf("%s\n", Printable(plan.file).c_str());
    }
    for (const BenchRun& run : report.runs)
        PrintRun(plan, run);
    if (!plan.file.empty()) return;
    if (!report.compared) {
        std::printf("\nEnded early: what was written was not compared.\n");
    } else if (report.lost == 0) {
        std::printf("\nAll frames read back as they were written.\n");
    } else {
        const bool perhapsTooLarge = plan.frame_bytes > kFrameMemory_bytes / plan.connections;
        const std::string lost =
            Counted(report.lost, "frame") + " not on the server as last written; " +
            (perhapsTooLarge
                 ? std::string("what is written at a time must fit into ") + kFrameMemoryText
                 : "the server's log has the reason.");
        std::printf("\n%s\n", Painted(Stream::kOut, Colour::kRed, lost).c_str());
    }
}

void PrintBenchJson(const BenchPlan& plan, const BenchReport& report) {
    CJson json;
    json.Open('{').Text("server", report.server).Unsigned("connections", plan.connections);
    if (plan.file.empty())
        json.Unsigned("frame_bytes", plan.frame_bytes);
    else
        json.Text("file", plan.file);
    json.Open('[', "runs");
    for (const BenchRun& run : report.runs) {
        const CLatency& latency = run.total.latency;
        json.Open('{').Text("mode", run.mode).Real("seconds", run.seconds);
        json.Unsigned("frames", run.total.frames).Unsigned("bytes", run.total.bytes);
        json.Real("frames_per_s", PerSecond(run.total.frames, run.seconds));
        json.Real("bytes_per_s", PerSecond(run.total.bytes, run.seconds));
        json.Unsigned("late", run.total.late).Open('{', "latency_us");
        json.Unsigned("min", latency.Min_us()).Real("mean", latency.Mean_us());
        for (const Quantile& quantile : kQuantiles)
            json.Unsigned(quantile.key, latency.Percentile_us(quantile.part));
        json.Unsigned("max", latency.Max_us()).Close().Open('[', "histogram");
        for (size_t row = 0; row < CLatency::kRows; ++row) {
            if (latency.RowCount(row) == 0) continue;
            json.Open('{');
            if (row + 1 == CLatency::kRows)
                json.Null("up_to_us");
            else
                json.Unsigned("up_to_us", CLatency::RowBound_us(row));
            json.Unsigned("count", latency.RowCount(row)).Close();
        }
        json.Close().Close();
    }
    json.Close();
    if (plan.file.empty() && !report.compared)
        json.Null("lost");
    else
        json.Unsigned("lost", report.lost);
    PrintLine(json.Close().Str());
}

}  // namespace zem
