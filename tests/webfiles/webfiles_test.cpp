// GET and DELETE: the two text pages, downloads and deletions below the volume root, and that
// nothing leaves it.
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "tests/fakes/serverfixture.h"
#include "tests/tempfolder.h"

// Replaced system calls; each passes on to the real one unless a test says otherwise.
namespace {
std::function<BOOL(LPCWSTR, ULARGE_INTEGER*, ULARGE_INTEGER*)> g_freeSpace;
std::function<bool(LPCWSTR, DWORD)> g_failOpen;  // true: fails with ERROR_SHARING_VIOLATION
bool g_failDelete = false;
std::function<void()> g_beforeDelete;
}  // namespace

extern "C" {
BOOL __real_GetDiskFreeSpaceExW(LPCWSTR, ULARGE_INTEGER*, ULARGE_INTEGER*, ULARGE_INTEGER*);
BOOL __wrap_GetDiskFreeSpaceExW(LPCWSTR name, ULARGE_INTEGER* available, ULARGE_INTEGER* total,
                                ULARGE_INTEGER* totalFree) {
    if (g_freeSpace) return g_freeSpace(name, available, total);
    return __real_GetDiskFreeSpaceExW(name, available, total, totalFree);
}
HANDLE __real_CreateFileW(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE);
HANDLE __wrap_CreateFileW(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                          DWORD disposition, DWORD flags, HANDLE file) {
    if (g_failOpen && g_failOpen(name, flags)) {
        SetLastError(ERROR_SHARING_VIOLATION);
        return INVALID_HANDLE_VALUE;
    }
    return __real_CreateFileW(name, access, share, security, disposition, flags, file);
}
BOOL __real_SetFileInformationByHandle(HANDLE, FILE_INFO_BY_HANDLE_CLASS, LPVOID, DWORD);
BOOL __wrap_SetFileInformationByHandle(HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind,
                                       LPVOID information, DWORD size) {
    if (g_beforeDelete) g_beforeDelete();
    if (!g_failDelete) return __real_SetFileInformationByHandle(file, kind, information, size);
    SetLastError(ERROR_SHARING_VIOLATION);
    return FALSE;
}
}

namespace {

namespace fs = std::filesystem;

WString Wide(const std::string& text) {
    return WString(text.begin(), text.end());
}

class WebFiles : public CServerFixture {
protected:
    WebFiles() {
        fs::create_directories(top / "vol/media/sub");
        Put("vol/media/clip.mxf", "clip data");
        Put("secret.txt", "secret");
        SetRoot((top / "vol").string());
    }
    ~WebFiles() override {
        g_freeSpace = nullptr;
        g_failOpen = nullptr;
        g_failDelete = false;
        g_beforeDelete = nullptr;
    }
    void Put(const std::string& name, const std::string& data) {
        std::ofstream(top / name, std::ios::binary) << data;
    }
    // As the server stores the registry value: followed by one backslash.
    void SetRoot(const std::string& root) {
        wcscpy_s(access.VolumeRoot(), kNameUnits, (Wide(root) + TEXT("\\")).c_str());
    }
    HRESULT Request(HTTP_VERB verb, const std::string& path) {
        RequestSpec given;
        given.verb = verb;
        given.withClientId = false;
        given.chunkCount = 0;
        given.host = TEXT("box:80");
        given.absPath = Wide(path);
        return Process(given);
    }
    HRESULT Get(const std::string& path) { return Request(HttpVerbGET, path); }
    HRESULT Delete(const std::string& path) { return Request(HttpVerbDELETE, path); }
    std::string Page(const std::string& path) {
        EXPECT_EQ(Get(path), S_OK);
        return http.Last().Body();
    }
    // Downloads and returns the file's bytes as the interface would read them.
    std::string Download(const std::string& path) {
        std::string data;
        http.onSend = [&](const SentResponse& sent) {
            ASSERT_EQ(sent.chunks.size(), 1u);
            const SentResponse::Chunk& chunk = sent.chunks[0];
            ASSERT_EQ(chunk.type, HttpDataChunkFromFileHandle);
            EXPECT_EQ(chunk.offset, 0u);
            EXPECT_EQ(chunk.length, HTTP_BYTE_RANGE_TO_EOF);
            WCHAR name[1024];
            const DWORD length =
                GetFinalPathNameByHandleW(chunk.file, name, 1024, FILE_NAME_NORMALIZED);
            std::ifstream file(std::filesystem::path(WString(name, length)), std::ios::binary);
            data.assign(std::istreambuf_iterator<char>(file), {});
        };
        EXPECT_EQ(Get(path), S_OK);
        http.onSend = nullptr;
        EXPECT_EQ(http.Last().status, 200);
        return data;
    }
    void ExpectBadRequest() {
        ASSERT_EQ(http.SentCount(), 1u) << "answered once";
        const SentResponse sent = http.Last();
        EXPECT_EQ(sent.status, 400);
        EXPECT_EQ(sent.reason, "Bad Request");
        EXPECT_TRUE(sent.chunks.empty());
        EXPECT_EQ(sent.Header(HttpHeaderContentLength), "0");
        EXPECT_FALSE(sent.Header(HttpHeaderContentType));
    }
    LogRecord NoAttributes(const std::string& fullPath) {
        return log.Error(TEXT("box:80: Unable to get file attributes for '") + Wide(fullPath) +
                         TEXT("'"));
    }
    std::string RootText() const { return (top / "vol").string() + "\\"; }

