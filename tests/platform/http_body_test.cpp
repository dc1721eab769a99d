// The body decoder: whole, byte by byte, into little room, and the framing it refuses.
#include "platform/posix/http_body.h"

#include <gtest/gtest.h>

#include <string>

namespace posix {
namespace {

// Feeds the wire in pieces and takes the body in pieces; the status of a refusal, else -1 when the
// body did not end, else 0.
int Decode(const std::string& wire, size_t piece, size_t room, std::string& body,
           std::string* rest = nullptr) {
    CBodyDecoder decoder;
    decoder.SetChunked();
    const char* in = wire.data();
    const char* const end = in + wire.size();
    std::string out(room, '\0');
    while (in != end && !decoder.Done()) {
        const char* piece_end = static_cast<size_t>(end - in) < piece ? end : in + piece;
        while (in != piece_end && !decoder.Done()) {
            char* to = out.data();
            const int status = decoder.Decode(in, piece_end, to, to + room);
            body.append(out.data(), static_cast<size_t>(to - out.data()));
            if (status) return status;
        }
    }
    if (rest) rest->assign(in, end);
    return decoder.Done() ? 0 : -1;
}

TEST(Chunked, IsTheSameInAnyPieces) {
    const std::string wire =
        "5\r\nhello\r\n0A;name=\"v\"\r\n0123456789\r\n00\r\nTrailer: x\r\n\r\nNEXT";
    for (size_t piece : {size_t{1}, size_t{2}, size_t{3}, size_t{7}, wire.size()}) {
        for (size_t room : {size_t{1}, size_t{4}, size_t{100}}) {
            std::string body, rest;
            EXPECT_EQ(Decode(wire, piece, room, body, &rest), 0);
            EXPECT_EQ(body, "hello0123456789");
            EXPECT_TRUE(rest == "NEXT" || piece < wire.size());
        }
    }
}

TEST(Chunked, RefusesBadFraming) {
    struct CCase {
        const char* wire;
        int status;
    };
    const CCase cases[] = {
        {"\r\n", 400},
        {"x\r\n", 400},
        {"-1\r\n", 400},
        {" 5\r\n", 400},
        {"5 \r\n", 400},
        {"5 5\r\n", 400},
        {"5\nhello", 400},
        {"5\rhello", 400},
        {"0x5\r\n", 400},
        {"5\r\nhelloX", 400},
        {"5\r\nhello\n", 400},
        {"5\r\nhello\rX", 400},
        {"5;a\nb\r\n", 400},
        {"5;\x01\r\n", 400},
        {"10000000000000000\r\n", 413},
        {"0\r\n\n", 400},
        {"0\r\nA: b\n", 400},
        {"0\r\n folded\r\n", 400},
        {"0\r\n: b\r\n", 400},
        {"0\r\nA b\r\n", 400},
        {"0\r\nA\r\n", 400},
        {"0\r\nA : b\r\n", 400},
        {"0\r\nA: \x7F\r\n", 400},
    };
    for (const CCase& test : cases) {
        std::string body;
        EXPECT_EQ(Decode(test.wire, 1, 100, body), test.status) << test.wire;
    }
    std::string body;
    EXPECT_EQ(Decode("0\r\nA: " + std::string(20000, 'x'), 100, 100, body), 431);
    EXPECT_EQ(Decode("5;" + std::string(20000, 'x'), 100, 100, body), 400);
    EXPECT_EQ(Decode(std::string(20000, '0'), 100, 100, body), 400);
    EXPECT_EQ(Decode("5\r\nhel", 100, 100, body), -1);
}

TEST(Chunked, BreaksForGood) {
    CBodyDecoder decoder;
    decoder.SetChunked();
    const std::string wire = "x\r\n0\r\n\r\n";
    const char* in = wire.data();
    char out[16];
    char* to = out;
    EXPECT_EQ(decoder.Decode(in, wire.data() + wire.size(), to, out + sizeof out), 400);
    const char* const stopped = in;
    EXPECT_EQ(decoder.Decode(in, wire.data() + wire.size(), to, out + sizeof out), 400);
    EXPECT_EQ(in, stopped);
    EXPECT_TRUE(decoder.IsBroken() && !decoder.Done() && decoder.Plain() == 0);
}

TEST(Length, EndsWhereItSays) {
    CBodyDecoder decoder;
    decoder.SetLength(5);
    const std::string wire = "helloNEXT";
    const char* in = wire.data();
    char out[16];
    char* to = out;
    EXPECT_EQ(decoder.Decode(in, wire.data() + wire.size(), to, out + sizeof out), 0);
    EXPECT_EQ(std::string(out, to), "hello");
    EXPECT_STREQ(in, "NEXT");
    EXPECT_TRUE(decoder.Done());
    decoder.SetLength(0);
    EXPECT_TRUE(decoder.Done());
}

}  // namespace
}  // namespace posix
