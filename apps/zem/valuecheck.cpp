// See valuecheck.h.
#include "apps/zem/valuecheck.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace zem {
namespace {

// "0.1", "86400".
std::string Short(double value) {
    std::array<char, 32> text{};
    return {text.data(),
            std::to_chars(text.begin(), text.end(), value, std::chars_format::fixed).ptr};
}

template <typename T, typename... Base>
bool Reads(const std::string& text, T& value, Base... base) {
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, base...);
    return error == std::errc() && stop == end;
}

std::string NotANumber(const std::string& text, const std::string& least, const std::string& most) {
    return "'" + text + "' is no number from " + least + " to " + most;
}

}  // namespace

ValueCheck WholeNumber(uint64_t least, uint64_t most) {
    const std::string first = std::to_string(least), last = std::to_string(most);
    const std::string bounds = most == kAnyNumber ? "" : first + " to " + last;
    return {[=](std::string& text) {
                const bool hex = text.starts_with("0x") || text.starts_with("0X");
                uint64_t value = 0;
                if (!Reads(hex ? text.substr(2) : text, value, hex ? 16 : 10) || value < least ||
                    value > most) {
                    return NotANumber(text, first, last);
                }
                text = std::to_string(value);
                return std::string();
            },
            bounds};
}

ValueCheck Number(double least, double most) {
    const std::string bounds = Short(least) + " to " + Short(most);
    return {[=](std::string& text) {
                double value = 0;
                // Not the other way round: NaN is within no bounds.
                const bool within = Reads(text, value) && value >= least && value <= most;
                return within ? std::string() : NotANumber(text, Short(least), Short(most));
            },
            bounds};
}

ValueCheck OneOf(const std::vector<std::string>& words) {
    std::string list, told;
    for (const std::string& word : words) {
        list += (list.empty() ? "{" : ",") + word;
        told += (told.empty() ? "" : &word == &words.back() ? " or " : ", ") + word;
    }
    return {[=](std::string& text) {
                const bool known = std::find(words.begin(), words.end(), text) != words.end();
                return known ? std::string() : "'" + text + "' is not " + told;
            },
            list + "}"};
}

}  // namespace zem
