// Settings of the default error log, for the host that loads it. Records go through a
// bounded queue to one writer thread, so no caller ever waits for a disk or a terminal; when the
// queue is full the oldest record is dropped, and the next line that is written says how many went.
// Without any call here the log writes everything to standard error. At process exit what is queued
// is written, for at most two seconds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// What is written. Slow operations count as warnings; failures of functions as errors. Traces are
// the widest level, and the default: the server writes most of them only when its own trace switch
// is on.
enum class ErrorLogVerbosity { kErrors, kWarnings, kMessages, kTraces };

// How a record reads. Text: see docs/operations.md. JSON: one object a line.
enum class ErrorLogFormat { kText, kJson };

struct ErrorLogSettings {
    // UTF-8 path of the log file; empty: no file. The file is appended to.
    std::string path;
    // A file that would grow beyond this is renamed to path.1, path.1 to path.2 and so on; 0:
    // never.
    uint64_t rotate_bytes = 16u << 20;
    // How many renamed files are kept; 0: a full file is started again.
    unsigned rotateKeep = 4;
    bool toStderr = true;
    ErrorLogVerbosity verbosity = ErrorLogVerbosity::kTraces;
    ErrorLogFormat format = ErrorLogFormat::kText;
    // Gets every batch of whole lines besides the file and standard error; called on the writer
    // thread. May block.
    void (*write)(void* context, const char* lines, size_t bytes) = nullptr;
    void* writeContext = nullptr;
};

// The number of records that the queue holds.
constexpr size_t kErrorLogQueueRecords = 2048;

#pragma GCC visibility push(default)

// Writes what is queued to where it belonged until now, then uses the new settings. Waits for the
// writer. Returns false, with a sentence in *problem (may be null) and the former settings still in
// force, when the file cannot be opened for appending. The same settings again open the file again:
// for a tool that renamed it.
bool ErrorLogConfigure(const ErrorLogSettings& settings, std::string* problem);

// Waits until every record that was taken before the call is written or counted as dropped. False:
// time ran out.
bool ErrorLogFlush(uint32_t timeout_ms);

// Writes what is queued and ends the writer; what is logged afterwards is lost. For the end of a
// process, where its end would end the writer first. Waits at most that long; calling it twice is
// harmless.
void ErrorLogStop(uint32_t timeout_ms);

#pragma GCC visibility pop
