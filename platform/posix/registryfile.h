// A registry file's text and what it holds. Internal to the layer; pure functions and plain data.
// The format is the registry editor's export: a first line "Windows Registry Editor Version 5.00"
// or "REGEDIT4"; UTF-16 with a byte-order mark or UTF-8 with or without one; then
//
//     ; a comment
//     [HKEY_LOCAL_MACHINE\Software\...]  a key; [-HKEY_...] removes it and all below
//     "name"="text"                      \\ and \" \r \n in names and texts
//     @="text"                           the key's default value
//     "name"=dword:00000050
//     "name"=hex:01,02,\                 bytes; hex(2) expandable text, hex(7) several texts,
//       03,04                            hex(b) 64-bit number; a backslash continues the line
//     "name"=-                           removes the value
//
// In a REGEDIT4 file the bytes of hex(1), hex(2) and hex(7) are 8-bit text (UTF-8), in a version 5
// file UTF-16.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/posix/types.h"

namespace posix {

struct CRegistryValue {
    DWORD type = 0;
    std::string data;  // the bytes as RegQueryValueExW gives them
};

using RegistryKeyValues = std::map<std::u16string, CRegistryValue>;

// Keys by their lower-case path below HKEY_LOCAL_MACHINE; "" is that key itself. A key's parents
// are always there too.
struct CRegistryTree {
    std::unordered_map<std::u16string, RegistryKeyValues> keys;

    CRegistryTree();
    const RegistryKeyValues* Find(const std::u16string& path) const;
    RegistryKeyValues& Make(const std::u16string& path);
    void Remove(const std::u16string& path);
};

struct CRegistryComplaint {
    size_t line;
    const char* reason;
};

std::u16string LowerCase(std::u16string_view text);

// "HKEY_LOCAL_MACHINE\Software\X" to "software\x". False when it names no known root; `outside`
// then tells whether it is one of the roots that exist on Windows but are of no interest here.
bool ParseRootedPath(std::u16string_view text, std::u16string* path, bool* outside);

// Lines that are not understood are skipped and complained about.
CRegistryTree ParseRegistryFile(std::string_view bytes,
                                std::vector<CRegistryComplaint>* complaints);

}  // namespace posix
