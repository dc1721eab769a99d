// What the store has to say beyond an HRESULT, as error-log records. Any thread; cheap.
#pragma once

#include "platform/platform.h"

#include <string>

#pragma GCC visibility push(default)

namespace zemstore {

// `level` is one of the error log's; `text` is UTF-8 and is cut at 127 characters.
void LogStore(DWORD level, HRESULT hr, const WCHAR* source, const std::string& text);

}  // namespace zemstore

#pragma GCC visibility pop