    const CTempFolder folder;
    const fs::path& top = folder.Path();
};

// --- status page ---

TEST_F(WebFiles, TheStatusPageTellsTheSpaceOfTheVolume) {
    clock.SetTick(50000);
    g_freeSpace = [&](LPCWSTR name, ULARGE_INTEGER* available, ULARGE_INTEGER* total) {
        EXPECT_STREQ(Utf8(name).c_str(), RootText().c_str());
        available->QuadPart = 1099511627776;
        total->QuadPart = 4398046511104;
        return TRUE;
    };
    EXPECT_EQ(Page("/media/status"), "0 1099511627776 4398046511104");
    const SentResponse sent = http.Last();
    EXPECT_EQ(sent.status, 200);
    EXPECT_EQ(sent.reason, "OK");
    EXPECT_EQ(sent.Header(HttpHeaderContentType), "text/plain");
    EXPECT_EQ(sent.Header(HttpHeaderServer), "Quorvane ZEM /1.2.3.4");
    EXPECT_EQ(sent.unknown, (decltype(sent.unknown){{"X-ServerName", "BOX"}}));
    EXPECT_EQ(sent.flags, 0u);
    EXPECT_TRUE(log.Empty());
}

TEST_F(WebFiles, PageNamesCompareByTheirBeginningWithoutCase) {
    EXPECT_EQ(Page("/MEDIA/STATUS").substr(0, 2), "0 ");
    EXPECT_EQ(Page("/media/statusXYZ").substr(0, 2), "0 ");
    EXPECT_EQ(Page("/Media/Clients/x"), "No Clients\r\n");
}

TEST_F(WebFiles, TheSpaceIsQueriedOnceInTenSeconds) {
    clock.SetTick(50000);
    int calls = 0;
    g_freeSpace = [&](LPCWSTR, ULARGE_INTEGER* available, ULARGE_INTEGER* total) {
        available->QuadPart = static_cast<ULONGLONG>(++calls);
        total->QuadPart = 100;
        return TRUE;
    };
    EXPECT_EQ(Page("/media/status"), "0 1 100");
    clock.AdvanceTick(9999);
    EXPECT_EQ(Page("/media/status"), "0 1 100");
    clock.AdvanceTick(1);
    EXPECT_EQ(Page("/media/status"), "0 2 100");
    EXPECT_EQ(calls, 2);
}

TEST_F(WebFiles, TheTickCounterMayWrapBetweenQueries) {
    clock.SetTick(0xFFFFFF00);
    int calls = 0;
    g_freeSpace = [&](LPCWSTR, ULARGE_INTEGER*, ULARGE_INTEGER*) {
        ++calls;
        return TRUE;
    };
    Page("/media/status");
    clock.AdvanceTick(0x200);
    Page("/media/status");
    EXPECT_EQ(calls, 1);
    clock.AdvanceTick(10000);
    Page("/media/status");
    EXPECT_EQ(calls, 2);
}

TEST_F(WebFiles, AFailedQueryShowsItsErrorOnceThenZeros) {
    clock.SetTick(50000);
    SetTracing(true);
    g_freeSpace = [](LPCWSTR, ULARGE_INTEGER*, ULARGE_INTEGER*) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return FALSE;
    };
    EXPECT_EQ(Page("/media/status"), "80070003 0 0");
    EXPECT_TRUE(log.Has(kErrorLogLevelTrace,
                        TEXT("box:80: error 0x80070003 querying disk capacity on status check")));
    clock.AdvanceTick(5000);
    EXPECT_EQ(Page("/media/status"), "0 0 0");
}

