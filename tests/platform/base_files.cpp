// Files by name and handle, in Windows terms, in a folder of its own for each test.
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/platform.h"
#include "tests/platform/tempfolder.h"

namespace {

class Files : public testing::Test {
protected:
    WString Path(const WCHAR* name) const { return m_folder.Wide() + TEXT("/") + name; }

    static HANDLE Open(const WString& path, DWORD access, DWORD disposition,
                       DWORD flags = FILE_ATTRIBUTE_NORMAL) {
        return CreateFileW(path.c_str(), access,
                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           disposition, flags, nullptr);
    }
    static void Write(const WString& path, const std::string& content) {
        const HANDLE file = Open(path, GENERIC_WRITE, CREATE_ALWAYS);
        ASSERT_NE(file, INVALID_HANDLE_VALUE);
        DWORD moved = 0;
        EXPECT_TRUE(
            WriteFile(file, content.data(), static_cast<DWORD>(content.size()), &moved, nullptr));
        EXPECT_EQ(moved, content.size());
        EXPECT_TRUE(CloseHandle(file));
    }
    static std::string Read(const WString& path) {
        const HANDLE file = Open(path, GENERIC_READ, OPEN_EXISTING);
        EXPECT_NE(file, INVALID_HANDLE_VALUE);
        char buffer[256];
        DWORD moved = 0;
        EXPECT_TRUE(ReadFile(file, buffer, sizeof(buffer), &moved, nullptr));
        EXPECT_TRUE(CloseHandle(file));
        return {buffer, moved};
    }
    // The error of an open that must fail.
    static DWORD OpenError(const WString& path, DWORD access, DWORD disposition,
                           DWORD flags = FILE_ATTRIBUTE_NORMAL) {
        SetLastError(0);
        EXPECT_EQ(Open(path, access, disposition, flags), INVALID_HANDLE_VALUE);
        return GetLastError();
    }

