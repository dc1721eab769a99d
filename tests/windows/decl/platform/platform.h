// What entrypoint.h needs of platform.h, for a compiler that has no headers of Windows: the types
// as its documentation gives them. Only the test of the exported names includes this.
#pragma once

#define TEXT(quote) L##quote

using WCHAR = wchar_t;
using BOOL = int;
using WORD = unsigned short;
using DWORD = unsigned long;
using LONG = long;
using HRESULT = long;

struct SYSTEMTIME {
    WORD parts[8];
};
