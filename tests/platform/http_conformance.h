// The form of the conformance tables: raw bytes in, answers and fate of the connection out, with
// the section that asks for it. http_conformance_test.cpp runs every row; the tables stand by topic
// in http_conformance_requestline.cpp, _fields.cpp, _framing.cpp and _connection.cpp.
#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "http_support.h"

namespace httptest {

enum class EThen {
    Open,    // the next request of the connection is answered
    Closed,  // the last answer says "Connection: close", and nothing sent behind is looked at
};

struct CWireCase {
    // RFC and section. With a star: the RFC leaves the answer open or suggests another one, and the
    // interface's own rule holds.
    const char* section;
    const char* name;  // the case, and why where it is not plain from the section
    std::string bytes;
    // What comes back: the status of each answer, and what the application saw of the request when
    // it is the application's answer: "200 METHOD /path?query body", with "(N)" for a body of more
    // than 64 bytes. "200 -" is an answer to HEAD, which has no body. " | " stands between two.
    std::string answers;
    EThen then;
};

void PrintTo(const CWireCase& test, std::ostream* out);
std::string NameOf(const testing::TestParamInfo<CWireCase>& info);

class Conformance : public testing::TestWithParam<CWireCase> {};

// What the application answers, by its path: "/zem/status/NNN" with that status, "/zem/unread"
// before it has read the body, "/zem/close" with an end of the connection, all others as they are.
void AnswerAsSeen(CServer& server, CBlock& block);

// The next answer in the form of CWireCase::answers; "end" when the connection ends, "reset" when
// it breaks or an answer is cut.
std::string NextAnswer(CClient& client, const std::string& expected, CReply* whole = nullptr);

inline const std::string kSeen = "200 GET /zem/";

inline std::string Repeat(const std::string& text, size_t times) {
    std::string all;
    while (times-- > 0)
        all += text;
    return all;
}

// A request that has this line and nothing but a host.
inline std::string Line(const std::string& line) {
    return line + "\r\nHost: h\r\n\r\n";
}
inline std::string Fields(const std::string& fields) {
    return Get("/zem/", fields);
}
inline std::string Host(const std::string& field) {
    return "GET /zem/ HTTP/1.1\r\n" + field + "\r\n\r\n";
}
inline std::string Post(const std::string& fields, const std::string& body = {}) {
    return "POST /zem/ HTTP/1.1\r\nHost: h\r\n" + fields + "\r\n" + body;
}
inline std::string Chunks(const std::string& wire) {
    return Post("Transfer-Encoding: chunked\r\n", wire);
}

}  // namespace httptest
