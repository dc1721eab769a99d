// Text in Windows terms on UTF-16: bounded copies, comparison, conversion and the printf family.
// Differences: a text that does not fit or a null argument never reaches an invalid-parameter
// handler; the call fails as described here. The ANSI code page is UTF-8. Case is ASCII case. The
// printf engine writes into the caller's buffer only, allocates nothing, and knows the flags - +
// blank # 0, width and precision (also *), the sizes hh h l ll I I32 I64 j t z w, and these
// conversions: d i u x X o c C s S p e E f F g G a A %. In a wide format %s is wide and %S narrow
// (UTF-8), in a narrow one the reverse; h makes narrow, l and w wide. l is 32 bits. A null string
// prints "(null)". Ill-formed text becomes U+FFFD where it is converted. %p prints 16 digits. A
// precision bounds how many units of a string are read. %n fails the call (EINVAL, empty result);
// an unknown conversion is copied as it stands. Any thread.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cwchar>

#include "platform/posix/errors.h"

using errno_t = int;

#define _TRUNCATE (static_cast<size_t>(-1))
#define STRUNCATE 80

#define CP_ACP 0u
#define CP_UTF8 65001u
#define MB_PRECOMPOSED 0x1u
#define MB_ERR_INVALID_CHARS 0x8u
#define WC_ERR_INVALID_CHARS 0x80u

#pragma GCC visibility push(default)
extern "C" {

// Formats at most `count` characters and a NUL into `size` characters. The length without NUL; -1
// when the text was cut: at `count` if that fits the buffer, or, with _TRUNCATE, at the buffer's
// end. A text that fits neither leaves the empty string and -1 (ERANGE). Null buffer or format, or
// size 0: -1 (EINVAL).
int _vsnwprintf_s(WCHAR* buffer, size_t size, size_t count, const WCHAR* format, va_list args);
int _snwprintf_s(WCHAR* buffer, size_t size, size_t count, const WCHAR* format, ...);
int _vsnprintf_s(char* buffer, size_t size, size_t count, const char* format, va_list args);
int _snprintf_s(char* buffer, size_t size, size_t count, const char* format, ...);

// The whole text or nothing: a text that does not fit leaves the empty string and gives -1
// (ERANGE).
int swprintf_s(WCHAR* buffer, size_t size, const WCHAR* format, ...);
int sprintf_s(char* buffer, size_t size, const char* format, ...);

// 0, or EINVAL (null, size 0) or ERANGE (does not fit), both with an empty result where there is
// one. wcsncpy_s copies at most `count` characters; with _TRUNCATE what fits, then STRUNCATE when
// it was cut.
errno_t wcscpy_s(WCHAR* to, size_t size, const WCHAR* from);
errno_t wcsncpy_s(WCHAR* to, size_t size, const WCHAR* from, size_t count);
errno_t strcpy_s(char* to, size_t size, const char* from);

int _wcsicmp(const WCHAR* a, const WCHAR* b);
int _wcsnicmp(const WCHAR* a, const WCHAR* b, size_t count);
int _strnicmp(const char* a, const char* b, size_t count);

// Characters written, or needed when `to_size` is 0; 0 on failure: ERROR_INSUFFICIENT_BUFFER,
// ERROR_INVALID_PARAMETER, ERROR_INVALID_FLAGS (a flag not named above),
// ERROR_NO_UNICODE_TRANSLATION (ill-formed text, only with the ..._ERR_INVALID_CHARS flag). A
// source length of -1 means up to and with the NUL. The default-character arguments must be null.
int MultiByteToWideChar(UINT code_page, DWORD flags, LPCSTR from, int from_size, LPWSTR to,
                        int to_size);
int WideCharToMultiByte(UINT code_page, DWORD flags, LPCWSTR from, int from_size, LPSTR to,
                        int to_size, LPCSTR default_char, LPBOOL used_default);
}

// Overloads of the runtime's names for 16-bit text.
size_t wcslen(const WCHAR* text);
int wcscmp(const WCHAR* a, const WCHAR* b);
const WCHAR* wcsrchr(const WCHAR* text, WCHAR wanted);
WCHAR* wcsrchr(WCHAR* text, WCHAR wanted);
#pragma GCC visibility pop