TEST_F(WebFiles, AFailedQueryIsTracedOnlyWithTheFlag) {
    clock.SetTick(50000);
    g_freeSpace = [](LPCWSTR, ULARGE_INTEGER*, ULARGE_INTEGER*) { return FALSE; };
    Page("/media/status");
    EXPECT_TRUE(log.Empty());
}

TEST_F(WebFiles, ACapacityTextWithoutAPlaceForItIsRefused) {
    server.GetCapacityString(TEXT("l"), nullptr, 10);
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::GetCapacityString")), 1u);
}

TEST_F(WebFiles, StatusRequestsMayRunAtOnce) {
    clock.SetTick(50000);
    g_freeSpace = [](LPCWSTR, ULARGE_INTEGER* available, ULARGE_INTEGER* total) {
        available->QuadPart = 1;
        total->QuadPart = 100;
        return TRUE;
    };
    ASSERT_EQ(Page("/media/status"), "0 1 100");
    clock.AdvanceTick(10000);  // some of them ask the system, the others take what is known
    const auto ask = [&] {
        for (int i = 0; i < 200; ++i) {
            char text[64] = {};
            server.GetCapacityString(TEXT("l"), text, sizeof(text));
            EXPECT_STREQ(text, "0 1 100");
        }
    };
    std::thread first(ask), second(ask);
    first.join();
    second.join();
}

// --- client page ---

TEST_F(WebFiles, TheClientPageListsTheTablesOrder) {
    for (const char* id : {"alpha", "beta", "gamma"})
        EXPECT_EQ(Join(id), S_OK);
    std::string expected;
    {
        const CClientTable::CLock lock(access.Clients());
        access.Clients().ForEach(
            [&](const WString& id, ZemClient*) { expected += Utf8(id) + "\r\n"; });
    }
    EXPECT_EQ(expected.size(), 20u);
    EXPECT_EQ(Page("/media/clients"), expected);
    EXPECT_EQ(http.Last().Header(HttpHeaderContentType), "text/plain");
}

TEST_F(WebFiles, TheClientPageEndsAtTheLastWholeLineUnder5200Bytes) {
    // Lines of 102 bytes: 50 are 5100 bytes, the 51st would make 5202.
    for (int i = 0; i < 60; ++i) {
        std::string id = std::to_string(1000 + i) + std::string(96, 'x');
        EXPECT_EQ(Join(id), S_OK);
    }
    const std::string page = Page("/media/clients");
    EXPECT_EQ(page.size(), 5100u);
    EXPECT_EQ(page.substr(page.size() - 2), "\r\n");
}

TEST_F(WebFiles, A5199ByteClientPageFitsAndA5200ByteOneDoesNot) {
    for (int i = 0; i < 50; ++i)
        Join(std::to_string(1000 + i) + std::string(96, 'x'));
    char page[5200];
    page[0] = 0;
    Join(std::string(97, 'y'));  // 99 bytes: 5199 in all
    server.GetClientsInfo(TEXT("l"), page, sizeof(page));
    EXPECT_EQ(std::strlen(page), 5199u);
    page[0] = 0;
    server.GetClientsInfo(TEXT("l"), page, 5199);
    EXPECT_LT(std::strlen(page), 5199u);
}

TEST_F(WebFiles, ALongClientIdIsListedWholeAsUtf8) {
    std::string id;
    for (int i = 0; i < 259; ++i)
        id += "\xE2\x82\xAC";  // a euro sign each
    EXPECT_EQ(Join(id), S_OK);
    EXPECT_EQ(Page("/media/clients"), id + "\r\n");
}

// --- download ---

