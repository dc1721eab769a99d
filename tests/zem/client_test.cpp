// The client library against a server that answers whatever the test wants.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <set>

#include "apps/zem/client/zemclient.h"
#include "apps/zem/client/zemerror.h"
#include "tests/fakes/allocfault.h"
#include "tests/zem/fakemedia.h"
#include "tests/zem/scriptserver.h"

namespace {

using zem::CZemClient;
using zem::CZemError;
using zem::ErrorKind;

zem::ConnectionOptions Options(const std::string& url, const std::string& id = "desk 1") {
    zem::ConnectionOptions options;
    options.server = url;
    options.clientId = id;
    options.userAgent = "zem (zem/9.9)";
    return options;
}

template <typename Call>
ErrorKind KindOf(Call call, int32_t* hr = nullptr) {
    try {
        call();
    } catch (const CZemError& error) {
        if (hr != nullptr) *hr = error.Hr();
        return error.Kind();
    }
    ADD_FAILURE() << "nothing was thrown";
    return ErrorKind::kInterrupted;
}

// What a join against a server that always sends `bytes` throws.
ErrorKind JoinAgainst(const std::string& bytes, bool close = true) {
    CScriptServer server([&](const ScriptRequest&) { return ScriptAnswer{bytes, close}; });
    CZemClient client(Options(server.Url()));
    return KindOf([&] { client.Join(0); });
}

std::u16string Wide(const std::string& text) {
    return {text.begin(), text.end()};
}

TEST(ZemClientHttp, RequestHasTheDocumentedForm) {
    CFakeMedia media;
    CScriptServer server(std::ref(media));
    CZemClient client(Options(server.Url()));
    client.Join(3);
    const ScriptRequest request = server.Requests().at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/zem/");
    EXPECT_EQ(request.Header("User-Agent"), "zem (zem/9.9)");
    EXPECT_EQ(request.Header("Content-Length"), "16");
    EXPECT_EQ(request.Header("Expect"), "");
    EXPECT_EQ(request.body, Le32(1) + Le32(15) + Le32(4) + Le32(3));
    // The first header that HTTP itself does not know has to be the client's ID.
    const std::set<std::string> known = {"Host", "User-Agent", "Accept", "Content-Type",
                                         "Content-Length"};
    std::vector<std::string> unknown;
    for (const std::string& line : request.headerLines) {
        if (known.count(line.substr(0, line.find(':'))) == 0) unknown.push_back(line);
    }
    EXPECT_EQ(unknown, std::vector<std::string>{"Zem-Id: desk 1"});
}

TEST(ZemClientHttp, OneConnectionServesAllCommandsWithIdsInSequence) {
    CFakeMedia media;
    CScriptServer server(std::ref(media));
    CZemClient client(Options(server.Url()));
    client.Join(0);
    for (int i = 0; i < 20; ++i)
        client.KeepAlive();
    client.Http().Get("/media/status");
    client.Leave();
    EXPECT_EQ(server.Connections(), 1);
    const std::vector<ScriptRequest> requests = server.Requests();
    ASSERT_EQ(requests.size(), 23u);
    EXPECT_EQ(requests[20].body.substr(0, 4), Le32(21));
    EXPECT_EQ(requests[22].body.substr(0, 4), Le32(22));
}

TEST(ZemClientHttp, ProxiesOfTheEnvironmentAreNotUsed) {
    setenv("http_proxy", "http://127.0.0.1:1", 1);
    CFakeMedia media;
    CScriptServer server(std::ref(media));
    CZemClient client(Options(server.Url()));
    EXPECT_NO_THROW(client.Join(0));
    unsetenv("http_proxy");
}

TEST(ZemClientHttp, AddressAndIdAreChecked) {
    for (const char* url : {"", "http://", "https://h", "ftp://h", "h:80", "http://h/x",
                            "http://u@h", "http://h\r\nX: y", "http://h?x"}) {
        EXPECT_EQ(KindOf([&] { CZemClient client(Options(url)); }), ErrorKind::kUsage) << url;
    }
    for (const std::string& id : {std::string(), std::string("a\r\nX: y"), std::string(" a"),
                                  std::string("a\0b", 3), std::string(260, 'x')}) {
        EXPECT_EQ(KindOf([&] { CZemClient client(Options("http://h", id)); }), ErrorKind::kUsage);
    }
    EXPECT_NO_THROW(CZemClient(Options("http://h:1/", std::string(259, 'x'))));
}

TEST(ZemClientUnreachable, ConnectionRefused) {
    const CClosedPort nowhere;
    CZemClient client(Options(nowhere.Url()));
    EXPECT_EQ(KindOf([&] { client.Join(0); }), ErrorKind::kUnreachable);
}
TEST(ZemClientUnreachable, ServerClosesWithoutAnAnswer) {
    EXPECT_EQ(JoinAgainst(""), ErrorKind::kUnreachable);
}
TEST(ZemClientUnreachable, ConnectionsComeBackAfterAClose) {
    CFakeMedia media;
    CScriptServer server([&](const ScriptRequest& request) {
        ScriptAnswer answer = media(request);
        answer.close = true;
        return answer;
    });
    CZemClient client(Options(server.Url()));
    client.Join(0);
    client.KeepAlive();
    client.KeepAlive();
    EXPECT_EQ(server.Connections(), 3);
}

TEST(ZemClientBadReply, NoHttpAtAll) {
    EXPECT_EQ(JoinAgainst("220 mail.example ESMTP\r\n"), ErrorKind::kBadReply);
}
TEST(ZemClientBadReply, AnotherKindOfServer) {
    EXPECT_EQ(JoinAgainst(PageReplyBytes(200, "OK", "<html>hello</html>")), ErrorKind::kBadReply);
    EXPECT_EQ(JoinAgainst(PageReplyBytes(404, "Not Found", "nothing here")), ErrorKind::kBadReply);
    EXPECT_EQ(JoinAgainst(PageReplyBytes(405, "HTTP method not allowed", "")),
              ErrorKind::kBadReply);
}
TEST(ZemClientBadReply, CutOffAtEveryByte) {
    const std::string whole = CommandReply(200, "OK", 1, 12, Le32(0));
    for (size_t length = 1; length < whole.size(); ++length) {
        const ErrorKind kind = JoinAgainst(whole.substr(0, length));
        EXPECT_TRUE(kind == ErrorKind::kBadReply || kind == ErrorKind::kUnreachable) << length;
    }
}
TEST(ZemClientBadReply, WrongCodeIdAndSizes) {
    EXPECT_EQ(JoinAgainst(CommandReply(200, "OK", 1, 13, Le32(0))), ErrorKind::kBadReply);
    EXPECT_EQ(JoinAgainst(CommandReply(200, "OK", 2, 12, Le32(0))), ErrorKind::kBadReply);
    EXPECT_EQ(JoinAgainst(CommandReply(200, "OK", 1, 12, "")), ErrorKind::kBadReply);
    EXPECT_EQ(JoinAgainst(CommandReply(200, "OK", 1, 12, Le64(0))), ErrorKind::kBadReply);
    EXPECT_EQ(JoinAgainst(CommandReply(200, "OK", 1, 12, Le32(0), "x")), ErrorKind::kBadReply);
}

TEST(ZemClientBadReply, HugeLengthsAreRefusedWithoutMemory) {
    ResetLargestAllocation();
    const std::string head = "HTTP/1.1 200 OK\r\nzem-resphdr-len: 16\r\nzem-ver: 1\r\n";
    for (const char* length : {"100000", "4294967295", "99999999999", "9223372036854775807"}) {
        // The connection stays open: a client that waited for those bytes would hang here.
        EXPECT_EQ(
            JoinAgainst(head + "Content-Length: " + length + "\r\n\r\n" + Le64(0) + Le64(0), false),
            ErrorKind::kBadReply)
            << length;
    }
    // Without a length: more bytes than any answer has.
    EXPECT_EQ(JoinAgainst(head + "\r\n" + std::string(1 << 20, 'x')), ErrorKind::kBadReply);
    EXPECT_LT(LargestAllocation_bytes(), 4u << 20);
}
TEST(ZemClientBadReply, ADeclaredFrameIsNotAllocatedBeforeItArrives) {
    ResetLargestAllocation();
    CScriptServer server([&](const ScriptRequest&) {
        return ScriptAnswer{
            "HTTP/1.1 200 OK\r\nzem-resphdr-len: 116\r\nzem-ver: 1\r\n"
            "Content-Length: 250000000\r\n\r\nshort",
            true};
    });
    CZemClient client(Options(server.Url()));
    const zem::ReadEntry entry{5, 0, 0, 0};
    EXPECT_EQ(KindOf([&] { client.ReadFrames({&entry, 1}); }), ErrorKind::kBadReply);
    EXPECT_LT(LargestAllocation_bytes(), 4u << 20);
}

TEST(ZemClientRefused, GenericFailureAndStatusOnly) {
    int32_t hr = 0;
    CScriptServer server([](const ScriptRequest& request) {
        const uint32_t id = static_cast<uint8_t>(request.body[0]);
        if (id == 1) {
            return ScriptAnswer{
                CommandReply(500, "Failed ZEM request code 15", 1, 15, Le32(0x80004001)), false};
        }
        return ScriptAnswer{PageReplyBytes(500, "Error 0x8000ffff", ""), false};
    });
    CZemClient client(Options(server.Url()));
    EXPECT_EQ(KindOf([&] { client.Join(0); }, &hr), ErrorKind::kRefused);
    EXPECT_EQ(hr, zem::kHrNotImplemented);
    EXPECT_EQ(KindOf([&] { client.Leave(); }, &hr), ErrorKind::kRefused);
    EXPECT_EQ(hr, zem::kHrUnexpected);
}

TEST(ZemClientRefused, TokenZeroIsAnError) {
    CFakeMedia media;
    CScriptServer server(std::ref(media));
    CZemClient client(Options(server.Url()));
    EXPECT_EQ(KindOf([&] { client.Open({u"media/none", u"", 0, 1}); }), ErrorKind::kRefused);
    media.noCreate.insert("media/no");
    EXPECT_EQ(KindOf([&] { client.Create(u"media/no", u"", ZemEsDesc{}, 2); }),
              ErrorKind::kRefused);
}

ZemEsDesc VideoDesc() {
    ZemEsDesc desc{};
    desc.sizeVersion = kEsDescVersion1;
    desc.mediaType = kMediaFileVideo;
    desc.rateNumerator = 25;
    desc.rateDenominator = 1;
    return desc;
}

TEST(ZemClientFrames, WrittenFramesComeBack) {
    CFakeMedia media;
    CScriptServer server(std::ref(media));
    CZemClient client(Options(server.Url()));
    client.Join(0);
    const uint64_t token = client.Create(u"media/v", u"", VideoDesc(), kFileWrite);
    for (uint32_t position = 0; position < 3; ++position) {
        const std::vector<uint8_t> data(1 << (position * 10), static_cast<uint8_t>(position + 65));
        zem::WriteEntry entry;
        entry.token = token;
        entry.position = position;
        entry.bufferLengths_bytes = {static_cast<uint32_t>(data.size())};
        client.WriteFrames({&entry, 1}, data);
    }
    // Content-Length covers header, body and frame; the size field only the body.
    const ScriptRequest write = server.Requests().back();
    EXPECT_EQ(write.body.size(), 12u + 16 + 96 + (1 << 20));
    EXPECT_EQ(write.body.substr(8, 4), Le32(112));
    for (uint32_t position = 0; position < 3; ++position) {
        const zem::ReadEntry entry{token, position, 0, 0};
        const auto frames = client.ReadFrames({&entry, 1});
        ASSERT_EQ(frames.size(), 1u);
        EXPECT_EQ(frames[0].status, 0);
        ASSERT_EQ(frames[0].data.size(), size_t{1} << (position * 10));
        EXPECT_EQ(frames[0].data.back(), position + 65);
    }
    const zem::ReadEntry past{token, 3, 0, 0};
    EXPECT_EQ(client.ReadFrames({&past, 1})[0].status, zem::kHrEndOfMedia);
}

TEST(ZemClientFrames, LengthsThatDoNotAddUpAreNotSent) {
    CFakeMedia media;
    CScriptServer server(std::ref(media));
    CZemClient client(Options(server.Url()));
    zem::WriteEntry entry;
    entry.bufferLengths_bytes = {5, 6};
    const std::vector<uint8_t> data(10);
    EXPECT_EQ(KindOf([&] { client.WriteFrames({&entry, 1}, data); }), ErrorKind::kUsage);
    EXPECT_TRUE(server.Requests().empty());
}

TEST(ZemClientCommands, AllOthersReachTheServerAndDecode) {
    CFakeMedia media;
    media.files["media/v"] = {Le32(kEsDescVersion1) + Le32(1) + std::string(48, '\0'), {}, false};
    for (uint32_t i = 0; i < 150; ++i)
        media.files["media/v"].frames[i] = std::string(i + 1, 'f');
    CScriptServer server(std::ref(media));
    CZemClient client(Options(server.Url()));
    client.Join(0);
    client.SetIoRealTime();
    const zem::FileRef ref{u"media/v", u"", kMediaFileAny, kFileRead};
    const uint64_t token = client.Open(ref);
    EXPECT_EQ(client.FileInfo(token).frameCount, 150u);
    EXPECT_EQ(client.FileInfo(ref).frameCount, 150u);
    for (const auto& descs : {client.FrameDescs(token, 0, 152), client.FrameDescs(ref, 0, 152)}) {
        ASSERT_EQ(descs.size(), 152u);
        EXPECT_EQ(descs[149].dataSize, 150u);
        EXPECT_EQ(descs[151].flags, 0u);
    }
    EXPECT_EQ(client.Marks(token).second, 7u);
    EXPECT_EQ(client.Marks(ref).first, 3u);
    client.Flush(token);
    client.EraseSegment(token, 0, 10, kMediaFileVideo);
    EXPECT_EQ(media.files["media/v"].frames.size(), 140u);
    client.StripeTimecode(ref, {0x01, 0x02, 0x03, 0x04}, 0);
    EXPECT_EQ(client.FileInfo(ref).startTimecode.hours, 4);
    client.Close(token);
    EXPECT_EQ(client.Space(u"").total_bytes, 4000u);
    EXPECT_EQ(client.Attributes(u"media/v"), 0x80u);
    EXPECT_EQ(client.Attributes(u"media/none"), zem::kNoAttributes);
    EXPECT_EQ(client.Size_bytes(u"media/none"), 0u);
    client.MakeDirectory(u"media/d");
    client.Move(u"media/v", u"media/d/v");
    EXPECT_EQ(media.files.count("media/d/v"), 1u);
    client.Remove(u"media/d/v");
    EXPECT_EQ(media.files.count("media/d/v"), 0u);
    client.UpdateConfig(u"<channel/>");
    client.SetConfigAttribute(u"readAhead", u"4");
    client.KeepAlive();
    client.Leave();
    // With the frame commands of the other tests this makes all 26.
    const std::set<std::string> seen(media.log.begin(), media.log.end());
    EXPECT_EQ(seen.size(), 23u);
}

TEST(ZemClientCommands, InfoOfAMissingFileIsNotGarbage) {
    CFakeMedia media;
    CScriptServer server(std::ref(media));
    CZemClient client(Options(server.Url()));
    EXPECT_EQ(KindOf([&] { client.FileInfo(uint64_t{77}); }), ErrorKind::kRefused);
    EXPECT_EQ(KindOf([&] {
                  client.FileInfo({Wide("media/none"), u"", 0, 1});
              }),
              ErrorKind::kRefused);
}

TEST(ZemClientPages, DownloadGoesToTheSinkAndErrorsDoNot) {
    CFakeMedia media;
    media.files["media/a b%.mov"].frames[0] = std::string(300000, 'm');
    CScriptServer server([&](const ScriptRequest& request) {
        ScriptRequest decoded = request;
        if (request.target == "/media/a%20b%25.mov") decoded.target = "/media/a b%.mov";
        return media(decoded);
    });
    zem::CHttpConnection http(Options(server.Url()));
    std::string got;
    int64_t total = 0;
    const auto sink = [&](std::span<const uint8_t> piece, int64_t all) {
        got.append(piece.begin(), piece.end());
        total = all;
        return true;
    };
    EXPECT_EQ(http.Download(zem::UrlPathOf("media/a b%.mov"), sink).status, 200);
    EXPECT_EQ(got, std::string(300000, 'm'));
    EXPECT_EQ(total, 300000);
    got.clear();
    EXPECT_EQ(http.Download("/media/none", sink).status, 400);
    EXPECT_EQ(got, "");
    EXPECT_EQ(KindOf([&] {
                  http.Download(zem::UrlPathOf("media/a b%.mov"),
                                [](std::span<const uint8_t>, int64_t) { return false; });
              }),
              ErrorKind::kInterrupted);
    EXPECT_EQ(http.Delete(zem::UrlPathOf("media/a b%.mov")).status, 200);
    EXPECT_EQ(http.Get("/media/clients").text, "No Clients\r\n");
}

TEST(ZemClientPages, AnEndlessPageIsBrokenOff) {
    CScriptServer server([](const ScriptRequest&) {
        return ScriptAnswer{"HTTP/1.1 200 OK\r\n\r\n" + std::string(4 << 20, 'x'), true};
    });
    zem::CHttpConnection http(Options(server.Url()));
    EXPECT_EQ(KindOf([&] { http.Get("/media/status"); }), ErrorKind::kBadReply);
}

// A stop that comes when `code` has arrived at the server, before that is answered.
class ZemClientStop : public testing::Test {
protected:
    void StopAt(uint32_t code) { m_code = code; }

