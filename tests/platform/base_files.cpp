// Files by name and handle, in Windows terms, in a folder of its own for each test.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/platform.h"
#include "tests/tempfolder.h"

namespace {

class Files : public testing::Test {
protected:
    WString Path(const WCHAR* name) const {
        return m_folder.Path().string<WCHAR>() + TEXT("/") + name;
    }

    static HANDLE Open(const WString& path, DWORD flags = FILE_ATTRIBUTE_NORMAL,
                       DWORD disposition = OPEN_EXISTING) {
        return CreateFileW(path.c_str(), GENERIC_READ,
                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           disposition, flags, nullptr);
    }
    void Make(const WCHAR* name) const {
        std::ofstream(m_folder.Path() / std::filesystem::path(WString(name))) << "x";
    }
    // The system's own name of what is opened; empty when it cannot be.
    static WString NameOf(const WString& path) {
        const HANDLE file = Open(path);
        WCHAR name[1024];
        const DWORD length = GetFinalPathNameByHandleW(file, name, 1024, FILE_NAME_NORMALIZED);
        CloseHandle(file);
        return {name, length};
    }
    // The error of an open that must fail.
    static DWORD OpenError(const WString& path, DWORD disposition = OPEN_EXISTING) {
        SetLastError(0);
        EXPECT_EQ(Open(path, FILE_ATTRIBUTE_NORMAL, disposition), INVALID_HANDLE_VALUE);
        return GetLastError();
    }

    CTempFolder m_folder;
};

TEST_F(Files, OpensWhatIsThere) {
    EXPECT_EQ(OpenError(Path(TEXT("file"))), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(OpenError(TEXT("")), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(OpenError(Path(TEXT("none/file"))), ERROR_PATH_NOT_FOUND);
    Make(TEXT("file"));
    EXPECT_EQ(OpenError(Path(TEXT("file/below"))), ERROR_PATH_NOT_FOUND);
    for (const DWORD disposition : {0u, 6u})
        EXPECT_EQ(OpenError(Path(TEXT("file")), disposition), ERROR_INVALID_PARAMETER);
    const HANDLE file = Open(Path(TEXT("file")));
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_FALSE(CloseHandle(file));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST_F(Files, FoldersAreNotFiles) {
    const WString path = Path(TEXT("folder"));
    std::filesystem::create_directory(m_folder.Path() / "folder");
    EXPECT_EQ(GetFileAttributesW(path.c_str()), FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(OpenError(path), ERROR_ACCESS_DENIED);
    const HANDLE folder = Open(path, FILE_FLAG_BACKUP_SEMANTICS);
    EXPECT_NE(folder, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(CloseHandle(folder));
}

TEST_F(Files, Attributes) {
    const WString path = Path(TEXT("file"));
    EXPECT_EQ(GetFileAttributesW(path.c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(GetFileAttributesW(Path(TEXT("none/file")).c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    Make(TEXT("file"));
    const DWORD attributes = GetFileAttributesW(path.c_str());
    EXPECT_NE(attributes, INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(attributes & FILE_ATTRIBUTE_DIRECTORY, 0u);
}

TEST_F(Files, BothSeparatorsAndRepeatedOnes) {
    std::filesystem::create_directory(m_folder.Path() / "a");
    Make(TEXT("a/b"));
    const WString name = NameOf(Path(TEXT("a/b")));
    ASSERT_FALSE(name.empty());
    EXPECT_EQ(NameOf(m_folder.Path().string<WCHAR>() + TEXT("\\/a\\\\/b")), name);
    EXPECT_EQ(NameOf(m_folder.Path().string<WCHAR>() + TEXT("\\a//b")), name);
}

TEST_F(Files, NamesBeyondAscii) {
    const WString name = TEXT("\u00E4\u20AC\U0001F3AC");
    Make(name.c_str());
    EXPECT_TRUE(NameOf(Path(name.c_str())).ends_with(name));
}

TEST_F(Files, DiskSpace) {
    ULARGE_INTEGER available, total, all_free;
    ASSERT_TRUE(GetDiskFreeSpaceExW((m_folder.Path().string<WCHAR>() + TEXT("\\")).c_str(),
                                    &available, &total, &all_free));
    EXPECT_GT(total.QuadPart, 0u);
    EXPECT_LE(available.QuadPart, total.QuadPart);
    EXPECT_LE(available.QuadPart, all_free.QuadPart);
    EXPECT_TRUE(GetDiskFreeSpaceExW(nullptr, &available, nullptr, nullptr));
    EXPECT_FALSE(GetDiskFreeSpaceExW(Path(TEXT("none")).c_str(), &available, &total, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(GetDiskFreeSpaceExW(TEXT(""), &available, &total, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    Make(TEXT("file"));
    EXPECT_FALSE(GetDiskFreeSpaceExW(Path(TEXT("file")).c_str(), &available, &total, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_DIRECTORY);
}

TEST_F(Files, FinalPath) {
    Make(TEXT("file"));
    const HANDLE file = Open(Path(TEXT("file")));
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

// On every system: what Windows takes for a device or a stream.
TEST(WindowsNames, StreamsAndDevicesAreNoPlainFiles) {
    for (const WCHAR* path :
         {TEXT("/media/a.mxf:stream"), TEXT("/media/a.mxf::$DATA"), TEXT("C:/x"), TEXT("NUL"),
          TEXT("/media/nul"), TEXT("/media/Con.txt"), TEXT("\\media\\aux \\x"), TEXT("/prn.tar.gz"),
          TEXT("/COM1"), TEXT("/lpt9.txt"), TEXT("/com\u00b2"), TEXT("/conin$")}) {
        EXPECT_FALSE(windowsnames::ArePlain(path)) << std::filesystem::path(path);
    }
    for (const WCHAR* path :
         {TEXT(""), TEXT("/"), TEXT("/media/clip.mxf"), TEXT("/null"), TEXT("/COM"), TEXT("/com10"),
          TEXT("/comx"), TEXT("/media/.nul"), TEXT("/a.con"), TEXT("/console/lpt")}) {
        EXPECT_TRUE(windowsnames::ArePlain(path)) << std::filesystem::path(path);
    }
}

}  // namespace
