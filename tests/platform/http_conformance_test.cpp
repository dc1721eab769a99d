// Runs the conformance tables. Every row is sent in four ways, which must make no difference:
// alone, byte by byte, with the next request right behind it, and by a client that closes its side.
#include "http_conformance.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace httptest {
namespace {

constexpr const char* kVerbs[] = {"OPTIONS",   "GET",     "HEAD",  "POST",   "PUT",   "DELETE",
                                  "TRACE",     "CONNECT", "TRACK", "MOVE",   "COPY",  "PROPFIND",
                                  "PROPPATCH", "MKCOL",   "LOCK",  "UNLOCK", "SEARCH"};

std::string Seen(CBlock& block) {
    const HTTP_REQUEST& request = *block.Request();
    const auto known = static_cast<size_t>(request.Verb - HttpVerbOPTIONS);
    std::string text = request.Verb == HttpVerbUnknown
                           ? std::string(request.pUnknownVerb, request.UnknownVerbLength)
                           : kVerbs[known];
    const HTTP_COOKED_URL& url = request.CookedUrl;
    text += " " + Narrow(url.pAbsPath, url.AbsPathLength);
    if (url.pQueryString) text += Narrow(url.pQueryString, url.QueryStringLength);
    return text;
}

// Byte by byte a body may be in any state when a stalled client's is delivered; not in these tests.
constexpr uint32_t kNeverShort_ms = kPatience_ms;
constexpr size_t kMostSends = 1000;

void ExpectAnswers(CClient& client, const CWireCase& test) {
    constexpr std::string_view kBetween = " | ";
    for (size_t from = 0; from < test.answers.size();) {
        const size_t end = std::min(test.answers.find(kBetween, from), test.answers.size());
        const std::string expected = test.answers.substr(from, end - from);
        from = end + kBetween.size();
        CReply reply;
        ASSERT_EQ(NextAnswer(client, expected, &reply), expected);
        const bool closing = end == test.answers.size() && test.then == EThen::Closed;
        EXPECT_EQ(reply.Field("Connection"), closing ? "close" : "(none)");
    }
}

void ExpectFate(CClient& client, EThen then, bool next_is_sent) {
    if (testing::Test::HasFatalFailure()) return;
    if (then == EThen::Closed) {
        EXPECT_EQ(NextAnswer(client, ""), "end");
        return;
    }
    if (!next_is_sent) client.Send(Get("/zem/next"));
    EXPECT_EQ(NextAnswer(client, ""), "200 GET /zem/next");
    client.Reset();  // many rows, run often, would use up the ports that a close leaves waiting
}

}  // namespace

void PrintTo(const CWireCase& test, std::ostream* out) {
    *out << "RFC " << test.section << ": " << test.name;
}

std::string NameOf(const testing::TestParamInfo<CWireCase>& info) {
    std::string name;
    for (const char c : std::string(info.param.section) + " " + info.param.name) {
        if (std::isalnum(static_cast<unsigned char>(c)))
            name.push_back(c);
        else if (!name.empty() && name.back() != '_')
            name.push_back('_');
    }
    return name;
}

void AnswerAsSeen(CServer& server, CBlock& block) {
    std::string text = Seen(block);
    const std::string path = text.substr(text.find(' ') + 1);
    if (path == "/zem/unread") {
        server.Reply(block.Id(), text);
        return;
    }
    std::string body = block.Body();
    ULONG error;
    do
        error = server.ReadBody(block.Id(), body);
    while (error == NO_ERROR);
    if (error != ERROR_HANDLE_EOF) {
        server.Reply(block.Id(), "broken body", 500);
        return;
    }
    if (body.size() > 64) body = "(" + std::to_string(body.size()) + ")";
    if (!body.empty()) text += " " + body;
    constexpr std::string_view kStatus = "/zem/status/";
    const bool chosen = path.compare(0, kStatus.size(), kStatus) == 0;
    const int status = chosen ? std::stoi(path.substr(kStatus.size())) : 200;
    const ULONG flags = path == "/zem/close" ? HTTP_SEND_RESPONSE_FLAG_DISCONNECT : 0u;
    server.Reply(block.Id(), text, static_cast<USHORT>(status), flags);
}

std::string NextAnswer(CClient& client, const std::string& expected, CReply* whole) {
    const bool head = expected.size() > 2 && expected.substr(expected.size() - 2) == " -";
    CReply reply = client.Read(head);
    if (reply.status == 0) return client.AtEnd() ? "end" : "reset";
    std::string text = std::to_string(reply.status);
    const bool own = reply.Field("Content-Type") == "text/html; charset=us-ascii";
    if (reply.status >= 200) {
        EXPECT_NE(reply.Field("Date"), "(none)");
        const bool none = reply.status == 204 || reply.status == 304;
        EXPECT_EQ(reply.Field("Content-Length") == "(none)", none);
    }
    if (head) {
        text += " -";
    } else if (own) {
        EXPECT_NE(reply.body.find(text), std::string::npos);
    } else if (!reply.body.empty()) {
        text += " " + reply.body;
    }
    if (whole) *whole = std::move(reply);
    return text;
}

TEST_P(Conformance, IsAnsweredSo) {
    const CWireCase& test = GetParam();
    const CTuned patient(HttpTune()->short_body_ms, kNeverShort_ms);
    CServer server;
    server.StartWorkers(1, AnswerAsSeen);
    {
        SCOPED_TRACE("alone");
        CClient client(server.TcpPort());
        client.Send(test.bytes);
        ExpectAnswers(client, test);
        ExpectFate(client, test.then, false);
    }
    if (test.bytes.size() <= kMostSends) {
        SCOPED_TRACE("byte by byte");
        CClient client(server.TcpPort());
        for (const char byte : test.bytes)
            client.Send(std::string(1, byte));
        ExpectAnswers(client, test);
        ExpectFate(client, test.then, false);
    }
    {
        SCOPED_TRACE("with the next request behind it");
        CClient client(server.TcpPort());
        client.Send(test.bytes + Get("/zem/next"));
        ExpectAnswers(client, test);
        ExpectFate(client, test.then, true);
    }
    {
        SCOPED_TRACE("half-closed");
        CClient client(server.TcpPort());
        client.Send(test.bytes);
        client.EndSending();
        ExpectAnswers(client, test);
        EXPECT_EQ(NextAnswer(client, ""), "end");
    }
}

TEST(ConformanceHead, TellsTheLengthThatGetHas) {
    CServer server;
    server.StartWorkers(1, [](CServer& s, CBlock& block) { s.Reply(block.Id(), "twelve bytes"); });
    CClient client(server.TcpPort());
    client.Send(Line("HEAD /zem/ HTTP/1.1"));
    EXPECT_EQ(client.Read(true).Field("Content-Length"), "12");
    client.Send(Get("/zem/"));
    EXPECT_EQ(client.Read().body, "twelve bytes");
}

}  // namespace httptest
