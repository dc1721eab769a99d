// Registry values are read whole into a local first, so that a failed read leaves the caller's copy
// alone.
#include "zemhttpd/server/registrykey.h"

#include "zemhttpd/commands/command.h"

#include <algorithm>

bool CRegistryKey::ReadDword(const WCHAR* name, DWORD& value) const {
    if (!m_open) return false;
    DWORD type = 0;
    DWORD read = 0;
    DWORD size = sizeof(read);
    if (RegQueryValueExW(m_key, name, nullptr, &type, reinterpret_cast<LPBYTE>(&read), &size) !=
            ERROR_SUCCESS ||
        type != REG_DWORD || size != sizeof(read)) {
        return false;
    }
    value = read;
    return true;
}

bool CRegistryKey::ReadString(const WCHAR* name, WCHAR* text, DWORD& length_units) const {
    if (!m_open) return false;
    WCHAR read[kNameUnits];
    DWORD type = 0;
    DWORD size = static_cast<DWORD>(std::min<size_t>(length_units, kNameUnits) * sizeof(WCHAR));
    if (RegQueryValueExW(m_key, name, nullptr, &type, reinterpret_cast<LPBYTE>(read), &size) !=
        ERROR_SUCCESS) {
        return false;
    }
    if (type != REG_SZ && type != REG_EXPAND_SZ) return false;
    const DWORD units = size / DWORD{sizeof(WCHAR)};
    if (size % sizeof(WCHAR) != 0 || (units > 0 && read[units - 1] != 0)) return false;
    std::copy_n(read, units, text);
    if (units == 0) text[0] = 0;
    length_units = units;
    return true;
}
