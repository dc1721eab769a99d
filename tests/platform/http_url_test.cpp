// Targets, cooking of paths, and prefixes, by table.
#include "platform/posix/http_url.h"

#include <gtest/gtest.h>

#include <memory>

namespace posix {
namespace {

struct CPathCase {
    std::string raw;
    int status;
    std::u16string cooked;
};

const CPathCase kPaths[] = {
    {"/", 0, u"/"},
    {"/a/b", 0, u"/a/b"},
    {"/a//b", 0, u"/a//b"},
    {"/%61%2F%62", 0, u"/a/b"},
    {"/a\\b", 0, u"/a/b"},
    {"/a%5Cb", 0, u"/a/b"},
    {"/a%5cb", 0, u"/a/b"},
    {"/%2561", 0, u"/%61"},
    {"/a/./b", 0, u"/a/b"},
    {"/a/.", 0, u"/a/"},
    {"/a/..", 0, u"/"},
    {"/a/../b", 0, u"/b"},
    {"/a/%2E%2e/b", 0, u"/b"},
    {"/a/%2e/b", 0, u"/a/b"},
    {"/a/..%2fb", 0, u"/b"},
    {"/a/..\\b", 0, u"/b"},
    {"/a/b/../../c", 0, u"/c"},
    {"/a/.../b", 0, u"/a/.../b"},
    {"/a/..b", 0, u"/a/..b"},
    {"/..", 400, u""},
    {"/../a", 400, u""},
    {"/a/../..", 400, u""},
    {"/a/../../b", 400, u""},
    {"/%2e%2e/a", 400, u""},
    {"/..%5ca", 400, u""},
    {"/./..", 400, u""},
    {"/%", 400, u""},
    {"/%4", 400, u""},
    {"/%zz", 400, u""},
    {"/%00", 400, u""},
    {"/a%1Fb", 400, u""},
    {"/a%20b", 0, u"/a b"},
    {"/a%7Fb", 0, u"/a\u007Fb"},
    {"/%C3%A4", 0, u"/\u00E4"},
    {"/%E2%82%AC", 0, u"/\u20AC"},
    {"/%F0%9F%8E%AC", 0, u"/\xD83C\xDFAC"},
    {"/%C0%AF", 400, u""},        // overlong slash
    {"/%E0%80%AF", 400, u""},     // overlong
    {"/%F0%80%80%AF", 400, u""},  // overlong
    {"/%C0%AE%C0%AE/", 400, u""},
    {"/%ED%A0%80", 400, u""},     // surrogate
    {"/%F4%90%80%80", 400, u""},  // beyond the last character
    {"/%FF", 400, u""},
    {"/%C3", 400, u""},
    {"/%C3a", 400, u""},
    {"/%80", 400, u""},
    {"/" + std::string(260, 's'), 0, u"/" + std::u16string(260, u's')},
    {"/" + std::string(261, 's'), 414, u""},
    {"/a/" + std::string(261, 's') + "/b", 414, u""},
};

class Path : public testing::TestWithParam<CPathCase> {};

TEST_P(Path, IsCooked) {
    auto path = std::make_unique<CookedPath>();
    EXPECT_EQ(CookPath(GetParam().raw, *path), GetParam().status) << GetParam().raw;
    if (GetParam().status != 0) return;
    EXPECT_TRUE(std::u16string_view(path->text, path->length) == GetParam().cooked)
        << GetParam().raw;
}

INSTANTIATE_TEST_SUITE_P(Table, Path, testing::ValuesIn(kPaths));

TEST(Path, TakesSoManySegments) {
    auto path = std::make_unique<CookedPath>();
    std::string raw;
    for (int i = 0; i < 255; ++i)
        raw += "/s";
    EXPECT_EQ(CookPath(raw, *path), 0);
    EXPECT_EQ(CookPath(raw + "/s", *path), 414);
    EXPECT_EQ(CookPath(raw + "/s/", *path), 414);
}

TEST(Target, IsTakenApart) {
    TargetParts parts;
    EXPECT_EQ(SplitTarget(HttpVerbGET, "/a?b?c", parts), 0);
    EXPECT_EQ(parts.path, "/a");
    EXPECT_EQ(parts.query, "?b?c");
    EXPECT_TRUE(parts.authority.empty());
    EXPECT_EQ(SplitTarget(HttpVerbGET, "HTTP://Host:8/a/b?c", parts), 0);
    EXPECT_EQ(parts.authority, "Host:8");
    EXPECT_EQ(parts.path, "/a/b");
    EXPECT_EQ(parts.query, "?c");
    EXPECT_EQ(SplitTarget(HttpVerbGET, "http://host", parts), 0);
    EXPECT_EQ(parts.path, "/");
    EXPECT_EQ(SplitTarget(HttpVerbGET, "http://host?q", parts), 0);
    EXPECT_EQ(parts.path, "/");
    EXPECT_EQ(parts.query, "?q");
    for (const char* bad : {"a", "*", "http:/a", "http://", "http:///a", "ftp://h/", "http://u@h/",
                            "https://h/", "http://h\\a/", "host:80", "?q", "\\a"}) {
        EXPECT_EQ(SplitTarget(HttpVerbGET, bad, parts), 400) << bad;
    }
    EXPECT_EQ(SplitTarget(HttpVerbOPTIONS, "*", parts), 404);
}

TEST(Prefix, IsParsed) {
    UrlPrefix prefix;
    ASSERT_TRUE(ParsePrefix(u"http://*:8080/Zem/", prefix));
    EXPECT_EQ(prefix.port, 8080);
    EXPECT_TRUE(prefix.path == u"/zem/");
    EXPECT_TRUE(ParsePrefix(u"HTTP://+:80/", prefix));
    for (const char16_t* bad :
         {u"", u"http", u"https://*:80/a/", u"http://*/a/", u"http://*:/a/", u"http://*:80/a",
          u"http://*:80", u"http://*:65536/a/", u"http://host:80/a/", u"http://*:80//a/",
          u"http://*:80/a?b/", u"http://*:80/../a/", u"http://*:80/./", u"http://*:8x/a/"}) {
        EXPECT_FALSE(ParsePrefix(bad, prefix));
    }
}

TEST(Prefix, LongestMatchWins) {
    const std::vector<UrlPrefix> prefixes = {
        {80, u"/zem/"}, {80, u"/media/"}, {80, u"/media/deep/"}, {81, u"/"}};
    const auto match = [&](uint16_t port, std::u16string_view path) {
        const UrlPrefix* found = MatchPrefix(prefixes, port, path);
        return found ? found->path : u"none";
    };
    EXPECT_TRUE(match(80, u"/zem/x") == u"/zem/");
    EXPECT_TRUE(match(80, u"/ZEM/x") == u"/zem/");
    EXPECT_TRUE(match(80, u"/zem") == u"/zem/");
    EXPECT_TRUE(match(80, u"/zemx") == u"none");
    EXPECT_TRUE(match(80, u"/ze") == u"none");
    EXPECT_TRUE(match(80, u"/") == u"none");
    EXPECT_TRUE(match(80, u"//media///deep//x") == u"/media/deep/");
    EXPECT_TRUE(match(80, u"/media/deeper") == u"/media/");
    EXPECT_TRUE(match(80, u"/media/deep") == u"/media/deep/");
    EXPECT_TRUE(match(81, u"/zem/x") == u"/");
    EXPECT_TRUE(match(82, u"/zem/x") == u"none");
}

}  // namespace
}  // namespace posix
