// What only this layer promises of files: nothing but regular files, links as reparse points, bad
// names. Linux only.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "platform/platform.h"
#include "tests/tempfolder.h"

namespace {

HANDLE Open(const WString& path, DWORD access = GENERIC_READ, DWORD flags = FILE_ATTRIBUTE_NORMAL) {
    SetLastError(0);
    return CreateFileW(path.c_str(), access, FILE_SHARE_READ, nullptr, OPEN_EXISTING, flags,
                       nullptr);
}

TEST(PosixFiles, RefusesFifosDevicesAndSocketsAtOnce) {
    const CTempFolder folder;
    ASSERT_EQ(mkfifo(folder.File("fifo").c_str(), 0600), 0);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, folder.File("socket").c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    for (const WString& path :
         {folder.Path().string<WCHAR>() + TEXT("/fifo"),
          folder.Path().string<WCHAR>() + TEXT("/socket"), WString(TEXT("/dev/null"))}) {
        EXPECT_EQ(Open(path), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
        EXPECT_EQ(GetFileAttributesW(path.c_str()), FILE_ATTRIBUTE_DEVICE);
    }
    close(listener);
}

TEST(PosixFiles, LinksAreReparsePoints) {
    const CTempFolder folder;
    std::ofstream(folder.File("file")) << "x";
    std::filesystem::create_symlink("file", folder.Path() / "link");
    std::filesystem::create_symlink(".", folder.Path() / "folder");
    std::filesystem::create_symlink("nothing", folder.Path() / "broken");
    std::filesystem::create_symlink("circle", folder.Path() / "circle");
    const auto path = [&](const WCHAR* name) {
        return folder.Path().string<WCHAR>() + TEXT("\\") + name;
    };
    EXPECT_EQ(GetFileAttributesW(path(TEXT("file")).c_str()), FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ(GetFileAttributesW(path(TEXT("link")).c_str()), FILE_ATTRIBUTE_REPARSE_POINT);
    EXPECT_EQ(GetFileAttributesW(path(TEXT("folder")).c_str()),
              FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(GetFileAttributesW(path(TEXT("broken")).c_str()), FILE_ATTRIBUTE_REPARSE_POINT);
    EXPECT_EQ(Open(path(TEXT("link")), GENERIC_READ, FILE_FLAG_OPEN_REPARSE_POINT),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(Open(path(TEXT("broken"))), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Open(path(TEXT("circle"))), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_CANT_RESOLVE_FILENAME);
    const HANDLE file = Open(path(TEXT("link")));
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    WCHAR name[1024];
    const DWORD length = GetFinalPathNameByHandleW(file, name, 1024, FILE_NAME_NORMALIZED);
    EXPECT_EQ(WString(name, length),
              std::filesystem::canonical(folder.Path() / "file").u16string());
    // A deleted file has no name.
    std::filesystem::remove(folder.Path() / "file");
    EXPECT_EQ(GetFinalPathNameByHandleW(file, name, 1024, 0), 0u);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_TRUE(CloseHandle(file));
}

TEST(PosixFiles, BadNames) {
    const CTempFolder folder;
    const WString lone = folder.Path().string<WCHAR>() + TEXT("/") + WCHAR{0xDC00};
    EXPECT_EQ(Open(lone), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_NAME);
    EXPECT_EQ(GetFileAttributesW(lone.c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_NAME);
    const WString last = folder.Path().string<WCHAR>() + TEXT("/") + WCHAR{0xD800};
    EXPECT_EQ(Open(last), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_NAME);
    for (const size_t length : {size_t{256}, size_t{5000}, size_t{100000}}) {
        EXPECT_EQ(Open(folder.Path().string<WCHAR>() + TEXT("/") + WString(length, u'x')),
                  INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
    }
    // Every length around the buffer's end, in a character of three bytes.
    for (size_t count = 1360; count < 1370; ++count)
        EXPECT_EQ(GetFileAttributesW(WString(count, u'\u20AC').c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(CreateFileW(nullptr, GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
}

TEST(PosixFiles, RefusesFlagsAndAttributes) {
    const CTempFolder folder;
    std::ofstream(folder.File("file")) << "x";
    const WString path = folder.Path().string<WCHAR>() + TEXT("/file");
    for (const DWORD flag :
         {0x40000000u /* overlapped */, 0x20000000u /* no buffering */, 0x04000000u, 0x1u}) {
        EXPECT_EQ(Open(path, GENERIC_READ, flag), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }
    for (const DWORD access : {DELETE, 0x40000000u /* to write */, GENERIC_READ | 0x40000000u}) {
        EXPECT_EQ(Open(path, access), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }
    for (const DWORD disposition : {1u, 2u, 4u, 5u}) {  // those that make or empty a file
        EXPECT_EQ(CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, disposition, 0, nullptr),
                  INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }
    EXPECT_EQ(CreateFileW(path.c_str(), GENERIC_READ, 0x8, nullptr, OPEN_EXISTING, 0, nullptr),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    SECURITY_ATTRIBUTES attributes{};
    EXPECT_EQ(CreateFileW(path.c_str(), GENERIC_READ, 0, &attributes, OPEN_EXISTING, 0, nullptr),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_NOT_SUPPORTED);
}

HANDLE OpenToDelete(const WString& path) {
    return Open(path, DELETE, FILE_FLAG_OPEN_REPARSE_POINT);
}

BOOL DeleteOpen(HANDLE file) {
    FILE_DISPOSITION_INFO disposition = {TRUE};
    return SetFileInformationByHandle(file, FileDispositionInfo, &disposition, sizeof(disposition));
}

TEST(PosixFiles, OpenToDeleteTakesRegularFilesAlone) {
    const CTempFolder folder;
    std::filesystem::create_directory(folder.Path() / "folder");
    std::filesystem::create_symlink("file", folder.Path() / "link");
    std::ofstream(folder.File("file")) << "x";
    ASSERT_EQ(mkfifo(folder.File("fifo").c_str(), 0666), 0);
    for (const WCHAR* name : {TEXT("/folder"), TEXT("/link"), TEXT("/fifo")}) {
        EXPECT_EQ(OpenToDelete(folder.Path().string<WCHAR>() + name), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    }
    EXPECT_EQ(OpenToDelete(folder.Path().string<WCHAR>() + TEXT("/none")), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(OpenToDelete(folder.Path().string<WCHAR>() + TEXT("/none/file")),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(OpenToDelete(TEXT("/")), INVALID_HANDLE_VALUE);
    EXPECT_EQ(OpenToDelete(TEXT("no such file here")), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
}

TEST(PosixFiles, AnOpenFileIsDeletedFromTheFolderInWhichItWasFound) {
    const CTempFolder folder;
    std::filesystem::create_directory(folder.Path() / "folder");
    std::ofstream(folder.File("folder/file")) << "x";
    const HANDLE file = OpenToDelete(folder.Path().string<WCHAR>() + TEXT("/folder/file"));
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    std::filesystem::rename(folder.Path() / "folder", folder.Path() / "moved");
    std::filesystem::create_directory(folder.Path() / "folder");
    std::ofstream(folder.File("folder/file")) << "another";
    EXPECT_TRUE(DeleteOpen(file));
    EXPECT_FALSE(std::filesystem::exists(folder.File("moved/file")));
    EXPECT_TRUE(std::filesystem::exists(folder.File("folder/file")));
    EXPECT_FALSE(DeleteOpen(file));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    std::ofstream(folder.File("moved/file")) << "with its name";
    EXPECT_FALSE(DeleteOpen(file));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_TRUE(std::filesystem::exists(folder.File("moved/file")));
    EXPECT_TRUE(CloseHandle(file));
}

// Who may not read it may not ask for its lock either, and deletes it.
TEST(PosixFiles, WhatIsBeingWrittenIsNotDeleted) {
    const CTempFolder folder;
    std::ofstream(folder.File("file")) << "x";
    const int writer = open(folder.File("file").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(writer, LOCK_EX), 0);
    const HANDLE file = OpenToDelete(folder.Path().string<WCHAR>() + TEXT("/file"));
    EXPECT_FALSE(DeleteOpen(file));
    EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
    EXPECT_TRUE(std::filesystem::exists(folder.File("file")));
    ASSERT_EQ(flock(writer, LOCK_UN), 0);
    EXPECT_TRUE(DeleteOpen(file));
    EXPECT_FALSE(std::filesystem::exists(folder.File("file")));
    EXPECT_EQ(flock(writer, LOCK_EX | LOCK_NB), 0) << "the lock is kept no longer";
    EXPECT_TRUE(CloseHandle(file));
    close(writer);
}

// Without a descriptor nobody can tell whether it is being written.
TEST(PosixFiles, WhatMayBeBeingWrittenIsNotDeleted) {
    const CTempFolder folder;
    std::ofstream(folder.File("file")) << "x";
    std::ofstream(folder.File("other")) << "x";
    const WString root = folder.Path().string<WCHAR>();
    const HANDLE file = OpenToDelete(root + TEXT("/file"));
    const HANDLE other = OpenToDelete(root + TEXT("/other"));
    // A sanitizer opens a pipe when it sees the type of an object for the first time.
    EXPECT_TRUE(DeleteOpen(other));
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const int next = dup(STDERR_FILENO);
    close(next);
    const rlimit none{static_cast<rlim_t>(next), usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const BOOL deleted = DeleteOpen(file);
    const DWORD error = GetLastError();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
    EXPECT_FALSE(deleted);
    EXPECT_EQ(error, ERROR_TOO_MANY_OPEN_FILES);
    EXPECT_TRUE(DeleteOpen(file));
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_TRUE(CloseHandle(other));
}

TEST(PosixFiles, WhoeverReadsItDoesNotKeepItFromBeingDeleted) {
    const CTempFolder folder;
    std::ofstream(folder.File("file")) << "x";
    const int reader = open(folder.File("file").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(reader, LOCK_SH), 0);
    const HANDLE file = OpenToDelete(folder.Path().string<WCHAR>() + TEXT("/file"));
    EXPECT_TRUE(DeleteOpen(file));
    EXPECT_TRUE(CloseHandle(file));
    close(reader);
}

TEST(PosixFiles, OnlyWhatWasOpenedToBeDeletedIs) {
    const CTempFolder folder;
    std::ofstream(folder.File("file")) << "x";
    const WString path = folder.Path().string<WCHAR>() + TEXT("/file");
    HANDLE file = Open(path);
    EXPECT_FALSE(DeleteOpen(file));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_FALSE(DeleteOpen(file));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    file = OpenToDelete(path);
    FILE_DISPOSITION_INFO disposition = {FALSE};
    const auto refused = [&](FILE_INFO_BY_HANDLE_CLASS kind, LPVOID information, DWORD size) {
        EXPECT_FALSE(SetFileInformationByHandle(file, kind, information, size));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    };
    refused(FileDispositionInfo, &disposition, sizeof(disposition));
    disposition.DeleteFile = TRUE;
    refused(FileDispositionInfo, nullptr, sizeof(disposition));
    refused(FileDispositionInfo, &disposition, 0);
    refused(static_cast<FILE_INFO_BY_HANDLE_CLASS>(3), &disposition, sizeof(disposition));
    ASSERT_EQ(chmod(folder.File("file").c_str(), 0444), 0);
    EXPECT_FALSE(DeleteOpen(file));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_TRUE(std::filesystem::exists(folder.File("file")));
}

TEST(PosixFiles, NobodyMayWriteAReadOnlyFile) {
    const CTempFolder folder;
    std::ofstream(folder.File("file")) << "x";
    ASSERT_EQ(chmod(folder.File("file").c_str(), 0444), 0);
    const WString path = folder.Path().string<WCHAR>() + TEXT("/file");
    EXPECT_EQ(GetFileAttributesW(path.c_str()), FILE_ATTRIBUTE_READONLY);
}

}  // namespace
