// What the program shows: numbers for people, JSON for programs. Main thread only.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zem {

// "12.3 MiB"; below 1 KiB in bytes.
std::string HumanBytes(uint64_t bytes);
// The reverse: "4096", "64k", "1M", "1MiB", "2G"; units are powers of 1024. False for anything
// else.
bool ParseBytes(std::string_view text, uint64_t& bytes);

// "1 client", "2 clients".
std::string Counted(uint64_t count, const char* what);
// Frames per second: "25", "30000/1001"; "none".
std::string RateText(uint32_t numerator, uint32_t denominator);

// A JSON text, built in order: ASCII control characters, C1 and direction marks are escaped, bytes
// that are no UTF-8 become U+FFFD. Members of an object are given a key, elements of an array none
// (an empty key).
class CJson {
public:
    CJson& Open(char bracket, std::string_view key = {});  // '{' or '['
    CJson& Close();
    CJson& Text(std::string_view key, std::string_view value);
    CJson& Number(std::string_view key, int64_t value);
    CJson& Unsigned(std::string_view key, uint64_t value);
    CJson& Real(std::string_view key, double value);  // with up to 6 digits; never in E notation
    CJson& Bool(std::string_view key, bool value);
    CJson& Null(std::string_view key);
    const std::string& Str() const { return m_text; }

private:
    void Begin(std::string_view key);
    void Quote(std::string_view value);
    std::string m_text;
    std::string m_brackets;  // the closing brackets that are still owed
    bool m_first = true;
};

// zem-PID-RANDOM: no other running client has it.
std::string DefaultClientId();

}  // namespace zem
