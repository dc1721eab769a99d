// Files by name: what may be named, made, moved and removed, and that nothing leaves the volume.
#include "channelfixture.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <fstream>

namespace {

using namespace mediatest;

class Files : public CVolumeTest {
protected:
    HRESULT TryCreate(const WCHAR* name, DWORD flags = 0) {
        ULONGLONG token = 0;
        const HRESULT hr = m_channel->CreateFileW(name, TEXT(""), Describe(kMediaFileVideo), flags,
                                                  nullptr, token, true);
        if (SUCCEEDED(hr)) {
            EXPECT_EQ(m_channel->CloseFile(token), S_OK);
        }
        return hr;
    }
    HRESULT TryOpen(const WCHAR* name) {
        ULONGLONG token = 0;
        const HRESULT hr =
            m_channel->OpenFile(name, TEXT(""), kMediaFileAny, kFileRead, false, token);
        if (SUCCEEDED(hr)) {
            EXPECT_EQ(m_channel->CloseFile(token), S_OK);
        }
        return hr;
    }
};

TEST_F(Files, CreateFlags) {
    EXPECT_EQ(TryCreate(TEXT("a/b/c")), S_OK) << "directories are made on the way";
    EXPECT_TRUE(std::filesystem::is_regular_file(Path("a/b/c")));
    EXPECT_EQ(TryCreate(TEXT("a/b/c"), kFileCreateNew), HRESULT_FROM_WIN32(ERROR_FILE_EXISTS));
    EXPECT_EQ(TryCreate(TEXT("a\\b\\d"), kFileCreateNew), S_OK);
    EXPECT_EQ(TryCreate(TEXT("x"), 0x20), E_INVALIDARG);
    EXPECT_EQ(TryCreate(TEXT("")), E_INVALIDARG);
    EXPECT_EQ(TryCreate(TEXT("a")), E_ACCESSDENIED) << "a directory";
    for (const auto& entry : std::filesystem::recursive_directory_iterator(m_root))
        EXPECT_FALSE(entry.path().filename().string().starts_with(".zem-")) << entry.path();
}

TEST_F(Files, TruncateAndAppend) {
    ULONGLONG token = Create("clip");
    ASSERT_EQ(Write(token, 0, Bytes(0, 100)), S_OK);
    ASSERT_EQ(m_channel->CloseFile(token), S_OK);
    const ULONGLONG reader = Open("clip");
    token = Create("clip");
    ASSERT_EQ(Write(token, 1, Bytes(1, 100)), S_OK);
    ASSERT_EQ(m_channel->CloseFile(token), S_OK);
    ZemEsDesc desc{};
    ASSERT_EQ(m_channel->GetFileInfo(reader, desc), S_OK);
    EXPECT_EQ(desc.frameCount, 2u) << "without a flag an existing file keeps its frames";
    token = Create("clip", kMediaFileVideo, kFileTruncate);
    ASSERT_EQ(m_channel->GetFileInfo(token, desc), S_OK);
    EXPECT_EQ(desc.frameCount, 0u);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(Read(reader, 1, bytes), S_OK) << "who had it open keeps what it had";
    EXPECT_EQ(bytes, Bytes(1, 100));
    ULONGLONG wrong = 0;
    ASSERT_EQ(m_channel->CloseFile(token), S_OK);
    EXPECT_EQ(m_channel->CreateFileW(TEXT("clip"), TEXT(""), Describe(kMediaFileAudio), 0, nullptr,
                                     wrong, true),
              E_INVALIDARG);
}

TEST_F(Files, BadDescriptors) {
    ULONGLONG token = 0;
    ZemEsDesc desc = Describe(kMediaFileVideo);
    desc.sizeVersion = 0;
    EXPECT_EQ(m_channel->CreateFileW(TEXT("x"), TEXT(""), desc, 0, nullptr, token, true),
              E_INVALIDARG);
    EXPECT_EQ(m_channel->CreateFileW(TEXT("x"), TEXT(""), Describe(kMediaFileAny), 0, nullptr,
                                     token, true),
              E_INVALIDARG);
    EXPECT_EQ(m_channel->CreateFileW(TEXT("x"), TEXT("a0"), Describe(kMediaFileVideo), 0, nullptr,
                                     token, true),
              HRESULT_FROM_WIN32(ERROR_NOT_FOUND));
    EXPECT_EQ(TryOpen(TEXT("x")), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)) << "nothing was made";
}

