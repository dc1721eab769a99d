// Each value of the table, looked at for its type alone.
#include "apps/zemhost/wrongvalues.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <optional>

#include "apps/zemhost/hostsystem.h"
#include "apps/zemhost/registryvalue.h"
#include "apps/zemhost/widetext.h"

namespace {

const char* TypeName(const RegistryValue& value) {
    switch (value.type) {
        case REG_SZ:
        case REG_EXPAND_SZ:
            return "a text";
        case REG_DWORD:
            return value.bytes.size() == sizeof(DWORD) ? "a number" : "not of four bytes";
        case REG_MULTI_SZ:
            return "a list of texts";
        default:
            return "of another type";
    }
}

std::optional<uint32_t> Number(const std::string& text) {
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return quoted + '"';
}

// The texts between commas, each with its NUL, and one NUL more, as the bytes of UTF-16.
std::string ListBytes(const std::string& text) {
    WString units;
    for (const WCHAR unit : WidenText(text))
        if (unit != u' ') units += unit == u',' ? WCHAR{0} : unit;
    units.append(2, 0);
    std::string bytes;
    for (const WCHAR unit : units) {
        std::array<char, 8> pair{};
        std::snprintf(pair.data(), pair.size(), "%02x,%02x", unit & 0xFFu, unit >> 8 & 0xFFu);
        bytes += (bytes.empty() ? "" : ",") + std::string(pair.data());
    }
    return bytes;
}

// What the value was meant to be, where its type leaves that in no doubt.
std::string Meant(const RegistryPlace& place, const RegistryValue& value) {
    const bool text = value.type == REG_SZ || value.type == REG_EXPAND_SZ;
    const std::vector<std::string> texts = RegistryTexts(value);
    if (texts.empty() || (!text && value.type != REG_MULTI_SZ)) return place.example;
    const bool fits = place.kind != RegistryKind::kNumber || Number(texts.front());
    return fits ? texts.front() : place.example;
}

// The first of the addresses between commas that is none; empty: all are, or others are asked for.
std::string NoAddress(const RegistryPlace& place, const std::string& list) {
    if (place.value != kListenPlace.value) return {};
    std::string one;
    for (const char c : list + ",") {
        if (c == ' ' && one.empty()) continue;
        if (c != ',') {
            one += c;
            continue;
        }
        one.erase(one.find_last_not_of(' ') + 1);
        if (KindOfAddress(one) == AddressKind::kNone) return "'" + one + "'";
        one.clear();
    }
    return {};
}

std::string Sentence(const RegistryPlace& place, const RegistryValue& value) {
    std::string meant = Meant(place, value);
    const std::string wrong = NoAddress(place, meant);
    if (!wrong.empty()) meant = place.example;
    std::string sentence = "the registry value " + NarrowText(place.value) + " of " +
                           NarrowText(place.key) + " is " + TypeName(value) +
                           ", which is not read" +
                           (wrong.empty() ? "" : ", and " + wrong + " is no IP address") +
                           "; its line must be " + RegistryLine(place, meant);
    if (place.kind == RegistryKind::kNumber) return sentence + " (" + meant + " in hexadecimal)";
    return place.kind == RegistryKind::kTexts ? sentence + " (" + meant + ")" : sentence;
}

}  // namespace

std::string RegistryLine(const RegistryPlace& place, const std::string& text) {
    const std::string name = Quoted(NarrowText(place.value)) + "=";
    switch (place.kind) {
        case RegistryKind::kNumber: {
            const std::optional<uint32_t> number = Number(text);
            std::array<char, 16> digits{};
            std::snprintf(digits.data(), digits.size(), "%08x",
                          static_cast<unsigned>(number ? *number : *Number(place.example)));
            return name + "dword:" + digits.data();
        }
        case RegistryKind::kTexts:
            return name + "hex(7):" + ListBytes(text);
        default:
            return name + Quoted(text);
    }
}

std::vector<WrongValue> FindWrongValues() {
    std::vector<WrongValue> wrong;
    for (const RegistryPlace& place : kRegistryPlaces) {
        const std::optional<RegistryValue> value = ReadRegistryValue(place);
        if (value && !IsRead(place, *value))
            wrong.push_back({Sentence(place, *value), place.decides});
    }
    return wrong;
}
