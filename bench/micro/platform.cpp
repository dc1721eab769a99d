// What the platform layer does for each request, piece by piece.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "platform/platform.h"
#include "platform/posix/filesinternal.h"
#include "platform/posix/http_parser.h"
#include "platform/posix/http_url.h"

// Responses that are built here have no chunks from files.
int posix::FileDescriptorOf(HANDLE) {
    abort();
}

namespace {

void Parse(benchmark::State& state) {
    const std::string text =
        "POST /zem/ HTTP/1.1\r\nHost: server.example:8080\r\nUser-Agent: Edit (Suite/1.2.3.4)\r\n"
        "Accept: */*\r\nZem-Id: edit-suite-1\r\nContent-Length: 124\r\n\r\n";
    const auto head = std::make_unique<posix::RequestHead>();
    for (auto _ : state) {
        benchmark::DoNotOptimize(text.data());
        if (posix::ParseHead(text.data(), text.size(), *head) != posix::EParse::Done)
            state.SkipWithError("refused");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(Parse);

void ParseTarget(benchmark::State& state) {
    posix::TargetParts target;
    posix::CookedPath path;
    for (auto _ : state) {
        if (posix::SplitTarget(HttpVerbGET, "/media/day%201/clip.v0", target) != 0)
            state.SkipWithError("refused");
        posix::CookPath(target.path, path);
        benchmark::DoNotOptimize(path);
    }
}
BENCHMARK(ParseTarget);

// The line that names a frame read in the stage timer.
void FormatUtf16(benchmark::State& state) {
    WCHAR text[260];
    DWORD position = 0;
    for (auto _ : state) {
        _snwprintf_s(text, 260, _TRUNCATE, TEXT("%s token 0x%I64x pos %u"), TEXT("READ_FRAME"),
                     ULONGLONG{0x0000000101000042}, ++position);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(FormatUtf16);

// With a client's ID, which is copied unit by unit.
void FormatUtf16Text(benchmark::State& state) {
    WCHAR text[260];
    for (auto _ : state) {
        _snwprintf_s(text, 260, _TRUNCATE, TEXT("%s: error KEEP_ALIVE, transId %u (0x%x)"),
                     TEXT("edit-suite-1.studio.example"), 123456u, 0x80070057u);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(FormatUtf16Text);

}  // namespace
