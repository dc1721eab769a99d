// The request head's parser, by table: what it takes and what it refuses, and that a head cut
// anywhere is incomplete and never something else.
#include "platform/posix/http_parser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <string>

#include "platform/posix/http_names.h"

namespace posix {
namespace {

struct CHeadCase {
    const char* name;
    std::string head;
    int status;  // 0: taken
};

std::string Line(const std::string& fields) {
    return "GET /zem/ HTTP/1.1\r\nHost: h\r\n" + fields + "\r\n";
}

std::string PostLine(const std::string& fields) {
    return "POST /zem/ HTTP/1.1\r\nHost: h\r\n" + fields + "\r\n";
}

const CHeadCase kHeads[] = {
    {"plain", Line(""), 0},
    {"empty lines before", "\r\n\r\n" + Line(""), 0},
    {"bare LF before", "\n" + Line(""), 400},
    {"no method", " / HTTP/1.1\r\nHost: h\r\n\r\n", 400},
    {"bad method", "G(T / HTTP/1.1\r\nHost: h\r\n\r\n", 400},
    {"odd method passes", "get /zem/ HTTP/1.1\r\nHost: h\r\n\r\n", 0},
    {"long method", std::string(256, 'M') + " / HTTP/1.1\r\nHost: h\r\n\r\n", 400},
    {"two blanks", "GET  / HTTP/1.1\r\nHost: h\r\n\r\n", 400},
    {"tab", "GET\t/ HTTP/1.1\r\nHost: h\r\n\r\n", 400},
    {"no target", "GET HTTP/1.1\r\nHost: h\r\n\r\n", 400},
    {"control in target", "GET /\x01 HTTP/1.1\r\nHost: h\r\n\r\n", 400},
    {"high byte in target", "GET /\xC3\xA4 HTTP/1.1\r\nHost: h\r\n\r\n", 400},
    {"fragment", "GET /a#b HTTP/1.1\r\nHost: h\r\n\r\n", 400},
    {"no version", "GET /\r\nHost: h\r\n\r\n", 400},
    {"lower-case version", "GET / http/1.1\r\nHost: h\r\n\r\n", 400},
    {"HTTP/0.9", "GET / HTTP/0.9\r\n\r\n", 400},
    {"HTTP/1.0 without host", "GET / HTTP/1.0\r\n\r\n", 0},
    {"HTTP/1.7", "GET / HTTP/1.7\r\nHost: h\r\n\r\n", 0},
    {"HTTP/2.0", "GET / HTTP/2.0\r\nHost: h\r\n\r\n", 505},
    {"HTTP/2 preface", "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", 505},
    {"two-digit version", "GET / HTTP/1.10\r\nHost: h\r\n\r\n", 400},
    {"blank after version", "GET / HTTP/1.1 \r\nHost: h\r\n\r\n", 400},
    {"LF ends the request line", "GET / HTTP/1.1\nHost: h\r\n\r\n", 400},
    {"LF ends a field", "GET / HTTP/1.1\r\nHost: h\n\r\n", 400},
    {"LF ends the head", "GET / HTTP/1.1\r\nHost: h\r\n\n", 400},
    {"CR inside a value", Line("A: b\rc\r\n"), 400},
    {"NUL inside a value", Line(std::string("A: b\0c\r\n", 8)), 400},
    {"DEL inside a value", Line("A: b\x7F\r\n"), 400},
    {"control far inside a value", Line("A: " + std::string(37, 'x') + "\x02\r\n"), 400},
    {"tab inside a value", Line("A: b\tc\r\n"), 0},
    {"high bytes inside a value", Line("A: \xE4\xF6\r\n"), 0},
    {"empty value", Line("A:\r\n"), 0},
    {"folded line", Line("A: b\r\n c\r\n"), 400},
    {"folded with tab", Line("A: b\r\n\tc\r\n"), 400},
    {"blank before colon", Line("A : b\r\n"), 400},
    {"no colon", Line("Abc\r\n"), 400},
    {"empty name", Line(": b\r\n"), 400},
    {"high byte in name", Line("\xE4: b\r\n"), 400},
    {"host missing", "GET / HTTP/1.1\r\n\r\n", 400},
    {"host doubled", Line("Host: h\r\n"), 400},
    {"host empty", "GET / HTTP/1.1\r\nHost:\r\n\r\n", 0},
    {"host with port", "GET / HTTP/1.1\r\nHost: h:8080\r\n\r\n", 0},
    {"host IPv6", "GET / HTTP/1.1\r\nHost: [::1]:80\r\n\r\n", 0},
    {"host with path", "GET / HTTP/1.1\r\nHost: h/x\r\n\r\n", 400},
    {"host with user", "GET / HTTP/1.1\r\nHost: u@h\r\n\r\n", 400},
    {"host with blank", "GET / HTTP/1.1\r\nHost: a b\r\n\r\n", 400},
    {"host port too large", "GET / HTTP/1.1\r\nHost: h:65536\r\n\r\n", 400},
    {"host port not a number", "GET / HTTP/1.1\r\nHost: h:8a\r\n\r\n", 400},
    {"host open bracket", "GET / HTTP/1.1\r\nHost: [::1\r\n\r\n", 400},
    {"length", PostLine("Content-Length: 5\r\n"), 0},
    {"length with zeros", PostLine("Content-Length: 005\r\n"), 0},
    {"length negative", PostLine("Content-Length: -1\r\n"), 400},
    {"length with sign", PostLine("Content-Length: +1\r\n"), 400},
    {"length empty", PostLine("Content-Length:\r\n"), 400},
    {"length hex", PostLine("Content-Length: 0x5\r\n"), 400},
    {"length list", PostLine("Content-Length: 5, 5\r\n"), 400},
    {"length twice equal", PostLine("Content-Length: 5\r\nContent-Length: 5\r\n"), 400},
    {"length twice different", PostLine("Content-Length: 5\r\nContent-Length: 6\r\n"), 400},
    {"length too large", PostLine("Content-Length: 99999999999999999999\r\n"), 413},
    {"length at the limit", PostLine("Content-Length: 9223372036854775799\r\n"), 0},
    {"length and coding", PostLine("Content-Length: 5\r\nTransfer-Encoding: chunked\r\n"), 400},
    {"coding and length", PostLine("Transfer-Encoding: chunked\r\nContent-Length: 5\r\n"), 400},
    {"chunked", PostLine("Transfer-Encoding: chunked\r\n"), 0},
    {"chunked in capitals", PostLine("transfer-encoding: CHUNKED\r\n"), 0},
    {"coding unknown", PostLine("Transfer-Encoding: gzip\r\n"), 501},
    {"coding identity", PostLine("Transfer-Encoding: identity\r\n"), 501},
    {"coding list", PostLine("Transfer-Encoding: gzip, chunked\r\n"), 501},
    {"coding twice", PostLine("Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n"), 501},
    {"coding in HTTP/1.0", "POST / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n", 400},
    {"POST without length", PostLine(""), 411},
    {"PUT without length", "PUT / HTTP/1.1\r\nHost: h\r\n\r\n", 411},
    {"DELETE without length", "DELETE / HTTP/1.1\r\nHost: h\r\n\r\n", 0},
    {"a TLS greeting", std::string("\x16\x03\x01\x02\x00\x01", 6), 400},
};

class Head : public testing::TestWithParam<CHeadCase> {};

TEST_P(Head, IsTakenOrRefused) {
    const CHeadCase& test = GetParam();
    auto head = std::make_unique<RequestHead>();
    const EParse result = ParseHead(test.head.data(), test.head.size(), *head);
    if (test.status == 0) {
        EXPECT_EQ(result, EParse::Done) << test.name;
        EXPECT_EQ(head->bytes, test.head.size());
    } else {
        EXPECT_EQ(result, EParse::Refused) << test.name;
        EXPECT_EQ(head->status, test.status) << test.name;
    }
}

TEST_P(Head, CutAnywhereIsIncompleteOrRefusedTheSame) {
    const CHeadCase& test = GetParam();
    auto head = std::make_unique<RequestHead>();
    for (size_t cut = 0; cut < test.head.size(); ++cut) {
        const std::string part = test.head.substr(0, cut);  // its own memory: no byte behind
        const EParse result = ParseHead(part.data(), part.size(), *head);
        if (result == EParse::Incomplete) continue;
        ASSERT_EQ(result, EParse::Refused) << test.name << " cut at " << cut;
        ASSERT_EQ(head->status, test.status) << test.name << " cut at " << cut;
    }
}

INSTANTIATE_TEST_SUITE_P(Table, Head, testing::ValuesIn(kHeads));

TEST(Parser, GivesTheParts) {
    const std::string text =
        "POST /zem/x?q=1 HTTP/1.1\r\nhost: Example:81\r\nZem-Id: \t one two \t\r\n"
        "CONTENT-LENGTH: 12\r\nExpect: 100-Continue\r\nConnection: x , Close\r\n\r\nbody";
    auto head = std::make_unique<RequestHead>();
    ASSERT_EQ(ParseHead(text.data(), text.size(), *head), EParse::Done);
    EXPECT_EQ(head->bytes, text.size() - 4);
    EXPECT_EQ(head->verb, HttpVerbPOST);
    EXPECT_EQ(head->target, "/zem/x?q=1");
    EXPECT_EQ(head->host, "Example:81");
    EXPECT_EQ(head->content_length, 12u);
    EXPECT_TRUE(head->has_length && head->expect_continue && head->close && !head->chunked);
    ASSERT_EQ(head->header_count, 5);
    const HeaderField& id = head->headers[1];
    EXPECT_EQ(id.id, kUnknownHeader);
    EXPECT_EQ(text.substr(id.name, id.name_length), "Zem-Id");
    EXPECT_EQ(text.substr(id.value, id.value_length), "one two");
    EXPECT_EQ(head->headers[2].id, HttpHeaderContentLength);
}

TEST(Parser, KnowsEveryRequestHeaderInAnyCase) {
    const char* const names[] = {"Cache-Control",
                                 "CONNECTION",
                                 "date",
                                 "Keep-Alive",
                                 "Pragma",
                                 "Trailer",
                                 "Transfer-Encoding",
                                 "Upgrade",
                                 "Via",
                                 "Warning",
                                 "Allow",
                                 "Content-Length",
                                 "Content-Type",
                                 "Content-Encoding",
                                 "Content-Language",
                                 "Content-Location",
                                 "Content-MD5",
                                 "Content-Range",
                                 "Expires",
                                 "Last-Modified",
                                 "Accept",
                                 "Accept-Charset",
                                 "Accept-Encoding",
                                 "Accept-Language",
                                 "Authorization",
                                 "Cookie",
                                 "Expect",
                                 "From",
                                 "Host",
                                 "If-Match",
                                 "If-Modified-Since",
                                 "If-None-Match",
                                 "If-Range",
                                 "If-Unmodified-Since",
                                 "Max-Forwards",
                                 "Proxy-Authorization",
                                 "Referer",
                                 "Range",
                                 "TE",
                                 "Translate",
                                 "User-Agent"};
    int id = 0;
    for (const std::string name : names) {
        EXPECT_EQ(FindRequestHeader(name.data(), name.size()), id) << name;
        std::string upper = name;
        std::transform(upper.begin(), upper.end(), upper.begin(),
                       [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        EXPECT_EQ(FindRequestHeader(upper.data(), upper.size()), id++) << upper;
        // Wherever another letter stands, it is another name.
        for (size_t i = 0; i < name.size(); ++i) {
            std::string other = name;
            other[i] = other[i] == '-' ? 'q' : '-';
            EXPECT_EQ(FindRequestHeader(other.data(), other.size()), kUnknownHeader) << other;
        }
    }
    EXPECT_EQ(FindRequestHeader("Zem-Id", 6), kUnknownHeader);
    EXPECT_EQ(FindRequestHeader("Hos", 3), kUnknownHeader);
    EXPECT_EQ(FindRequestHeader("Hosts", 5), kUnknownHeader);
}

TEST(Parser, HeadOfTheGreatestLengthIsTakenAndOneMoreIsNot) {
    auto head = std::make_unique<RequestHead>();
    const std::string frame = Line("A: \r\n");
    std::string text = Line("A: " + std::string(kMaxHeadBytes - frame.size(), 'x') + "\r\n");
    ASSERT_EQ(text.size(), kMaxHeadBytes);
    EXPECT_EQ(ParseHead(text.data(), text.size(), *head), EParse::Done);
    text = Line("A: " + std::string(kMaxHeadBytes - frame.size() + 1, 'x') + "\r\n");
    EXPECT_EQ(ParseHead(text.data(), text.size(), *head), EParse::Refused);
    EXPECT_EQ(head->status, 431);
    // Without an end in sight it is refused as soon as it is too long.
    const std::string endless = "GET /" + std::string(kMaxHeadBytes, 'x');
    EXPECT_EQ(ParseHead(endless.data(), endless.size(), *head), EParse::Refused);
    EXPECT_EQ(head->status, 414);
}

TEST(Parser, TooManyFieldsAreRefused) {
    auto head = std::make_unique<RequestHead>();
    std::string fields;
    for (size_t i = 1; i < kMaxHeaderCount; ++i)
        fields += "A: b\r\n";
    std::string text = Line(fields);
    EXPECT_EQ(ParseHead(text.data(), text.size(), *head), EParse::Done);
    text = Line(fields + "A: b\r\n");
    EXPECT_EQ(ParseHead(text.data(), text.size(), *head), EParse::Refused);
    EXPECT_EQ(head->status, 431);
}

}  // namespace
}  // namespace posix
