// Raw bytes in, status and fate of the connection out: what the interface answers alone, with the
// section of RFC 9112 (or 9110, "S") that asks for it.
#include <gtest/gtest.h>

#include "http_support.h"

namespace httptest {
namespace {

enum class EThen { Open, Closed };

struct CWireCase {
    const char* section;
    std::string bytes;
    int status;
    EThen then;
};

const std::string kHost = "Host: h\r\n";

const CWireCase kCases[] = {
    {"2.2 bare LF", "GET /zem/ HTTP/1.1\nHost: h\n\n", 400, EThen::Closed},
    {"2.2 bare CR", "GET /zem/ HTTP/1.1\r\nHost: h\r\nA: b\rc\r\n\r\n", 400, EThen::Closed},
    {"2.2 blank line first", "\r\nGET /zem/ HTTP/1.1\r\nHost: h\r\n\r\n", 200, EThen::Open},
    {"2.2 blank before fields", "GET /zem/ HTTP/1.1\r\n Host: h\r\n\r\n", 400, EThen::Closed},
    {"2.3 version 2", "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", 505, EThen::Closed},
    {"2.3 version 3", "GET /zem/ HTTP/3.0\r\nHost: h\r\n\r\n", 505, EThen::Closed},
    {"2.3 higher minor", "GET /zem/ HTTP/1.9\r\nHost: h\r\n\r\n", 200, EThen::Open},
    {"3 garbage", "hello\r\n\r\n", 400, EThen::Closed},
    {"3 two blanks", "GET  /zem/ HTTP/1.1\r\nHost: h\r\n\r\n", 400, EThen::Closed},
    {"3 high byte in target", "GET /zem/\xE4 HTTP/1.1\r\nHost: h\r\n\r\n", 400, EThen::Closed},
    {"3 target too long", "GET /" + std::string(17000, 'x'), 414, EThen::Closed},
    {"3.2 host missing", "GET /zem/ HTTP/1.1\r\n\r\n", 400, EThen::Closed},
    {"3.2 host doubled", "GET /zem/ HTTP/1.1\r\nHost: h\r\nHost: h\r\n\r\n", 400, EThen::Closed},
    {"3.2 host bad", "GET /zem/ HTTP/1.1\r\nHost: h/\r\n\r\n", 400, EThen::Closed},
    {"3.2 HTTP/1.0 needs none", "GET /zem/ HTTP/1.0\r\n\r\n", 200, EThen::Closed},
    {"3.2.2 absolute form", "GET http://h/zem/ HTTP/1.1\r\nHost: x\r\n\r\n", 200, EThen::Open},
    {"3.2.3 authority form", "CONNECT h:80 HTTP/1.1\r\nHost: h\r\n\r\n", 400, EThen::Closed},
    {"3.2.4 asterisk form", "OPTIONS * HTTP/1.1\r\nHost: h\r\n\r\n", 404, EThen::Open},
    {"S4.2 climbing path", "GET /zem/../../x HTTP/1.1\r\nHost: h\r\n\r\n", 400, EThen::Closed},
    {"S4.2 NUL in path", "GET /zem/%00 HTTP/1.1\r\nHost: h\r\n\r\n", 400, EThen::Closed},
    {"S4.2 control in path", "GET /zem/%1f HTTP/1.1\r\nHost: h\r\n\r\n", 400, EThen::Closed},
    {"S4.2 overlong UTF-8", "GET /zem/%c0%af HTTP/1.1\r\nHost: h\r\n\r\n", 400, EThen::Closed},
    {"S4.2 long segment", "GET /zem/" + std::string(261, 's') + " HTTP/1.1\r\nHost: h\r\n\r\n", 414,
     EThen::Closed},
    {"5.1 blank before colon", "GET /zem/ HTTP/1.1\r\nHost : h\r\n\r\n", 400, EThen::Closed},
    {"5.1 NUL in value", std::string("GET /zem/ HTTP/1.1\r\nHost: h\r\nA: \0\r\n\r\n", 38), 400,
     EThen::Closed},
    {"5.2 folded line", "GET /zem/ HTTP/1.1\r\nHost: h\r\nA: b\r\n c\r\n\r\n", 400, EThen::Closed},
    {"5.4 field too long", "GET /zem/ HTTP/1.1\r\nHost: h\r\nA: " + std::string(17000, 'x'), 431,
     EThen::Closed},
    {"6.1 coding unknown", "POST /zem/ HTTP/1.1\r\n" + kHost + "Transfer-Encoding: gzip\r\n\r\n",
     501, EThen::Closed},
    {"6.1 coding doubled",
     "POST /zem/ HTTP/1.1\r\n" + kHost + "Transfer-Encoding: chunked, chunked\r\n\r\n0\r\n\r\n",
     501, EThen::Closed},
    {"6.1 coding and length",
     "POST /zem/ HTTP/1.1\r\n" + kHost +
         "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
     400, EThen::Closed},
    {"6.1 coding in HTTP/1.0", "POST /zem/ HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
     400, EThen::Closed},
    {"6.2 length negative", "POST /zem/ HTTP/1.1\r\n" + kHost + "Content-Length: -1\r\n\r\n", 400,
     EThen::Closed},
    {"6.2 length absurd",
     "POST /zem/ HTTP/1.1\r\n" + kHost + "Content-Length: 99999999999999999999\r\n\r\n", 413,
     EThen::Closed},
    {"6.3 lengths differ",
     "POST /zem/ HTTP/1.1\r\n" + kHost + "Content-Length: 5\r\nContent-Length: 6\r\n\r\n", 400,
     EThen::Closed},
    {"6.3 lengths equal",
     "POST /zem/ HTTP/1.1\r\n" + kHost + "Content-Length: 0\r\nContent-Length: 0\r\n\r\n", 400,
     EThen::Closed},
    {"6.3 length missing", "POST /zem/ HTTP/1.1\r\n" + kHost + "\r\n", 411, EThen::Closed},
    {"6.3 length missing, PUT", "PUT /zem/ HTTP/1.1\r\n" + kHost + "\r\n", 411, EThen::Closed},
    {"6.3 length zero", "POST /zem/ HTTP/1.1\r\n" + kHost + "Content-Length: 0\r\n\r\n", 200,
     EThen::Open},
    {"7.1 chunk size bad",
     "POST /zem/ HTTP/1.1\r\n" + kHost + "Transfer-Encoding: chunked\r\n\r\nxyz\r\n", 400,
     EThen::Closed},
    {"7.1 chunk size with LF",
     "POST /zem/ HTTP/1.1\r\n" + kHost + "Transfer-Encoding: chunked\r\n\r\n1\na\r\n0\r\n\r\n", 400,
     EThen::Closed},
    {"7.1 chunk too long for its size",
     "POST /zem/ HTTP/1.1\r\n" + kHost + "Transfer-Encoding: chunked\r\n\r\n1\r\nab\r\n0\r\n\r\n",
     400, EThen::Closed},
    {"7.1.2 trailer",
     "POST /zem/ HTTP/1.1\r\n" + kHost +
         "Transfer-Encoding: chunked\r\n\r\n1\r\na\r\n0\r\nA: b\r\n\r\n",
     200, EThen::Open},
    {"9.3 close asked for", "GET /zem/ HTTP/1.1\r\n" + kHost + "Connection: close\r\n\r\n", 200,
     EThen::Closed},
    {"9.3 keep-alive of HTTP/1.0", "GET /zem/ HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", 200,
     EThen::Closed},
    {"S15.5.5 no such prefix", "GET /nothing HTTP/1.1\r\n" + kHost + "\r\n", 404, EThen::Open},
    {"S15.5.5 no such prefix, with body",
     "POST /nothing HTTP/1.1\r\n" + kHost + "Content-Length: 3\r\n\r\nabc", 404, EThen::Open},
};

class Conformance : public testing::TestWithParam<CWireCase> {};

TEST_P(Conformance, IsAnsweredSo) {
    CServer server;
    server.StartWorkers(1);
    CClient client(server.TcpPort());
    client.Send(GetParam().bytes);
    const CReply reply = client.Read();
    EXPECT_EQ(reply.status, GetParam().status) << GetParam().section;
    EXPECT_NE(reply.Field("Date"), "(none)");
    if (reply.status != 200) {
        EXPECT_EQ(reply.Field("Content-Type").substr(0, 9), "text/html");
        EXPECT_NE(reply.body.find(std::to_string(reply.status)), std::string::npos);
    }
    EXPECT_EQ(reply.Field("Connection"), GetParam().then == EThen::Closed ? "close" : "(none)");
    if (GetParam().then == EThen::Closed) {
        EXPECT_TRUE(client.AtEnd()) << GetParam().section;
    } else {
        client.Send(Get("/zem/still-here"));
        EXPECT_EQ(client.Read().status, 200) << GetParam().section;
    }
}

INSTANTIATE_TEST_SUITE_P(Table, Conformance, testing::ValuesIn(kCases));

TEST(Conformance, HeadRequestsGetNoBody) {
    CServer server;
    server.StartWorkers(1, [](CServer& s, CBlock& block) { s.Reply(block.Id(), "twelve bytes"); });
    CClient client(server.TcpPort());
    client.Send("HEAD /zem/ HTTP/1.1\r\nHost: h\r\n\r\n");
    const CReply reply = client.Read(true);
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.Field("Content-Length"), "12");
    client.Send("HEAD /nothing HTTP/1.1\r\nHost: h\r\n\r\n");
    EXPECT_EQ(client.Read(true).status, 404);
    client.Send(Get("/zem/"));
    EXPECT_EQ(client.Read().body, "twelve bytes");
}

TEST(Conformance, SmuggledRequestIsNeverSeen) {
    CServer server;
    CClient client(server.TcpPort());
    client.Send(
        "POST /zem/ HTTP/1.1\r\nHost: h\r\nContent-Length: 4\r\nTransfer-Encoding: chunked\r\n\r\n"
        "0\r\n\r\nGET /zem/admin HTTP/1.1\r\nHost: h\r\n\r\n");
    ASSERT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneConnections() == 1;
    }));
    std::thread reader([&] {
        EXPECT_EQ(client.Read().status, 400);
        EXPECT_TRUE(client.AtEnd());
        client.EndSending();
    });
    EXPECT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneConnections() == 0;
    }));
    reader.join();
}

}  // namespace
}  // namespace httptest