TEST_F(Files, NothingLeavesTheVolume) {
    std::ofstream(Path("../") + std::filesystem::path(m_root).filename().string() + ".outside");
    const std::string outside = m_root + ".outside";
    std::filesystem::create_symlink(outside, Path("link"));
    std::filesystem::create_directory_symlink("/etc", Path("etc"));
    std::filesystem::create_directory_symlink("..", Path("up"));
    const WString absolute = Wide(outside);
    for (const WCHAR* name : {TEXT("../x"), TEXT("a/../../x"), TEXT("/etc/passwd"), TEXT("C:\\x"),
                              TEXT("link"), TEXT("etc/hostname"), TEXT("up/x"), absolute.c_str(),
                              TEXT("\\\\server\\share\\x"), TEXT("NUL"), TEXT("x:y")}) {
        SCOPED_TRACE(std::string(name, name + WString(name).size()));
        EXPECT_EQ(TryCreate(name, kFileTruncate), E_ACCESSDENIED);
        EXPECT_EQ(TryOpen(name), E_ACCESSDENIED);
        if (WString(name) != TEXT("link")) {  // the link itself is in the volume
            EXPECT_EQ(m_channel->DeleteFileW(name), E_ACCESSDENIED);
            EXPECT_EQ(m_channel->CreateDirectoryW(name), E_ACCESSDENIED);
        }
        EXPECT_EQ(m_channel->MoveFileW(name, TEXT("here")), E_ACCESSDENIED);
        DWORD attributes = 0xFFFFFFFF;
        EXPECT_EQ(m_channel->GetFileAttributesW(name, attributes), E_ACCESSDENIED);
        EXPECT_EQ(attributes, 0xFFFFFFFFu);
        ULONGLONG size = 0;
        EXPECT_EQ(m_channel->GetFileSize(name, size), E_ACCESSDENIED);
    }
    EXPECT_EQ(TryCreate(TEXT("own")), S_OK);
    for (const WCHAR* name : {TEXT("../x"), TEXT("up/x"), TEXT("/tmp/x")})
        EXPECT_EQ(m_channel->MoveFileW(TEXT("own"), name), E_ACCESSDENIED);
    EXPECT_TRUE(std::filesystem::exists(outside));
    std::filesystem::remove(outside);
}

TEST_F(Files, AbsoluteBelowTheRootAndLinksInside) {
    const WString absolute = Wide(Path("deep/clip"));
    EXPECT_EQ(TryCreate(absolute.c_str()), S_OK);
    EXPECT_EQ(TryOpen(TEXT("deep/clip")), S_OK);
    std::filesystem::create_directory_symlink("deep", Path("alias"));
    EXPECT_EQ(TryOpen(TEXT("alias/clip")), S_OK) << "a link that stays inside";
}

