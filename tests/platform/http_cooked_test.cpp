// The cooked URL as the application sees it, and routing by it.
#include <gtest/gtest.h>

#include "http_support.h"

namespace httptest {
namespace {

struct CUrlCase {
    const char* target;
    const char* host;
    const char* full;  // '@' stands for the port
    const char* cooked_host;
    const char* path;
    const char* query;
};

const CUrlCase kUrls[] = {
    {"/zem/a?b=c", "name", "http://name:@/zem/a?b=c", "name:@", "/zem/a", "?b=c"},
    {"/zem/a", "name:99", "http://name:99/zem/a", "name:99", "/zem/a", ""},
    {"/zem/%61%20b", "n", "http://n:@/zem/a b", "n:@", "/zem/a b", ""},
    {"/zem/x/../y", "n", "http://n:@/zem/y", "n:@", "/zem/y", ""},
    {"/zem//y", "n", "http://n:@/zem//y", "n:@", "/zem//y", ""},
    {"/zem\\y", "n", "http://n:@/zem/y", "n:@", "/zem/y", ""},
    {"/other/%2e%2e/zem/y", "n", "http://n:@/zem/y", "n:@", "/zem/y", ""},
    {"http://abs:7/zem/y?q", "ignored", "http://abs:7/zem/y?q", "abs:7", "/zem/y", "?q"},
    {"http://abs/media/y", "ignored", "http://abs:@/media/y", "abs:@", "/media/y", ""},
    {"/zem/y", "", "http://127.0.0.1:@/zem/y", "127.0.0.1:@", "/zem/y", ""},
    {"/zem/?%2e%2e/%zz", "n", "http://n:@/zem/?%2e%2e/%zz", "n:@", "/zem/", "?%2e%2e/%zz"},
    {"/zem/y", "[::1]", "http://[::1]:@/zem/y", "[::1]:@", "/zem/y", ""},
};

class Cooked : public testing::TestWithParam<CUrlCase> {};

std::string WithPort(std::string text, uint16_t port) {
    const size_t at = text.find('@');
    return at == std::string::npos ? text : text.replace(at, 1, std::to_string(port));
}

TEST_P(Cooked, HasItsParts) {
    CServer server;
    CClient client(server.TcpPort());
    client.Send(std::string("GET ") + GetParam().target + " HTTP/1.1\r\nHost: " + GetParam().host +
                "\r\n\r\n");
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    const HTTP_COOKED_URL& url = block->Request()->CookedUrl;
    EXPECT_EQ(Narrow(url.pFullUrl, url.FullUrlLength), WithPort(GetParam().full, server.TcpPort()));
    EXPECT_EQ(Narrow(url.pHost, url.HostLength),
              WithPort(GetParam().cooked_host, server.TcpPort()));
    EXPECT_EQ(Narrow(url.pAbsPath, url.AbsPathLength), GetParam().path);
    EXPECT_EQ(url.pQueryString ? Narrow(url.pQueryString, url.QueryStringLength) : "",
              GetParam().query);
    EXPECT_EQ(url.pFullUrl[url.FullUrlLength / 2], 0);
    EXPECT_STREQ(block->Request()->pRawUrl, GetParam().target);
    server.Reply(block->Id(), "");
}

INSTANTIATE_TEST_SUITE_P(Table, Cooked, testing::ValuesIn(kUrls));

TEST(Routing, IsByLongestPrefixWithoutRegardToCase) {
    CServer server;
    server.StartWorkers(1);
    CClient client(server.TcpPort());
    const auto status = [&](const std::string& path) {
        client.Send(Get(path));
        return client.Read().status;
    };
    EXPECT_EQ(status("/zem/x"), 200);
    EXPECT_EQ(status("/ZEM/x"), 200);
    EXPECT_EQ(status("/%7aem/x"), 200);
    EXPECT_EQ(status("//zem//x"), 200);
    EXPECT_EQ(status("/zem"), 200);
    EXPECT_EQ(status("/media/"), 200);
    EXPECT_EQ(status("/"), 404);
    EXPECT_EQ(status("/zemx/"), 404);
    EXPECT_EQ(status("/zem/../other"), 404);
    EXPECT_EQ(status("/zem/%2e%2e/other"), 404);
}

}  // namespace
}  // namespace httptest