TEST_F(WebFiles, AFileIsSentFromItsHandle) {
    EXPECT_EQ(Download("/media/clip.mxf"), "clip data");
    const SentResponse sent = http.Last();
    EXPECT_EQ(sent.reason, "OK");
    EXPECT_EQ(sent.Header(HttpHeaderContentType), "application/octet-stream");
    EXPECT_FALSE(sent.Header(HttpHeaderServer)) << "no Server header on downloads";
    EXPECT_TRUE(sent.unknown.empty());
    EXPECT_TRUE(log.Empty());
}

TEST_F(WebFiles, TheHandleIsClosedAfterwards) {
    Get("/media/clip.mxf");
    EXPECT_FALSE(CloseHandle(http.Last().chunks[0].file));
}

TEST_F(WebFiles, TheTypeComesFromTheRegistry) {
    const CRegistryValue type(TEXT("HKEY_LOCAL_MACHINE\\Software\\Classes\\.mxf"),
                              TEXT("Content Type"), TEXT("application/mxf"));
    Download("/media/clip.mxf");
    EXPECT_EQ(http.Last().Header(HttpHeaderContentType), "application/mxf");
    Put("vol/media/a.b.txt", "x");
    Download("/media/a.b.txt");
    EXPECT_EQ(http.Last().Header(HttpHeaderContentType), "application/octet-stream");
}

TEST_F(WebFiles, ATypeOfAnotherKindOrLengthIsNoType) {
    const WString tooLong(260, TEXT('t'));
    const CRegistryValue longType(TEXT("HKEY_LOCAL_MACHINE\\Software\\Classes\\.mxf"),
                                  TEXT("Content Type"), tooLong.c_str());
    Download("/media/clip.mxf");
    EXPECT_EQ(http.Last().Header(HttpHeaderContentType), "application/octet-stream");
    const CRegistryValue number(TEXT("HKEY_LOCAL_MACHINE\\Software\\Classes\\.num"),
                                TEXT("Content Type"), DWORD{0x41414141});
    Put("vol/media/a.num", "x");
    Download("/media/a.num");
    EXPECT_EQ(http.Last().Header(HttpHeaderContentType), "application/octet-stream");
}

TEST_F(WebFiles, AFileWithoutAnExtensionIsAPlainDownload) {
    Put("vol/media/plain", "x");
    EXPECT_EQ(Download("/media/plain"), "x");
    EXPECT_EQ(http.Last().Header(HttpHeaderContentType), "application/octet-stream");
}

TEST_F(WebFiles, DownloadsAreTraced) {
    SetTracing(true);
    Get("/media/clip.mxf");
    EXPECT_TRUE(
        log.Has(kErrorLogLevelTrace, TEXT("box:80: Generic GET request for '/media/clip.mxf'")));
}

TEST_F(WebFiles, ALongPathIsTracedAsFarAsAMessageGoes) {
    SetTracing(true);
    const std::string path = "/media/" + std::string(600, 'n');
    Get(path);
    const std::string message = "box:80: Generic GET request for '" + path;
    EXPECT_TRUE(log.Has(kErrorLogLevelTrace, Wide(message.substr(0, 511))));
    const std::string shorter = "/media/" + std::string(300, 'n');
    Get(shorter);
    EXPECT_TRUE(
        log.Has(kErrorLogLevelTrace, Wide("box:80: Generic GET request for '" + shorter + "'")));
}

TEST_F(WebFiles, AMissingFileIsABadRequest) {
    EXPECT_EQ(Get("/media/none.mxf"), E_UNEXPECTED);
    ExpectBadRequest();
    const LogRecord error = NoAttributes(RootText() + "/media/none.mxf");
    EXPECT_EQ(error.hr, E_UNEXPECTED);
    EXPECT_EQ(error.line, 3236);
    EXPECT_EQ(error.file, TEXT("httpcmdhdlr.cpp"));
}

TEST_F(WebFiles, AFolderIsABadRequest) {
    EXPECT_EQ(Get("/media/sub"), E_UNEXPECTED);
    ExpectBadRequest();
    EXPECT_EQ(NoAttributes(RootText() + "/media/sub").line, 3236);
    EXPECT_EQ(Get("/"), E_UNEXPECTED);
}

