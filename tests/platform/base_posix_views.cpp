// File views: finding a file's bytes from a pointer, from any thread, without touching them. Linux
// only.
#include "platform/posix/views.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "platform/platform.h"
#include "tests/tempfolder.h"

namespace {

constexpr size_t kMiB = size_t{1} << 20;

class Views : public testing::Test {
protected:
    Views() {
        m_file = open(m_folder.File("file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        EXPECT_EQ(ftruncate(m_file, 256 * static_cast<off_t>(kMiB)), 0);
    }
    ~Views() override { close(m_file); }

    void Put(off_t offset, const char* text) {
        ASSERT_EQ(pwrite(m_file, text, std::strlen(text), offset),
                  static_cast<ssize_t>(std::strlen(text)));
    }
    static bool Finds(const void* address, size_t length) {
        int descriptor;
        uint64_t offset;
        return FindFileView(address, length, &descriptor, &offset);
    }

    CTempFolder m_folder;
    int m_file;
};

TEST_F(Views, FindsTheBytes) {
    Put(5000, "hello");
    auto* view = static_cast<char*>(MapFileView(m_file, 4999, 100));
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(std::memcmp(view + 1, "hello", 5), 0);
    int descriptor = -1;
    uint64_t offset = 0;
    ASSERT_TRUE(FindFileView(view + 1, 5, &descriptor, &offset));
    EXPECT_EQ(offset, 5000u);
    EXPECT_NE(descriptor, m_file);
    char text[5];
    EXPECT_EQ(pread(descriptor, text, 5, static_cast<off_t>(offset)), 5);
    EXPECT_EQ(std::memcmp(text, "hello", 5), 0);
    UnmapFileView(view);
    EXPECT_FALSE(Finds(view + 1, 5));
}

TEST_F(Views, KnowsItsBounds) {
    auto* view = static_cast<char*>(MapFileView(m_file, 8192, 1000));
    ASSERT_NE(view, nullptr);
    EXPECT_TRUE(Finds(view, 1000));
    EXPECT_TRUE(Finds(view, 0));
    EXPECT_TRUE(Finds(view + 999, 1));
    EXPECT_TRUE(Finds(view + 1000, 0));
    EXPECT_FALSE(Finds(view, 1001));
    EXPECT_FALSE(Finds(view + 999, 2));
    EXPECT_FALSE(Finds(view - 1, 1));
    EXPECT_FALSE(Finds(view + 1001, 0));
    EXPECT_FALSE(Finds(view, SIZE_MAX));
    int local = 0;
    EXPECT_FALSE(Finds(&local, sizeof(local)));
    EXPECT_FALSE(Finds(nullptr, 0));
    EXPECT_FALSE(Finds(reinterpret_cast<void*>(UINTPTR_MAX), 1));
    UnmapFileView(view);
}

TEST_F(Views, MaySpanSlots) {
    Put(200 * static_cast<off_t>(kMiB), "far");
    auto* view = static_cast<char*>(MapFileView(m_file, 0, 256 * kMiB));
    ASSERT_NE(view, nullptr);
    int descriptor;
    uint64_t offset;
    ASSERT_TRUE(FindFileView(view + 63 * kMiB, 150 * kMiB, &descriptor, &offset));
    EXPECT_EQ(offset, 63 * kMiB);
    EXPECT_EQ(std::memcmp(view + 200 * kMiB, "far", 3), 0);
    auto* second = static_cast<char*>(MapFileView(m_file, 0, kMiB));
    ASSERT_NE(second, nullptr);
    EXPECT_FALSE(Finds(view, 256 * kMiB + 1));
    UnmapFileView(view);
    EXPECT_FALSE(Finds(view + 200 * kMiB, 1));
    EXPECT_TRUE(Finds(second, kMiB));
    UnmapFileView(second);
}

TEST_F(Views, OutlivesTheCallersDescriptorAndTheName) {
    Put(0, "kept");
    void* view = MapFileView(m_file, 0, 4);
    ASSERT_NE(view, nullptr);
    ASSERT_EQ(ftruncate(m_file, 4), 0);
    close(m_file);
    m_file = -1;
    std::filesystem::remove(m_folder.File("file"));
    int descriptor;
    uint64_t offset;
    ASSERT_TRUE(FindFileView(view, 4, &descriptor, &offset));
    char text[4];
    EXPECT_EQ(pread(descriptor, text, 4, static_cast<off_t>(offset)), 4);
    EXPECT_EQ(std::memcmp(text, "kept", 4), 0);
    UnmapFileView(view);
}

TEST_F(Views, MaySendWhatMayNotBeTouched) {
    // Beyond the file's end reading would be a SIGBUS; a file that grows makes the same view good.
    ASSERT_EQ(ftruncate(m_file, 0), 0);
    void* view = MapFileView(m_file, 0, kMiB);
    ASSERT_NE(view, nullptr);
    int sockets[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
    int descriptor;
    uint64_t offset;
    ASSERT_TRUE(FindFileView(view, 5, &descriptor, &offset));
    auto at = static_cast<off_t>(offset);
    EXPECT_EQ(sendfile(sockets[0], descriptor, &at, 5), 0);
    Put(0, "grown");
    EXPECT_EQ(sendfile(sockets[0], descriptor, &at, 5), 5);
    char text[5];
    EXPECT_EQ(recv(sockets[1], text, 5, MSG_WAITALL), 5);
    EXPECT_EQ(std::memcmp(text, "grown", 5), 0);
    close(sockets[0]);
    close(sockets[1]);
    UnmapFileView(view);
}

TEST_F(Views, Refuses) {
    SetLastError(0);
    EXPECT_EQ(MapFileView(m_file, 0, 0), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(MapFileView(m_file, 0, SIZE_MAX), nullptr);
    EXPECT_EQ(MapFileView(m_file, UINT64_MAX, 1), nullptr);
    EXPECT_EQ(MapFileView(-1, 0, 1), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    const int write_only = open(m_folder.File("file").c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(MapFileView(write_only, 0, 1), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    close(write_only);
    UnmapFileView(nullptr);
    int local;
    UnmapFileView(&local);
    // The failures gave back what they had taken: addresses and descriptors do not run out.
    for (int i = 0; i < 3000; ++i)
        EXPECT_EQ(MapFileView(-1, 0, 1), nullptr);
    void* view = MapFileView(m_file, 0, 1);
    EXPECT_NE(view, nullptr);
    UnmapFileView(view);
}

TEST_F(Views, ManyThreadsMapFindAndUnmap) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this, i] {
            for (int round = 0; round < 200; ++round) {
                const uint64_t offset =
                    static_cast<uint64_t>(i) * 4096 + static_cast<uint64_t>(round);
                const size_t length = (static_cast<size_t>(round % 5) * 40 + 1) * kMiB;
                auto* view = static_cast<char*>(MapFileView(m_file, offset, length));
                ASSERT_NE(view, nullptr);
                int descriptor;
                uint64_t found;
                ASSERT_TRUE(FindFileView(view + length - 1, 1, &descriptor, &found));
                ASSERT_EQ(found, offset + length - 1);
                UnmapFileView(view);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

}  // namespace
