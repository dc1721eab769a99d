// The conformance tables of the connection: persistence, pipelines, reuse after errors, requests
// that are cut, and "Expect: 100-continue".
#include "http_conformance.h"

#include <atomic>

namespace httptest {
namespace {

using enum EThen;

std::string PostTo(const std::string& path, const std::string& body,
                   const std::string& fields = {}) {
    return "POST " + path + " HTTP/1.1\r\nHost: h\r\n" + fields +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

const std::string kZ = Get("/zem/z");
const std::string kSeenZ = "200 GET /zem/z";
const std::string kLong(100000, 'x');

const CWireCase kConnections[] = {
    {"9112 9.3", "persistent by itself", Fields(""), kSeen, Open},
    {"9112 9.3", "close", Fields("Connection: close\r\n"), kSeen, Closed},
    {"9112 9.3", "close in capitals", Fields("CONNECTION: CLOSE\r\n"), kSeen, Closed},
    {"9112 9.3", "close in a list", Fields("Connection: keep-alive , close\r\n"), kSeen, Closed},
    {"9112 9.3", "close behind an empty item", Fields("Connection: ,,close\r\n"), kSeen, Closed},
    {"9112 9.3", "close in a second field", Fields("Connection: x\r\nConnection: close\r\n"), kSeen,
     Closed},
    {"9112 9.3", "word that begins with close", Fields("Connection: closed\r\n"), kSeen, Open},
    {"9112 9.3", "empty list", Fields("Connection:\r\n"), kSeen, Open},
    {"9112 9.3", "keep-alive", Fields("Connection: keep-alive\r\n"), kSeen, Open},
    {"9112 9.3", "Keep-Alive has no say", Fields("Keep-Alive: timeout=0, max=0\r\n"), kSeen, Open},
    {"9112 C.2.2", "Proxy-Connection has no say", Fields("Proxy-Connection: close\r\n"), kSeen,
     Open},
    {"9112 9.3", "HTTP 1.0", "GET /zem/ HTTP/1.0\r\n\r\n", kSeen, Closed},
    {"9112 9.3*", "keep-alive of HTTP 1.0", "GET /zem/ HTTP/1.0\r\nConnection: keep-alive\r\n\r\n",
     kSeen, Closed},
    {"9112 9.3", "close of a POST", PostTo("/zem/", "abc", "Connection: close\r\n"),
     "200 POST /zem/ abc", Closed},
    {"9112 9.3", "close of a HEAD", "HEAD /zem/ HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n",
     "200 -", Closed},
    {"9112 9.3", "close of what is not found", Get("/nothing", "Connection: close\r\n"), "404",
     Closed},
    {"9112 9.6", "close by the application", Get("/zem/close"), "200 GET /zem/close", Closed},
    {"9112 9.6", "close by the application, long body", PostTo("/zem/close", kLong),
     "200 POST /zem/close (100000)", Closed},

    {"9112 9.3.2", "two requests", kZ + Fields(""), kSeenZ + " | " + kSeen, Open},
    {"9112 9.3.2", "forty requests", Repeat(kZ, 40), Repeat(kSeenZ + " | ", 39) + kSeenZ, Open},
    {"9112 9.3.2", "POST and GET", PostTo("/zem/", "abc") + kZ, "200 POST /zem/ abc | " + kSeenZ,
     Open},
    {"9112 9.3.2", "chunked POST and GET", Chunks("3\r\nabc\r\n0\r\nA: b\r\n\r\n") + kZ,
     "200 POST /zem/ abc | " + kSeenZ, Open},
    {"9112 9.3.2", "long POST and GET", PostTo("/zem/", kLong) + kZ,
     "200 POST /zem/ (100000) | " + kSeenZ, Open},
    {"9112 9.3.2", "HEAD and GET", Line("HEAD /zem/ HTTP/1.1") + kZ, "200 - | " + kSeenZ, Open},
    {"9112 2.2", "line end behind a POST", PostTo("/zem/", "abc") + "\r\n" + kZ,
     "200 POST /zem/ abc | " + kSeenZ, Open},
    {"9112 9.3.2", "not found in the middle", kZ + Get("/nothing") + kZ,
     kSeenZ + " | 404 | " + kSeenZ, Open},
    {"9112 9.3.2", "garbage behind a request", kZ + "garbage\r\n\r\n", kSeenZ + " | 400", Closed},
    {"9112 9.3.2", "more than the length behind a POST", PostTo("/zem/", "abc") + "def\r\n\r\n",
     "200 POST /zem/ abc | 400", Closed},
    {"9112 9.3.2", "length missing behind a request", kZ + Post(""), kSeenZ + " | 411", Closed},
    {"9112 9.3.2", "two lengths behind a request",
     kZ + Post("Content-Length: 1\r\nContent-Length: 2\r\n", "a"), kSeenZ + " | 400", Closed},
    {"9112 9.3.2", "bad chunk behind a request", kZ + Chunks("x\r\n"), kSeenZ + " | 400", Closed},
    {"9112 9.3.2", "long head behind a request",
     kZ + Fields("A: " + std::string(9000, 'x') + "\r\n"), kSeenZ + " | 431", Closed},

    {"9112 9.3", "not found", Get("/nothing"), "404", Open},
    {"9112 9.3", "not found, with a body", PostTo("/nothing", "abc"), "404", Open},
    {"9112 9.3", "not found, with a request as body", PostTo("/nothing", Get("/zem/admin")), "404",
     Open},
    {"9112 9.3", "not found, with a long body", PostTo("/nothing", std::string(60000, 'x')), "404",
     Open},
    {"9112 9.6*", "not found, with a body too long to wait for", PostTo("/nothing", kLong), "404",
     Closed},
    {"9112 9.6*", "not found, with chunks",
     "POST /nothing HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n0\r\n\r\n",
     "404", Closed},
    {"9112 9.3", "error of the application", Get("/zem/status/500"), "500 GET /zem/status/500",
     Open},
    {"9112 9.3", "refusal of the application", PostTo("/zem/status/403", "abc"),
     "403 POST /zem/status/403 abc", Open},
    {"9110 15.3.5", "answer without content", Get("/zem/status/204"), "204", Open},
    {"9110 15.4.5", "answer of no change", Get("/zem/status/304"), "304", Open},
    {"9112 9.3", "body that the application leaves", PostTo("/zem/unread", "abc"),
     "200 POST /zem/unread", Open},
    {"9112 9.3", "long body that the application leaves", PostTo("/zem/unread", kLong),
     "200 POST /zem/unread", Open},
    {"9112 9.3", "request as body that the application leaves",
     PostTo("/zem/unread", Repeat(kZ, 300)), "200 POST /zem/unread", Open},
    {"9112 9.3", "chunks that the application leaves",
     "POST /zem/unread HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n" +
         Repeat("1\r\na\r\n", 9000) + "0\r\n\r\n",
     "200 POST /zem/unread", Open},
};

INSTANTIATE_TEST_SUITE_P(Connections, Conformance, testing::ValuesIn(kConnections), NameOf);

// The answer went out before anybody knew; it must still arrive.
TEST(ConformanceDraining, FramingThatBreaksInABodyThatIsLeftEndsTheConnection) {
    CServer server;
    server.StartWorkers(1, AnswerAsSeen);
    CClient client(server.TcpPort());
    client.Send(
        "POST /zem/unread HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n4e20\r\n" +
        std::string(20000, 'x') + "\r\nxyz\r\n" + Repeat(Get("/zem/admin"), 10000));
    EXPECT_EQ(NextAnswer(client, ""), "200 POST /zem/unread");
    EXPECT_EQ(NextAnswer(client, ""), "end");
}

// A client that closes its side in the middle of a request: no answer, and nothing is delivered.
const CWireCase kCuts[] = {
    {"9112 8", "nothing sent", "", "", Closed},
    {"9112 8", "blank line", "\r\n", "", Closed},
    {"9112 8", "in the method", "GE", "", Closed},
    {"9112 8", "in the target", "GET /ze", "", Closed},
    {"9112 8", "in the version", "GET /zem/ HTTP/1.", "", Closed},
    {"9112 8", "behind the line", "GET /zem/ HTTP/1.1\r\n", "", Closed},
    {"9112 8", "in a name", "GET /zem/ HTTP/1.1\r\nHo", "", Closed},
    {"9112 8", "in a value", "GET /zem/ HTTP/1.1\r\nHost: h", "", Closed},
    {"9112 8", "before the last line end", "GET /zem/ HTTP/1.1\r\nHost: h\r\n\r", "", Closed},
    {"9112 8", "before the body", Post("Content-Length: 3\r\n"), "", Closed},
    {"9112 8", "in the body", Post("Content-Length: 3\r\n", "ab"), "", Closed},
    {"9112 8", "in a long body", Post("Content-Length: 100000\r\n", std::string(9000, 'x')), "",
     Closed},
    {"9112 8", "before the first chunk", Chunks(""), "", Closed},
    {"9112 8", "in a chunk's size", Chunks("3"), "", Closed},
    {"9112 8", "in a chunk", Chunks("3\r\nab"), "", Closed},
    {"9112 8", "between chunks", Chunks("3\r\nabc\r\n"), "", Closed},
    {"9112 8", "before the trailers' end", Chunks("3\r\nabc\r\n0\r\n"), "", Closed},
};

class CutRequest : public Conformance {};

TEST_P(CutRequest, IsNeverDelivered) {
    const CTuned patient(HttpTune()->short_body_ms, uint32_t{kPatience_ms});
    std::atomic<int> delivered{0};
    CServer server;
    server.StartWorkers(1, [&](CServer& s, CBlock& block) {
        ++delivered;
        AnswerAsSeen(s, block);
    });
    CClient client(server.TcpPort());
    client.Send(GetParam().bytes);
    client.EndSending();
    EXPECT_EQ(client.ReadToEnd(), "");
    EXPECT_TRUE(Eventually([] { return HttpTuneConnections() == 0; }));
    EXPECT_EQ(delivered, 0);
}

INSTANTIATE_TEST_SUITE_P(Table, CutRequest, testing::ValuesIn(kCuts), NameOf);

// The head, what comes back to it, the body that is sent then, and what comes back in the end. An
// empty first answer: nothing may come before the body is sent.
struct CExpectCase {
    const char* section;
    const char* name;
    std::string head;
    std::string first;
    std::string body;
    std::string last;
    EThen then;
};

void PrintTo(const CExpectCase& test, std::ostream* out) {
    *out << "RFC " << test.section << ": " << test.name;
}

const std::string kExpect = "Expect: 100-continue\r\n";
const std::string kThree = "Content-Length: 3\r\n";

const CExpectCase kExpects[] = {
    {"9110 10.1.1", "length", Post(kExpect + kThree), "100", "abc", "200 POST /zem/ abc", Open},
    {"9110 10.1.1", "in capitals", Post("EXPECT: 100-CONTINUE\r\n" + kThree), "100", "abc",
     "200 POST /zem/ abc", Open},
    {"9110 10.1.1", "chunked", Post(kExpect + "Transfer-Encoding: chunked\r\n"), "100",
     "3\r\nabc\r\n0\r\n\r\n", "200 POST /zem/ abc", Open},
    {"9110 10.1.1", "long body", Post(kExpect + "Content-Length: 100000\r\n"), "100", kLong,
     "200 POST /zem/ (100000)", Open},
    {"9110 10.1.1", "bad chunk in the end", Post(kExpect + "Transfer-Encoding: chunked\r\n"), "100",
     "x\r\n", "400", Closed},
    {"9110 10.1.1", "body that came with the head", Post(kExpect + kThree, "abc"), "", "",
     "200 POST /zem/ abc", Open},
    {"9110 10.1.1", "part of the body came with the head", Post(kExpect + kThree, "a"), "", "bc",
     "200 POST /zem/ abc", Open},
    {"9110 10.1.1", "no body", Fields(kExpect), "", "", kSeen, Open},
    {"9110 10.1.1", "length zero", Post(kExpect + "Content-Length: 0\r\n"), "", "",
     "200 POST /zem/", Open},
    {"9110 10.1.1", "HTTP 1.0 has none", "POST /zem/ HTTP/1.0\r\n" + kExpect + kThree + "\r\n", "",
     "abc", "200 POST /zem/ abc", Closed},
    {"9110 10.1.1*", "another expectation is ignored", Post("Expect: 200-ok\r\n" + kThree), "",
     "abc", "200 POST /zem/ abc", Open},
    {"9110 10.1.1", "not found, no body wanted",
     "POST /nothing HTTP/1.1\r\nHost: h\r\n" + kExpect + kThree + "\r\n", "", "", "404", Closed},
    {"9110 10.1.1", "bad path", "POST /zem/%00 HTTP/1.1\r\nHost: h\r\n" + kExpect + kThree + "\r\n",
     "", "", "400", Closed},
    {"9110 10.1.1", "two lengths", Post(kExpect + kThree + kThree), "", "", "400", Closed},
    {"9110 10.1.1", "no length", Post(kExpect), "", "", "411", Closed},
    {"9110 10.1.1", "length too large", Post(kExpect + "Content-Length: 99999999999999999999\r\n"),
     "", "", "413", Closed},
    {"9110 10.1.1", "head too large",
     Post(kExpect + kThree + "A: " + std::string(4000, 'x') + "\r\n"), "", "", "431", Closed},
    {"9110 10.1.1", "unknown coding", Post(kExpect + "Transfer-Encoding: gzip\r\n"), "", "", "501",
     Closed},
};

class Expectation : public testing::TestWithParam<CExpectCase> {};

TEST_P(Expectation, IsMetOnce) {
    const CExpectCase& test = GetParam();
    const CTuned patient(HttpTune()->short_body_ms, uint32_t{kPatience_ms});
    CServer server;
    server.StartWorkers(1, AnswerAsSeen);
    CClient client(server.TcpPort());
    client.Send(test.head);
    if (!test.first.empty()) {
        EXPECT_EQ(NextAnswer(client, test.first), test.first);
    }
    client.Send(test.body);
    EXPECT_EQ(NextAnswer(client, test.last), test.last);
    if (test.then == Closed) {
        EXPECT_EQ(NextAnswer(client, ""), "end");
        return;
    }
    client.Send(Get("/zem/next"));
    EXPECT_EQ(NextAnswer(client, ""), "200 GET /zem/next");
}

INSTANTIATE_TEST_SUITE_P(Table, Expectation, testing::ValuesIn(kExpects));

}  // namespace
}  // namespace httptest