TEST_F(WebFiles, AFileThatCannotBeOpenedIsABadRequest) {
    g_failOpen = [](LPCWSTR, DWORD flags) { return flags == FILE_ATTRIBUTE_NORMAL; };
    EXPECT_EQ(Get("/media/clip.mxf"), HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION));
    ExpectBadRequest();
    const LogRecord error =
        log.Error(TEXT("box:80: Error opening file '") + Wide(RootText() + "/media/clip.mxf'"));
    EXPECT_EQ(error.line, 3263);
    EXPECT_EQ(error.hr, HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION));
}

TEST_F(WebFiles, AFailedSendIsLoggedOnlyWithTracing) {
    http.sendError = ERROR_NETNAME_DELETED;
    EXPECT_EQ(Get("/media/clip.mxf"), S_OK);
    EXPECT_TRUE(log.Empty());
    SetTracing(true);
    EXPECT_EQ(Get("/media/clip.mxf"), HRESULT_FROM_WIN32(ERROR_NETNAME_DELETED));
    const LogRecord error =
        log.Error(TEXT("box:80: HTTP send response failed for '/media/clip.mxf'"));
    EXPECT_EQ(error.line, 3285);
    EXPECT_EQ(http.SentCount(), 2u) << "one answer each";
}

TEST_F(WebFiles, TheSendIsCounted) {
    CHttpXaction& xaction = Take();
    RequestSpec given;
    given.verb = HttpVerbGET;
    given.absPath = TEXT("/media/clip.mxf");
    Lay(xaction, given);
    EXPECT_EQ(server.ProcessRequest(xaction), S_OK);
    EXPECT_EQ(xaction.SendCount(), 1);
    EXPECT_TRUE(xaction.ReplySent());
    Pool().Release(&xaction);
}

// --- deletion ---

TEST_F(WebFiles, AFileIsDeleted) {
    SetTracing(true);
    EXPECT_EQ(Delete("/media/clip.mxf"), S_OK);
    EXPECT_FALSE(fs::exists(top / "vol/media/clip.mxf"));
    const SentResponse sent = http.Last();
    EXPECT_EQ(sent.status, 200);
    EXPECT_EQ(sent.reason, "OK");
    EXPECT_TRUE(sent.chunks.empty());
    EXPECT_TRUE(sent.known.empty()) << "no headers";
    EXPECT_TRUE(log.Has(kErrorLogLevelTrace, TEXT("box:80: Deleting file '") +
                                                 Wide(RootText() + "\\/media/clip.mxf'...")));
}

TEST_F(WebFiles, DeletingAMissingFileOrAFolderIsABadRequest) {
    EXPECT_EQ(Delete("/media/none"), E_UNEXPECTED);
    ExpectBadRequest();
    const LogRecord error = NoAttributes(RootText() + "\\/media/none");
    EXPECT_EQ(error.line, 3323);
    EXPECT_EQ(error.hr, E_UNEXPECTED);
    EXPECT_EQ(Delete("/media/sub"), E_UNEXPECTED);
    EXPECT_TRUE(fs::exists(top / "vol/media/sub"));
}

TEST_F(WebFiles, AFileThatCannotBeDeletedIsABadRequest) {
    g_failDelete = true;
    EXPECT_EQ(Delete("/media/clip.mxf"), HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION));
    ExpectBadRequest();
    EXPECT_EQ(
        log.Error(TEXT("box:80: Error deleting file '") + Wide(RootText() + "\\/media/clip.mxf'"))
            .line,
        3329);
}

TEST_F(WebFiles, AFailedSendOfADeletionIsAlwaysLogged) {
    http.sendError = ERROR_NETNAME_DELETED;
    EXPECT_EQ(Delete("/media/clip.mxf"), HRESULT_FROM_WIN32(ERROR_NETNAME_DELETED));
    EXPECT_EQ(log.Error(TEXT("box:80: HTTP send response failed for '") +
                        Wide(RootText() + "\\/media/clip.mxf'"))
                  .line,
              3338);
    EXPECT_EQ(http.SentCount(), 1u);
}

// --- nothing leaves the root ---

class Escape : public WebFiles, public ::testing::WithParamInterface<HTTP_VERB> {};
INSTANTIATE_TEST_SUITE_P(Verbs, Escape, ::testing::Values(HttpVerbGET, HttpVerbDELETE),
                         [](const auto& param) {
                             return param.param == HttpVerbGET ? "Get" : "Delete";
                         });

