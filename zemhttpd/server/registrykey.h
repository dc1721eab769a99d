// One open registry key and the two kinds of value that the server reads. A key that cannot be
// opened, a missing value and one of another type are no errors: what the caller has stays. Used by
// start-up, joins and shut-down.
#pragma once

#include "platform/platform.h"

class CRegistryKey {
public:
    explicit CRegistryKey(const WCHAR* path, REGSAM access = KEY_READ)
        : m_open(RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, access, &m_key) == ERROR_SUCCESS) {}
    ~CRegistryKey() {
        if (m_open) RegCloseKey(m_key);
    }
    CRegistryKey(const CRegistryKey&) = delete;
    CRegistryKey& operator=(const CRegistryKey&) = delete;

    bool IsOpen() const { return m_open; }

    // A REG_DWORD of four bytes; otherwise false, and `value` is untouched.
    bool ReadDword(const WCHAR* name, DWORD& value) const;

    // A REG_SZ or REG_EXPAND_SZ that ends in NUL (an empty value reads as the empty text) and fits
    // `length_units` units with its NUL; otherwise false, and both arguments are untouched. On
    // success length_units is what the value takes, NUL included.
    bool ReadString(const WCHAR* name, WCHAR* text, DWORD& length_units) const;

private:
    HKEY m_key = nullptr;
    bool m_open;
};

inline constexpr const WCHAR* kZemKeyPath = TEXT("Software\\Quorvane Group\\ZEM");
inline constexpr const WCHAR* kProductKeyPath = TEXT("Software\\Quorvane Group");
inline constexpr const WCHAR* kVolumeKeyPath = TEXT("Software\\Quorvane Group\\RUD\\vfs");
