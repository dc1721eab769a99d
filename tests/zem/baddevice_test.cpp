// Clips on a device that fails: the program's own read() stands in for it. What the libraries make
// of a failed read, mostly an end, must not be told as one.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "apps/zem/client/zemerror.h"
#include "apps/zem/demux.h"
#include "tests/tempfolder.h"

namespace {

thread_local off_t t_fails_from = -1;  // nothing fails

}  // namespace

// Stands in for the C library's.
extern "C" __attribute__((visibility("default"))) ssize_t read(int file, void* buffer,
                                                               size_t size) {
    using Read = ssize_t(int, void*, size_t);
    static auto* const really = reinterpret_cast<Read*>(dlsym(RTLD_NEXT, "read"));
    const off_t at = t_fails_from < 0 ? -1 : lseek(file, 0, SEEK_CUR);
    if (at >= 0) {
        if (at >= t_fails_from) return errno = EIO, -1;
        size = std::min(size, static_cast<size_t>(t_fails_from - at));
    }
    return really(file, buffer, size);
}

namespace {

// What is said of it; empty: it was read to its end. "-": what stdin is.
std::string Said(const std::string& clip, off_t fails_from) {
    lseek(STDIN_FILENO, 0, SEEK_SET);
    t_fails_from = fails_from;
    std::string said;
    try {
        zem::CDemuxer demuxer(clip);
        for (zem::ClipPacket packet; demuxer.Next(packet);) {
        }
    } catch (const zem::CZemError& error) {
        said = error.what();
    }
    t_fails_from = -1;
    return said;
}

class BadDevice : public ::testing::TestWithParam<const char*> {
protected:
    const CTempFolder m_folder;
};

TEST_P(BadDevice, IsWhatIsToldWhereverItFails) {
    const std::string clip = m_folder.File(std::string("clip.") + GetParam());
    const std::string codec = std::string(GetParam()) == "mov" ? "mjpeg" : "mpeg2video";
    const std::string make =
        "ffmpeg -v error -nostdin -f lavfi -i testsrc2=size=720x576:rate=25 -t 2 -c:v " + codec +
        " -b:v 8M " + clip;
    ASSERT_EQ(std::system(make.c_str()), 0);
    EXPECT_EQ(Said(clip, -1), "");
    const auto size = static_cast<off_t>(std::filesystem::file_size(clip));
    for (const off_t at : {off_t{0}, off_t{100}, off_t{5000}, size / 4, size / 2, size - 4096}) {
        EXPECT_EQ(Said(clip, at), clip + ": reading it failed: Input/output error")
            << at << " of " << size;
    }
    const int file = open(clip.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(dup2(file, STDIN_FILENO), STDIN_FILENO);
    close(file);
    EXPECT_EQ(Said("-", -1), "");
    for (const off_t at : {off_t{0}, off_t{100}, off_t{5000}, size / 4, size / 2, size - 4096})
        EXPECT_EQ(Said("-", at), "-: reading it failed: Input/output error") << at;
}

INSTANTIATE_TEST_SUITE_P(Formats, BadDevice,
                         ::testing::Values("mov", "mxf", "mkv", "ts", "avi", "mpg"),
                         [](const auto& format) { return std::string(format.param); });

}  // namespace
