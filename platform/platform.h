// The one door to the operating system. The rest of the tree is written in Windows terms and
// includes this file: on Windows it brings the system's own headers, elsewhere the layer that
// supplies the same calls. Beside it only atomicwait.h asks which system it is compiled for.
#pragma once

#ifdef _WIN32
#ifndef UNICODE
#define UNICODE
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
// The order matters: the later ones need the types of the first two.
#include <winsock2.h>

#include <windows.h>

#include <comdef.h>
#include <http.h>
#include <msxml2.h>
#include <objbase.h>
#include <oleauto.h>
#include <process.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include "platform/windows/msxml60.h"
#include "platform/windows/threadname.h"
#else
#include "platform/posix/com.h"
#include "platform/posix/errors.h"
#include "platform/posix/eventlog.h"
#include "platform/posix/files.h"
#include "platform/posix/http.h"
#include "platform/posix/port.h"
#include "platform/posix/registry.h"
#include "platform/posix/sync.h"
#include "platform/posix/text.h"
#include "platform/posix/time.h"
#include "platform/posix/types.h"
#endif

#include <algorithm>
#include <string>
#include <string_view>

using WString = std::basic_string<WCHAR>;
using WStringView = std::basic_string_view<WCHAR>;

#include "platform/windowsnames.h"

// Whether a path below a folder can mean nothing but a plain file: no device, no stream of a file.
// Only Windows has names of that kind; elsewhere a colon is a letter like others.
inline bool NamesPlainFile([[maybe_unused]] WStringView path) {
#ifdef _WIN32
    return windowsnames::ArePlain(path);
#else
    return true;
#endif
}
