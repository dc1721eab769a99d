// Names and room, on the system's own files: when a call that makes, moves or removes a name has
// returned, that name is on the device; and a file that the system lets grow no further stays in
// order. The system's calls are watched from here: this program's definitions come before the C
// library's, also for the library under test.
#include "channelfixture.h"

#include "apps/zemfsck/print.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>

namespace {

// What a power cut would take: names that changed in a directory since it was last synced, and
// files that got a name before what they hold was on the device.
class CWatch {
public:
    static CWatch& Get() {
        static auto* watch = new CWatch;
        return *watch;
    }
    void Reset() {
        std::lock_guard hold(m_lock);
        m_changed.clear();
        m_synced.clear();
        m_named = 0;
        m_namedUnsynced = 0;
        m_nameChanges = 0;
    }
    void NameChanged(int directory) {
        std::lock_guard hold(m_lock);
        m_changed.insert(InodeOf(directory));
        ++m_nameChanges;
    }
    void Synced(int fd) {
        std::lock_guard hold(m_lock);
        const ino_t inode = InodeOf(fd);
        m_changed.erase(inode);
        m_synced.insert(inode);
    }
    // A file that was made under another name gets the one that it was made for.
    void Named(int directory, const char* from) {
        struct stat info;
        if (fstatat(directory, from, &info, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(info.st_mode))
            return;
        std::lock_guard hold(m_lock);
        ++m_named;
        if (!m_synced.contains(info.st_ino)) ++m_namedUnsynced;
    }
    size_t Unsynced() {
        std::lock_guard hold(m_lock);
        return m_changed.size();
    }
    uint32_t NamedUnsynced() {
        std::lock_guard hold(m_lock);
        return m_namedUnsynced;
    }
    uint32_t NamesGiven() {
        std::lock_guard hold(m_lock);
        return m_named;
    }
    uint32_t NameChanges() {
        std::lock_guard hold(m_lock);
        return m_nameChanges;
    }

private:
    static ino_t InodeOf(int fd) {
        struct stat info {};
        fstat(fd, &info);
        return info.st_ino;
    }
    std::mutex m_lock;
    std::set<ino_t> m_changed;
    std::set<ino_t> m_synced;
    uint32_t m_named = 0;
    uint32_t m_namedUnsynced = 0;
    uint32_t m_nameChanges = 0;
};

int Counted(long result, int directory) {
    if (result == 0) CWatch::Get().NameChanged(directory);
    return static_cast<int>(result);
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

int fsync(int fd) {
    const auto result = static_cast<int>(syscall(SYS_fsync, fd));
    if (result == 0) CWatch::Get().Synced(fd);
    return result;
}
int fdatasync(int fd) {
    const auto result = static_cast<int>(syscall(SYS_fdatasync, fd));
    if (result == 0) CWatch::Get().Synced(fd);
    return result;
}
int mkdirat(int directory, const char* name, mode_t mode) {
    return Counted(syscall(SYS_mkdirat, directory, name, mode), directory);
}
int unlinkat(int directory, const char* name, int flags) {
    return Counted(syscall(SYS_unlinkat, directory, name, flags), directory);
}
int linkat(int from, const char* fromName, int to, const char* toName, int flags) {
    CWatch::Get().Named(from, fromName);
    return Counted(syscall(SYS_linkat, from, fromName, to, toName, flags), to);
}
int renameat2(int from, const char* fromName, int to, const char* toName, unsigned flags) {
    const long result = syscall(SYS_renameat2, from, fromName, to, toName, flags);
    if (result == 0 && from != to) CWatch::Get().NameChanged(from);
    return Counted(result, to);
}
int renameat(int from, const char* fromName, int to, const char* toName) {
    CWatch::Get().Named(from, fromName);
    return renameat2(from, fromName, to, toName, 0);
}
}  // extern "C"
#pragma GCC visibility pop

namespace {

using namespace mediatest;

class NameLoss : public CVolumeTest {
protected:
    // Runs an operation; afterwards all names that it changed are on the device.
    template <typename Operation>
    void Durable(uint32_t changes, Operation operation) {
        CWatch::Get().Reset();
        operation();
        EXPECT_GE(CWatch::Get().NameChanges(), changes) << "the calls are watched";
        EXPECT_EQ(CWatch::Get().Unsynced(), 0u) << "a name that a power cut would take";
        EXPECT_EQ(CWatch::Get().NamedUnsynced(), 0u) << "a name before there is a file";
    }
};

TEST_F(NameLoss, CreatedFilesAndTheDirectoriesOnTheWay) {
    Durable(1, [&] { Create("clip"); });
    EXPECT_EQ(CWatch::Get().NamesGiven(), 1u);
    Durable(4, [&] { Create("a/b/c/clip"); });
}

TEST_F(NameLoss, ReplacedFiles) {
    ULONGLONG token = Create("clip");
    ASSERT_EQ(Write(token, 0, Bytes(0, 100)), S_OK);
    ASSERT_EQ(m_channel->CloseFile(token), S_OK);
    Durable(1, [&] { token = Create("clip", kMediaFileVideo, kFileTruncate); });
    EXPECT_EQ(CWatch::Get().NamesGiven(), 1u);
}

TEST_F(NameLoss, DeletedAndMovedFilesAndDirectories) {
    for (const char* name : {"one", "two"})
        ASSERT_EQ(m_channel->CloseFile(Create(name)), S_OK);
    Durable(1, [&] { EXPECT_EQ(m_channel->CreateDirectoryW(TEXT("folder")), S_OK); });
    Durable(1, [&] { EXPECT_EQ(m_channel->DeleteFileW(TEXT("one")), S_OK); });
    Durable(2, [&] { EXPECT_EQ(m_channel->MoveFileW(TEXT("two"), TEXT("folder/two")), S_OK); });
    Durable(1, [&] { EXPECT_EQ(m_channel->MoveFileW(TEXT("folder"), TEXT("moved")), S_OK); });
}

// The system refuses to let files grow behind a limit, as a full device refuses to.
class Room : public CVolumeTest, public testing::WithParamInterface<const char*> {
protected:
    Room() {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_before);
        // Before the first channel is made, which starts the I/O.
        m_channel.reset();
        setenv("ZEM_NO_IO_URING", GetParam(), 1);
        m_channel = NewChannel();
    }
    ~Room() override {
        Limit(m_before.rlim_cur);
        unsetenv("ZEM_NO_IO_URING");
    }
    void Limit(rlim_t bytes) {
        const rlimit limit{bytes, m_before.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    rlimit m_before{};
};

TEST_P(Room, ARecordThatDoesNotFitFailsAndTheFileGoesOn) {
    const HRESULT full = HRESULT_FROM_WIN32(ERROR_FILE_TOO_LARGE);
    constexpr size_t kFrame = 50000;
    ULONGLONG token = Create("clip");
    Limit(300000);
    uint32_t written = 0;
    HRESULT hr = S_OK;
    while (SUCCEEDED(hr) && written < 100) {
        hr = Write(token, written, Bytes(written, kFrame));
        if (SUCCEEDED(hr)) ++written;
    }
    EXPECT_EQ(hr, full);
    EXPECT_EQ(written, 5u) << "what fits between header and limit";
    EXPECT_EQ(Write(token, 50, Bytes(50, kFrame)), full);
    EXPECT_EQ(Write(token, 51, Bytes(51, 100)), S_OK) << "what fits in the rest";
    std::vector<uint8_t> bytes;
    for (uint32_t i = 0; i < written; ++i) {
        EXPECT_EQ(Read(token, i, bytes), S_OK);
        EXPECT_EQ(bytes, Bytes(i, kFrame));
    }
    EXPECT_EQ(m_channel->FlushBuffers(token), S_OK);
    Limit(m_before.rlim_cur);  // room again
    EXPECT_EQ(Write(token, written, Bytes(written, kFrame)), S_OK);
    CloseLast(token);
    token = Open("clip");
    for (uint32_t i = 0; i <= written; ++i) {
        EXPECT_EQ(Read(token, i, bytes), S_OK);
        EXPECT_EQ(bytes, Bytes(i, kFrame));
    }
    CloseLast(token);
    std::shared_ptr<zemstore::IVolume> volume;
    std::unique_ptr<zemstore::IStoreFile> file;
    ASSERT_EQ(zemstore::OpenVolume(m_root, volume), S_OK);
    ASSERT_EQ(volume->Open("clip", zemstore::OpenFor::kRead, file), S_OK);
    zemfsck::Report report;
    ASSERT_EQ(zemfsck::Check(std::move(file), report), S_OK);
    EXPECT_EQ(report.damages, 0u) << zemfsck::AsText("clip", report);
}

TEST_P(Room, AFullFileClosesAndKeepsWhatWasWritten) {
    ULONGLONG token = Create("clip");
    Limit(300000);
    uint32_t written = 0;
    while (SUCCEEDED(Write(token, written, Bytes(written, 4000))))
        ++written;
    EXPECT_GT(written, 30u);
    CloseLast(token);  // there is no room for the index: the records tell
    Limit(m_before.rlim_cur);
    token = Open("clip");
    std::vector<uint8_t> bytes;
    for (uint32_t i = 0; i < written; ++i) {
        EXPECT_EQ(Read(token, i, bytes), S_OK);
        EXPECT_EQ(bytes, Bytes(i, 4000));
    }
}

INSTANTIATE_TEST_SUITE_P(Engines, Room, testing::Values("", "1"), [](const auto& engine) {
    return engine.param[0] == 0 ? std::string("Ring") : std::string("Threads");
});

// A device that is full for real: a file system in memory, made for the test where that is allowed.
class FullDevice : public CVolumeTest {
protected:
    FullDevice() {
        m_mounted = unshare(CLONE_NEWNS) == 0 &&
                    mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                    mount("none", m_root.c_str(), "tmpfs", 0, "size=1m") == 0;
    }
    ~FullDevice() override {
        m_channel.reset();
        zemstore::AwaitNoMediaFiles();
        if (m_mounted) umount2(m_root.c_str(), MNT_DETACH);
    }
    bool m_mounted = false;
};

TEST_F(FullDevice, FailsTheWriteKeepsTheRestAndGoesOnWhenThereIsRoom) {
    if (!m_mounted) GTEST_SKIP() << "needs the right to mount";
    constexpr size_t kFrame = 50000;
    std::ofstream(Path("filler")) << std::string(200000, 'x');
    ULONGLONG token = Create("clip");
    uint32_t written = 0;
    HRESULT hr = S_OK;
    while (SUCCEEDED(hr) && written < 100) {
        hr = Write(token, written, Bytes(written, kFrame));
        if (SUCCEEDED(hr)) ++written;
    }
    EXPECT_EQ(hr, HRESULT_FROM_WIN32(ERROR_DISK_FULL));
    EXPECT_GT(written, 10u);
    EXPECT_EQ(m_channel->FlushBuffers(token), S_OK);
    std::vector<uint8_t> bytes;
    for (uint32_t i = 0; i < written; ++i) {
        EXPECT_EQ(Read(token, i, bytes), S_OK);
        EXPECT_EQ(bytes, Bytes(i, kFrame));
    }
    std::filesystem::remove(Path("filler"));
    EXPECT_EQ(Write(token, written, Bytes(written, kFrame)), S_OK);
    CloseLast(token);
    token = Open("clip");
    for (uint32_t i = 0; i <= written; ++i) {
        EXPECT_EQ(Read(token, i, bytes), S_OK);
        EXPECT_EQ(bytes, Bytes(i, kFrame));
    }
}

}  // namespace