TEST_P(Escape, WithoutAVolumeRootThereAreNoFiles) {
    for (const WCHAR* root : {TEXT(""), TEXT("\\"), TEXT("/\\"), TEXT("/.\\")}) {
        wcscpy_s(access.VolumeRoot(), kNameUnits, root);
        const size_t before = http.SentCount();
        EXPECT_EQ(Request(GetParam(), (top / "secret.txt").string()), E_UNEXPECTED);
        ASSERT_EQ(http.SentCount(), before + 1);
        EXPECT_EQ(http.Last().status, 400);
    }
    EXPECT_TRUE(fs::exists(top / "secret.txt"));
}

TEST_P(Escape, TheMachinesOwnRootIsNoVolume) {
    fs::create_directory_symlink("/", top / "all");
    SetRoot((top / "all").string());
    EXPECT_EQ(Request(GetParam(), (top / "secret.txt").string()), E_UNEXPECTED);
    ExpectBadRequest();
}

TEST_P(Escape, DotsLeadNowhere) {
    EXPECT_EQ(Request(GetParam(), "/media/../../secret.txt"), E_UNEXPECTED);
    ExpectBadRequest();
    EXPECT_TRUE(fs::exists(top / "secret.txt"));
}

TEST_P(Escape, ALinkToAFileOutsideLeadsNowhere) {
    fs::create_symlink(top / "secret.txt", top / "vol/media/link.txt");
    EXPECT_EQ(Request(GetParam(), "/media/link.txt"), E_UNEXPECTED);
    ExpectBadRequest();
    EXPECT_TRUE(fs::exists(top / "secret.txt"));
}

TEST_P(Escape, ALinkToAFolderOutsideLeadsNowhere) {
    fs::create_directory_symlink(top, top / "vol/media/out");
    EXPECT_EQ(Request(GetParam(), "/media/out/secret.txt"), E_UNEXPECTED);
    ExpectBadRequest();
    EXPECT_TRUE(fs::exists(top / "secret.txt"));
}

TEST_P(Escape, AFolderWhoseNameBeginsLikeTheRootIsOutside) {
    fs::create_directories(top / "vol2");
    Put("vol2/x", "x");
    fs::create_directory_symlink(top / "vol2", top / "vol/media/out");
    EXPECT_EQ(Request(GetParam(), "/media/out/x"), E_UNEXPECTED);
    ExpectBadRequest();
}

TEST_P(Escape, AFolderLinkThatStaysInsideIsFollowed) {
    fs::create_directory_symlink(top / "vol/media", top / "vol/media/sub/again");
    EXPECT_EQ(Request(GetParam(), "/media/sub/again/clip.mxf"), S_OK);
    EXPECT_EQ(http.Last().status, 200);
}

TEST_P(Escape, ARootThatIsItselfALinkServesItsFiles) {
    fs::create_directory_symlink(top / "vol", top / "alias");
    SetRoot((top / "alias").string());
    EXPECT_EQ(Request(GetParam(), "/media/clip.mxf"), S_OK);
}

TEST_P(Escape, APipeIsNoFileAndDoesNotBlock) {
    const std::string pipe = (top / "vol/media/pipe").string();
    ASSERT_EQ(std::system(("mkfifo '" + pipe + "'").c_str()), 0);
    EXPECT_EQ(Request(GetParam(), "/media/pipe"), E_UNEXPECTED);
    ExpectBadRequest();
    EXPECT_TRUE(fs::exists(pipe));
}

TEST_P(Escape, APathOver259CharactersIsABadRequest) {
    const std::string name(260 - RootText().size() - 7 - (GetParam() == HttpVerbDELETE ? 2 : 1),
                           'n');
    Put("vol/media/" + name, "x");
    EXPECT_EQ(Request(GetParam(), "/media/" + name), S_OK) << "259 characters";
    Put("vol/media/" + name + "n", "x");
    EXPECT_EQ(Request(GetParam(), "/media/" + name + "n"), E_UNEXPECTED);
    EXPECT_EQ(http.Last().status, 400);
    EXPECT_TRUE(fs::exists(top / ("vol/media/" + name + "n")));
    EXPECT_EQ(Request(GetParam(), "/media/" + std::string(600, 'n')), E_UNEXPECTED);
    EXPECT_EQ(http.Last().status, 400);
}

