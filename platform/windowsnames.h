// Which path below a folder means a plain file on Windows, where some names mean a device or a
// stream of a file wherever they stand. Pure: it is compiled and tested on every system. The store
// refuses such names everywhere, plain GET and DELETE only where they mean something else.
#pragma once

// REQUIRES: included by platform.h, which brings WCHAR and WStringView.

namespace windowsnames {

constexpr WCHAR Upper(WCHAR unit) {
    return unit >= u'a' && unit <= u'z' ? static_cast<WCHAR>(unit - u'a' + u'A') : unit;
}

constexpr bool EqualsUpper(WStringView text, WStringView upper) {
    if (text.size() != upper.size()) return false;
    for (size_t i = 0; i < text.size(); ++i)
        if (Upper(text[i]) != upper[i]) return false;
    return true;
}

// A device's name counts up to the first dot and without blanks behind it.
constexpr bool IsDevice(WStringView name) {
    name = name.substr(0, name.find(WCHAR{'.'}));
    while (!name.empty() && name.back() == WCHAR{' '})
        name.remove_suffix(1);
    for (const WStringView device :
         {WStringView(TEXT("CON")), WStringView(TEXT("PRN")), WStringView(TEXT("AUX")),
          WStringView(TEXT("NUL")), WStringView(TEXT("CONIN$")), WStringView(TEXT("CONOUT$"))}) {
        if (EqualsUpper(name, device)) return true;
    }
    if (name.size() != 4) return false;
    const WStringView port = name.substr(0, 3);
    if (!EqualsUpper(port, TEXT("COM")) && !EqualsUpper(port, TEXT("LPT"))) return false;
    const WCHAR digit = name[3];  // the superscripts 1 to 3 count as well
    return (digit >= u'0' && digit <= u'9') || digit == 0xB9 || digit == 0xB2 || digit == 0xB3;
}

// Whether no part of a path (without its drive) names a device or a stream.
constexpr bool ArePlain(WStringView path) {
    while (!path.empty()) {
        const size_t end = std::min(path.find_first_of(TEXT("/\\")), path.size());
        const WStringView name = path.substr(0, end);
        if (name.find(WCHAR{':'}) != WStringView::npos || IsDevice(name)) return false;
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    return true;
}

}  // namespace windowsnames