    CTempFolder m_folder;
};

TEST_F(Files, Dispositions) {
    const WString path = Path(TEXT("file"));
    EXPECT_EQ(OpenError(path, GENERIC_READ, OPEN_EXISTING), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(OpenError(path, GENERIC_WRITE, TRUNCATE_EXISTING), ERROR_FILE_NOT_FOUND);
    SetLastError(77);
    HANDLE file = Open(path, GENERIC_WRITE, OPEN_ALWAYS);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_EQ(OpenError(path, GENERIC_WRITE, CREATE_NEW), ERROR_FILE_EXISTS);
    Write(path, "content");
    file = Open(path, GENERIC_WRITE, OPEN_ALWAYS);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_EQ(Read(path), "content");
    file = Open(path, GENERIC_WRITE, TRUNCATE_EXISTING);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_EQ(Read(path), "");
    Write(path, "again");
    file = Open(path, GENERIC_READ | GENERIC_WRITE, CREATE_ALWAYS);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_EQ(Read(path), "");
    file = Open(Path(TEXT("new")), GENERIC_WRITE, CREATE_NEW);
    EXPECT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(CloseHandle(file));
}

TEST_F(Files, RefusesUnknownArguments) {
    const WString path = Path(TEXT("file"));
    Write(path, "x");
    EXPECT_EQ(OpenError(path, GENERIC_READ, 0), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(OpenError(path, GENERIC_READ, 6), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(OpenError(path, GENERIC_READ, TRUNCATE_EXISTING), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(OpenError(TEXT(""), GENERIC_READ, OPEN_EXISTING), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(OpenError(Path(TEXT("none/file")), GENERIC_READ, OPEN_EXISTING),
              ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(OpenError(Path(TEXT("none/file")), GENERIC_WRITE, CREATE_ALWAYS),
              ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(OpenError(path + TEXT("/below"), GENERIC_READ, OPEN_EXISTING), ERROR_PATH_NOT_FOUND);
}

TEST_F(Files, FoldersAreNotFiles) {
    const WString path = Path(TEXT("folder"));
    EXPECT_TRUE(CreateDirectoryW(path.c_str(), nullptr));
    EXPECT_FALSE(CreateDirectoryW(path.c_str(), nullptr));
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_FALSE(CreateDirectoryW(Path(TEXT("none/folder")).c_str(), nullptr));
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(GetFileAttributesW(path.c_str()), FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(OpenError(path, GENERIC_READ, OPEN_EXISTING), ERROR_ACCESS_DENIED);
    EXPECT_FALSE(DeleteFileW(path.c_str()));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    const HANDLE folder = Open(path, GENERIC_READ, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS);
    EXPECT_NE(folder, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(CloseHandle(folder));
}

TEST_F(Files, AttributesAndDeletion) {
    const WString path = Path(TEXT("file"));
    EXPECT_EQ(GetFileAttributesW(path.c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(DeleteFileW(path.c_str()));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(GetFileAttributesW(Path(TEXT("none/file")).c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    Write(path, "x");
    const DWORD attributes = GetFileAttributesW(path.c_str());
    EXPECT_NE(attributes, INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(attributes & FILE_ATTRIBUTE_DIRECTORY, 0u);
    EXPECT_TRUE(DeleteFileW(path.c_str()));
    EXPECT_EQ(GetFileAttributesW(path.c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST_F(Files, BothSeparatorsAndRepeatedOnes) {
    CreateDirectoryW(Path(TEXT("a")).c_str(), nullptr);
    Write(Path(TEXT("a/b")), "found");
    EXPECT_EQ(Read(m_folder.Wide() + TEXT("\\/a\\\\/b")), "found");
    EXPECT_EQ(Read(m_folder.Wide() + TEXT("\\a//b")), "found");
}

TEST_F(Files, NamesBeyondAscii) {
    Write(Path(TEXT("\u00E4\u20AC\U0001F3AC")), "found");
    EXPECT_EQ(Read(Path(TEXT("\u00E4\u20AC\U0001F3AC"))), "found");
}

TEST_F(Files, SizeAndReading) {
    const WString path = Path(TEXT("file"));
    Write(path, "0123456789");
    const HANDLE file = Open(path, GENERIC_READ, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN);
    LARGE_INTEGER size;
    ASSERT_TRUE(GetFileSizeEx(file, &size));
    EXPECT_EQ(size.QuadPart, 10);
    char buffer[16];
    DWORD moved = 0;
    EXPECT_TRUE(ReadFile(file, buffer, 4, &moved, nullptr));
    EXPECT_EQ(std::string(buffer, moved), "0123");
    EXPECT_TRUE(ReadFile(file, buffer, 16, &moved, nullptr));
    EXPECT_EQ(std::string(buffer, moved), "456789");
    EXPECT_TRUE(ReadFile(file, buffer, 16, &moved, nullptr));
    EXPECT_EQ(moved, 0u);
    OVERLAPPED at{};
    at.Offset = 8;
    EXPECT_TRUE(ReadFile(file, buffer, 16, &moved, &at));
    EXPECT_EQ(std::string(buffer, moved), "89");
    at.Offset = 10;
    EXPECT_FALSE(ReadFile(file, buffer, 16, &moved, &at));
    EXPECT_EQ(GetLastError(), ERROR_HANDLE_EOF);
    EXPECT_FALSE(WriteFile(file, "x", 1, &moved, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_FALSE(ReadFile(file, buffer, 1, &moved, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(GetFileSizeEx(file, &size));
}

TEST_F(Files, WritingAtAnOffset) {
    const WString path = Path(TEXT("file"));
    const HANDLE file = Open(path, GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
    OVERLAPPED at{};
    at.Offset = 3;
    DWORD moved = 0;
    EXPECT_TRUE(WriteFile(file, "abc", 3, &moved, &at));
    EXPECT_EQ(moved, 3u);
    LARGE_INTEGER size;
    EXPECT_TRUE(GetFileSizeEx(file, &size));
    EXPECT_EQ(size.QuadPart, 6);
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_EQ(Read(path), std::string("\0\0\0abc", 6));
}

TEST_F(Files, DiskSpace) {
    ULARGE_INTEGER available, total, all_free;
    ASSERT_TRUE(
        GetDiskFreeSpaceExW((m_folder.Wide() + TEXT("\\")).c_str(), &available, &total, &all_free));
    EXPECT_GT(total.QuadPart, 0u);
    EXPECT_LE(available.QuadPart, total.QuadPart);
    EXPECT_LE(available.QuadPart, all_free.QuadPart);
    EXPECT_TRUE(GetDiskFreeSpaceExW(nullptr, &available, nullptr, nullptr));
    EXPECT_FALSE(GetDiskFreeSpaceExW(Path(TEXT("none")).c_str(), &available, &total, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(GetDiskFreeSpaceExW(TEXT(""), &available, &total, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    Write(Path(TEXT("file")), "");
    EXPECT_FALSE(GetDiskFreeSpaceExW(Path(TEXT("file")).c_str(), &available, &total, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_DIRECTORY);
}

TEST_F(Files, FinalPath) {
    const WString path = Path(TEXT("file"));
    Write(path, "x");
    const HANDLE file = Open(path, GENERIC_READ, OPEN_EXISTING);
    WCHAR buffer[1024];
    const DWORD length = GetFinalPathNameByHandleW(file, buffer, 1024, FILE_NAME_NORMALIZED);
    ASSERT_GT(length, 5u);
    EXPECT_EQ(wcslen(buffer), length);
    EXPECT_EQ(WString(buffer).substr(length - 4), TEXT("file"));
    EXPECT_EQ(GetFinalPathNameByHandleW(file, buffer, length, 0), length + 1);
    EXPECT_EQ(GetFinalPathNameByHandleW(file, buffer, length + 1, 0), length);
    EXPECT_EQ(GetFinalPathNameByHandleW(file, buffer, 1024, 0x40), 0u);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_EQ(GetFinalPathNameByHandleW(file, buffer, 1024, 0), 0u);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(ComputerName, FillsOrTellsTheSize) {
    WCHAR name[260];
    DWORD size = 260;
    ASSERT_TRUE(GetComputerNameW(name, &size));
    EXPECT_EQ(wcslen(name), size);
    EXPECT_GT(size, 0u);
    DWORD exact = size;
    EXPECT_FALSE(GetComputerNameW(name, &exact));
    EXPECT_EQ(GetLastError(), ERROR_BUFFER_OVERFLOW);
    EXPECT_EQ(exact, size + 1);
    EXPECT_TRUE(GetComputerNameW(name, &exact));
    EXPECT_EQ(exact, size);
}

}  // namespace