TEST_P(Escape, PercentSignsInAPathAreText) {
    EXPECT_EQ(Request(GetParam(), "/media/%s%n%9999x"), E_UNEXPECTED);
    ExpectBadRequest();
    const std::string separator = GetParam() == HttpVerbDELETE ? "\\" : "";
    EXPECT_EQ(NoAttributes(RootText() + separator + "/media/%s%n%9999x").kind, LogRecord::Ex);
}

TEST_F(WebFiles, AFileSwappedForALinkWhileItIsOpenedIsNotSent) {
    g_failOpen = [&](LPCWSTR, DWORD flags) {
        if (flags == FILE_ATTRIBUTE_NORMAL) {
            fs::remove(top / "vol/media/clip.mxf");
            fs::create_symlink(top / "secret.txt", top / "vol/media/clip.mxf");
        }
        return false;
    };
    EXPECT_EQ(Get("/media/clip.mxf"), E_UNEXPECTED);
    ExpectBadRequest();
    EXPECT_EQ(NoAttributes(RootText() + "/media/clip.mxf").line, 3236);
}

// Folder and link change places behind the last look at the name: what lies outside stays, and so
// does the file that was asked for.
TEST_F(WebFiles, AFolderSwappedForALinkWhileItsFileIsOpenedIsNotDeletedFrom) {
    Put("clip.mxf", "outside");
    g_failOpen = [&](LPCWSTR, DWORD flags) {
        if (flags == FILE_FLAG_OPEN_REPARSE_POINT) {
            fs::rename(top / "vol/media", top / "vol/moved");
            fs::create_directory_symlink(top, top / "vol/media");
        }
        return false;
    };
    EXPECT_EQ(Delete("/media/clip.mxf"), E_UNEXPECTED);
    ExpectBadRequest();
    EXPECT_EQ(NoAttributes(RootText() + "\\/media/clip.mxf").line, 3323);
    EXPECT_TRUE(fs::exists(top / "clip.mxf"));
    EXPECT_TRUE(fs::exists(top / "vol/moved/clip.mxf"));
}

TEST_F(WebFiles, AFolderSwappedForALinkBeforeItsFileIsDeletedIsDeletedFromAllTheSame) {
    Put("clip.mxf", "outside");
    g_beforeDelete = [&] {
        fs::rename(top / "vol/media", top / "vol/moved");
        fs::create_directory_symlink(top, top / "vol/media");
    };
    EXPECT_EQ(Delete("/media/clip.mxf"), S_OK);
    EXPECT_TRUE(fs::exists(top / "clip.mxf"));
    EXPECT_FALSE(fs::exists(top / "vol/moved/clip.mxf"));
}

TEST_F(WebFiles, OtherMethodsAreNotAllowed) {
    for (const HTTP_VERB verb : {HttpVerbPUT, HttpVerbHEAD, HttpVerbOPTIONS, HttpVerbUnknown}) {
        EXPECT_EQ(Request(verb, "/media/clip.mxf"), S_OK);
        EXPECT_EQ(http.Last().status, 405);
        EXPECT_EQ(http.Last().reason, "HTTP method not allowed");
        EXPECT_TRUE(http.Last().chunks.empty());
    }
}

TEST_F(WebFiles, ABlockWithoutARequestIsABadRequest) {
    for (const auto send : {&CHttpCommandHandler::SendHttpGetResponse,
                            &CHttpCommandHandler::SendHttpDeleteResponse}) {
        const auto xaction = std::make_unique<CHttpXaction>();  // of no pool
        const size_t before = http.SentCount();
        CHttpCommandHandler* const target = &server;
        const HRESULT hr = (target->*send)(*xaction, 200, "OK");
        EXPECT_EQ(hr, E_UNEXPECTED);
        ASSERT_EQ(http.SentCount(), before + 1);
        EXPECT_EQ(http.Last().status, 400);
        EXPECT_EQ(http.Last().requestId, HTTP_NULL_ID);
        EXPECT_TRUE(xaction->ReplySent());
    }
}

TEST_F(WebFiles, AColonIsALetterWhereFilesMayHaveIt) {
    Put("vol/media/10:00:00.mxf", "x");
    Put("vol/media/nul", "y");
    EXPECT_EQ(Download("/media/10:00:00.mxf"), "x");
    EXPECT_EQ(Download("/media/nul"), "y");
}

}  // namespace
