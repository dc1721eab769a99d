#include "apps/zemhost/registryvalue.h"

#include "apps/zemhost/widetext.h"

std::optional<RegistryValue> ReadRegistryValue(const RegistryPlace& place) {
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, place.key, 0, KEY_READ, &key) != ERROR_SUCCESS)
        return std::nullopt;
    RegistryValue value;
    DWORD size = 0;
    bool read =
        RegQueryValueExW(key, place.value, nullptr, &value.type, nullptr, &size) == ERROR_SUCCESS;
    if (read) {
        value.bytes.resize(size);
        read =
            RegQueryValueExW(key, place.value, nullptr, &value.type,
                             reinterpret_cast<LPBYTE>(value.bytes.data()), &size) == ERROR_SUCCESS;
        value.bytes.resize(read ? size : 0);
    }
    RegCloseKey(key);
    if (!read) return std::nullopt;
    return value;
}

bool IsRead(const RegistryPlace& place, const RegistryValue& value) {
    switch (place.kind) {
        case RegistryKind::kNumber:
            return value.type == REG_DWORD && value.bytes.size() == sizeof(DWORD);
        case RegistryKind::kTexts:
            return value.type == REG_MULTI_SZ;
        default:
            return value.type == REG_SZ || value.type == REG_EXPAND_SZ;
    }
}

uint32_t RegistryNumber(const RegistryValue& value) {
    uint32_t number = 0;
    for (size_t i = value.bytes.size(); i-- > 0;)
        number = number << 8 | static_cast<unsigned char>(value.bytes[i]);
    return number;
}

std::vector<std::string> RegistryTexts(const RegistryValue& value) {
    std::vector<std::string> texts;
    WString text;
    for (size_t i = 0; i + 1 < value.bytes.size(); i += 2) {
        const auto unit = static_cast<WCHAR>(static_cast<unsigned char>(value.bytes[i]) |
                                             static_cast<unsigned char>(value.bytes[i + 1]) << 8);
        if (unit != 0) {
            text += unit;
            continue;
        }
        texts.push_back(NarrowText(text));
        text.clear();
    }
    texts.push_back(NarrowText(text));
    while (!texts.empty() && texts.back().empty())
        texts.pop_back();
    return texts;
}
