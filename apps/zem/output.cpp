// Numbers and JSON of the program zem.
#include "apps/zem/output.h"

#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <random>

#include "apps/zem/client/text.h"

namespace zem {

std::string HumanBytes(uint64_t bytes) {
    constexpr std::array<const char*, 6> kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) return std::to_string(bytes) + " B";
    double value = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    for (; value >= 1024 && unit + 1 < kUnits.size(); ++unit)
        value /= 1024;
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f %s", value, kUnits[unit]);
    return text.data();
}

bool ParseBytes(std::string_view text, uint64_t& bytes) {
    constexpr std::string_view kUnits = "KMGT";
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    std::string_view unit = text.substr(static_cast<size_t>(end - text.data()));
    if (error != std::errc()) return false;
    unsigned shift = 0;
    if (!unit.empty() && unit != "B") {
        const char letter = unit[0] >= 'a' ? static_cast<char>(unit[0] - 32) : unit[0];
        const size_t at = kUnits.find(letter);
        unit.remove_prefix(1);
        if (!unit.empty() && (unit[0] == 'i' || unit[0] == 'I')) {
            unit.remove_prefix(1);
            if (unit.empty()) return false;
        }
        if (at == std::string_view::npos || (!unit.empty() && unit != "B" && unit != "b"))
            return false;
        shift = 10 * (static_cast<unsigned>(at) + 1);
    }
    if (number > (UINT64_MAX >> shift)) return false;
    bytes = number << shift;
    return true;
}

std::string Counted(uint64_t count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string RateText(uint32_t numerator, uint32_t denominator) {
    if (denominator == 0 || numerator == 0) return "none";
    if (numerator % denominator == 0) return std::to_string(numerator / denominator);
    return std::to_string(numerator) + "/" + std::to_string(denominator);
}

void CJson::Begin(std::string_view key) {
    if (!m_first) m_text += ",";
    m_first = false;
    if (!key.empty()) {
        Quote(key);
        m_text += ":";
    }
}

void CJson::Quote(std::string_view value) {
    m_text += '"';
    for (size_t at = 0; at < value.size();) {
        const size_t from = at;
        const uint32_t point = NextCodePoint(value, at);
        if (point == '"' || point == '\\') {
            m_text += '\\';
            m_text += value[from];
        } else if (point == kIllFormed || IsControl(point)) {
            std::array<char, 16> escape{};
            std::snprintf(escape.data(), escape.size(), "\\u%04x",
                          static_cast<unsigned>(point == kIllFormed ? 0xFFFD : point));
            m_text += escape.data();
        } else {
            m_text.append(value, from, at - from);
        }
    }
    m_text += '"';
}

CJson& CJson::Open(char bracket, std::string_view key) {
    Begin(key);
    m_text += bracket;
    m_brackets += bracket == '{' ? '}' : ']';
    m_first = true;
    return *this;
}

CJson& CJson::Close() {
    m_text += m_brackets.back();
    m_brackets.pop_back();
    m_first = false;
    return *this;
}

CJson& CJson::Text(std::string_view key, std::string_view value) {
    Begin(key);
    Quote(value);
    return *this;
}
CJson& CJson::Number(std::string_view key, int64_t value) {
    Begin(key);
    m_text += std::to_string(value);
    return *this;
}
CJson& CJson::Unsigned(std::string_view key, uint64_t value) {
    Begin(key);
    m_text += std::to_string(value);
    return *this;
}
CJson& CJson::Real(std::string_view key, double value) {
    Begin(key);
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.6f", value);
    std::string_view shown = text.data();
    while (shown.ends_with('0'))
        shown.remove_suffix(1);
    if (shown.ends_with('.')) shown.remove_suffix(1);
    m_text += shown;
    return *this;
}
CJson& CJson::Bool(std::string_view key, bool value) {
    Begin(key);
    m_text += value ? "true" : "false";
    return *this;
}
CJson& CJson::Null(std::string_view key) {
    Begin(key);
    m_text += "null";
    return *this;
}

std::string DefaultClientId() {
    std::random_device random;
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "zem-%ld-%08x", static_cast<long>(getpid()),
                  static_cast<unsigned>(random()));
    return text.data();
}

}  // namespace zem