    CFakeMedia m_media;
    uint32_t m_code = 0;
    std::atomic<bool> m_stop{false};
    CScriptServer m_server{[this](const ScriptRequest& request) {
        if (request.body.substr(4, 4) == Le32(m_code)) m_stop = true;
        return m_media(request);
    }};
    CZemClient m_client{Options(m_server.Url())};

    void SetUp() override {
        m_client.Http().SetStopCheck([this] { return m_stop.load(); });
    }
};

TEST_F(ZemClientStop, BreaksARequestOff) {
    StopAt(15);
    EXPECT_EQ(KindOf([&] { m_client.Join(0); }), ErrorKind::kInterrupted);
}

TEST_F(ZemClientStop, SendsNothingMore) {
    m_stop = true;
    EXPECT_EQ(KindOf([&] { m_client.Join(0); }), ErrorKind::kInterrupted);
    EXPECT_EQ(KindOf([&] { m_client.Create(u"media/v", u"", VideoDesc(), kFileWrite); }),
              ErrorKind::kInterrupted);
    EXPECT_TRUE(m_server.Requests().empty());
}

// Else a file would stay that nobody knows of, open for writing as long as its client lives.
TEST_F(ZemClientStop, WaitsForTheAnswerToACreation) {
    m_client.Join(0);
    StopAt(1);
    EXPECT_NE(m_client.Create(u"media/v", u"", VideoDesc(), kFileWrite), 0u);
    EXPECT_EQ(KindOf([&] { m_client.KeepAlive(); }), ErrorKind::kInterrupted);
}

}  // namespace