TEST_F(Files, OnlyRegularMediaFilesOpen) {
    ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(TryOpen(TEXT("pipe")), E_ACCESSDENIED) << "and without waiting for a writer";
    std::filesystem::create_directory(Path("directory"));
    EXPECT_EQ(TryOpen(TEXT("directory")), E_ACCESSDENIED);
    std::ofstream(Path("text")) << "hello";
    EXPECT_EQ(TryOpen(TEXT("text")), HRESULT_FROM_WIN32(ERROR_BAD_FORMAT));
    EXPECT_EQ(TryOpen(TEXT("missing")), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    ULONGLONG token = 0;
    EXPECT_EQ(TryCreate(TEXT("clip")), S_OK);
    EXPECT_EQ(m_channel->OpenFile(TEXT("clip"), TEXT(""), kMediaFileAudio, 0, false, token),
              HRESULT_FROM_WIN32(ERROR_NOT_FOUND));
    EXPECT_EQ(m_channel->OpenFile(TEXT("clip"), TEXT("a0"), kMediaFileAny, 0, false, token),
              HRESULT_FROM_WIN32(ERROR_NOT_FOUND));
    EXPECT_EQ(m_channel->OpenFile(TEXT("clip"), TEXT("v0"), kMediaFileVideo, 0x7, true, token),
              S_OK);
    EXPECT_EQ(m_channel->OpenFile(TEXT("clip"), TEXT(""), kMediaFileAny, 0x10, false, token),
              E_INVALIDARG);
    EXPECT_EQ(
        m_channel->OpenFile(TEXT("clip"), TEXT(""), static_cast<MediaFileType>(9), 0, false, token),
        E_INVALIDARG);
}

TEST_F(Files, AttributesSizeAndSpace) {
    std::ofstream(Path("text")) << "hello";
    std::filesystem::create_directory(Path("directory"));
    DWORD attributes = 0;
    EXPECT_EQ(m_channel->GetFileAttributesW(TEXT("text"), attributes), S_OK);
    EXPECT_EQ(attributes, FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ(m_channel->GetFileAttributesW(TEXT("directory"), attributes), S_OK);
    EXPECT_EQ(attributes, FILE_ATTRIBUTE_DIRECTORY);
    std::filesystem::permissions(Path("text"), std::filesystem::perms::owner_read);
    EXPECT_EQ(m_channel->GetFileAttributesW(TEXT("text"), attributes), S_OK);
    EXPECT_EQ(attributes, FILE_ATTRIBUTE_READONLY);
    attributes = 7;
    EXPECT_EQ(m_channel->GetFileAttributesW(TEXT("none"), attributes),
              HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(attributes, 7u);
    ULONGLONG size = 0;
    EXPECT_EQ(m_channel->GetFileSize(TEXT("text"), size), S_OK);
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(m_channel->GetFileSize(TEXT("none"), size), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(m_channel->GetFileSize(TEXT("directory"), size), E_ACCESSDENIED);
    ULARGE_INTEGER total{};
    ULARGE_INTEGER free{};
    EXPECT_EQ(m_channel->QueryFileSystemSpace(TEXT(""), total, free), S_OK);
    EXPECT_GT(total.QuadPart, 0u);
    EXPECT_LE(free.QuadPart, total.QuadPart);
    EXPECT_EQ(m_channel->QueryFileSystemSpace(TEXT("directory"), total, free), S_OK);
    EXPECT_EQ(m_channel->QueryFileSystemSpace(Wide(m_root).c_str(), total, free), S_OK);
    EXPECT_EQ(m_channel->QueryFileSystemSpace(TEXT("/"), total, free), E_ACCESSDENIED);
}

TEST_F(Files, DeleteMoveAndDirectories) {
    EXPECT_EQ(m_channel->CreateDirectoryW(TEXT("a")), S_OK);
    EXPECT_EQ(m_channel->CreateDirectoryW(TEXT("a")), HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS));
    EXPECT_EQ(m_channel->CreateDirectoryW(TEXT("x/y")), HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(TryCreate(TEXT("a/one")), S_OK);
    EXPECT_EQ(TryCreate(TEXT("a/two")), S_OK);
    EXPECT_EQ(m_channel->MoveFileW(TEXT("a/one"), TEXT("a/two")),
              HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS));
    EXPECT_EQ(m_channel->MoveFileW(TEXT("a/one"), TEXT("three")), S_OK);
    EXPECT_EQ(TryOpen(TEXT("three")), S_OK);
    EXPECT_EQ(m_channel->MoveFileW(TEXT("none"), TEXT("four")),
              HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(m_channel->DeleteFileW(TEXT("a")), E_ACCESSDENIED);
    EXPECT_EQ(m_channel->DeleteFileW(TEXT("a/two")), S_OK);
    EXPECT_EQ(m_channel->DeleteFileW(TEXT("a/two")), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(m_channel->MoveFileW(TEXT("a"), TEXT("b")), S_OK);
}

TEST_F(Files, AnOpenFileMayBeDeletedUnderItsReaders) {
    ULONGLONG token = Create("clip");
    ASSERT_EQ(Write(token, 0, Bytes(0, 100)), S_OK);
    ASSERT_EQ(m_channel->CloseFile(token), S_OK);
    token = Open("clip");
    EXPECT_EQ(m_channel->DeleteFileW(TEXT("clip")), S_OK);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(Read(token, 0, bytes), S_OK);
    EXPECT_EQ(bytes, Bytes(0, 100));
    // The name is free for another file, which is not mistaken for the old one.
    const ULONGLONG next = Create("clip");
    ASSERT_EQ(Write(next, 0, Bytes(9, 100)), S_OK);
    EXPECT_EQ(Read(token, 0, bytes), S_OK);
    EXPECT_EQ(bytes, Bytes(0, 100));
}

TEST_F(Files, WithoutAVolumeNothingIsReachable) {
    OverrideRegistryValue(TEXT("HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\RUD\\vfs"), TEXT("0"),
                          REG_SZ, TEXT(""), sizeof(WCHAR));
    auto channel = NewChannel();
    ULONGLONG token = 0;
    EXPECT_EQ(channel->OpenFile(TEXT("clip"), TEXT(""), kMediaFileAny, 0, false, token),
              HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(channel->OpenFile(TEXT("/etc/passwd"), TEXT(""), kMediaFileAny, 0, false, token),
              E_ACCESSDENIED);
    EXPECT_EQ(channel->CreateDirectoryW(TEXT("x")), HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
}

TEST_F(Files, AVolumeThatCannotBeOpenedForWantOfDescriptorsIsNotMissing) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const HRESULT hr = m_channel->CreateDirectoryW(TEXT("x"));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(hr, HRESULT_FROM_WIN32(ERROR_TOO_MANY_OPEN_FILES));
}

}  // namespace
