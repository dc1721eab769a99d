// Bounded conversion between 8-bit text in the ANSI code page (header values, the Server header)
// and UTF-16. Pure functions; any thread. Text that does not fit is cut at a whole character.
#pragma once

#include "platform/platform.h"

#include <cstddef>

// Widens `length` bytes into at most outUnits - 1 units and a NUL. Returns the units written.
size_t WidenText(const char* text, size_t length, WCHAR* out, size_t outUnits);

// Narrows a NUL-terminated text into at most outSize - 1 bytes and a NUL. Returns the bytes
// written.
size_t NarrowText(const WCHAR* text, char* out, size_t outSize);
