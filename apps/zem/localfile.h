// What a verb writes on this machine: files, pipes, stdout. Main thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace zem {

// Throws what it means that `path` could not be written: CZemError(kInterrupted) when its reader is
// gone, else CZemError(kLocalFile) with `why`.
[[noreturn]] void ThrowUnwritten(const std::string& path, const std::string& why);
// Throws that when not all of stdout was written.
void FlushStdout();

// The name that a file which is written at `path` is to get, which is behind the link where one is
// there; empty for a pipe or a device that takes bytes, which stay what they are. Throws
// CZemError(kLocalFile) for what is no file, for a link that leads to none, and for a file that
// exists when `force` is not set.
std::string PlaceToReplace(const std::string& path, bool force);

// Throws CZemError(kLocalFile) when the folder that `path` is to lie in is not there.
void RequireFolderOf(const std::string& path);

// A file of this machine that appears under its name only when it is complete; or a pipe or device.
class COutputFile {
public:
    // "-" is stdout. Throws as PlaceToReplace, and CZemError(kUsage) for a terminal.
    COutputFile(const std::string& path, bool force);
    ~COutputFile();  // removes what is incomplete
    COutputFile(const COutputFile&) = delete;
    COutputFile& operator=(const COutputFile&) = delete;
    void Write(std::span<const uint8_t> bytes);
    void Finish();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace zem
