// Bounded copies, comparison and conversion of text. Pure functions for any thread.
#include "platform/posix/text.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include "platform/posix/utf.h"

namespace {

// How many units a text has, looking at no more than `limit`.
template <class C>
size_t BoundedLength(const C* text, size_t limit) {
    size_t length = 0;
    while (length < limit && text[length] != 0)
        ++length;
    return length;
}

template <class C>
errno_t Copy(C* to, size_t size, const C* from) {
    if (!to || size == 0) return EINVAL;
    to[0] = 0;
    if (!from) return EINVAL;
    const size_t length = BoundedLength(from, size);
    if (length == size) return ERANGE;
    std::memmove(to, from, length * sizeof(C));
    to[length] = 0;
    return 0;
}

template <class C>
C LowerOf(C c) {
    return c >= 'A' && c <= 'Z' ? static_cast<C>(c + 32) : c;
}

template <class C>
int CompareNoCase(const C* a, const C* b, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        const auto x = static_cast<std::make_unsigned_t<C>>(LowerOf(a[i]));
        const auto y = static_cast<std::make_unsigned_t<C>>(LowerOf(b[i]));
        if (x != y) return x < y ? -1 : 1;
        if (x == 0) return 0;
    }
    return 0;
}

constexpr size_t kNoLimit = static_cast<size_t>(-1);

// The argument checks that both conversions share; the source's size in units, or -1 with the last
// error set.
int64_t SourceSize(UINT code_page, bool flags_known, const void* from, int from_size,
                   const void* to, int to_size, size_t (*length_of)(const void*)) {
    DWORD error = 0;
    if (code_page != CP_ACP && code_page != CP_UTF8) error = ERROR_INVALID_PARAMETER;
    if (!flags_known) error = ERROR_INVALID_FLAGS;
    if (!from || from_size == 0 || from_size < -1 || to_size < 0 || (to_size > 0 && !to) ||
        from == to) {
        error = ERROR_INVALID_PARAMETER;
    }
    if (error) {
        SetLastError(error);
        return -1;
    }
    return from_size >= 0 ? from_size : static_cast<int64_t>(length_of(from)) + 1;
}

// Runs Decode over the source and Encode into the target; counts only when the target has no size.
template <class From, class To, class Decode, class Encode>
int Convert(const From* from, size_t from_size, To* to, int to_size, bool strict, Decode decode,
            Encode encode) {
    size_t written = 0;
    for (size_t i = 0; i < from_size;) {
        const posix::CDecoded decoded = decode(from + i, from_size - i);
        if (!decoded.valid && strict) {
            SetLastError(ERROR_NO_UNICODE_TRANSLATION);
            return 0;
        }
        To units[4];
        const size_t count = encode(decoded.code, units);
        const size_t limit = to_size == 0 ? INT_MAX : static_cast<size_t>(to_size);
        if (written + count > limit) {
            SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return 0;
        }
        if (to_size != 0) std::memcpy(to + written, units, count * sizeof(To));
        written += count;
        i += decoded.units;
    }
    return static_cast<int>(written);
}

}  // namespace

extern "C" {

errno_t wcscpy_s(WCHAR* to, size_t size, const WCHAR* from) {
    return Copy(to, size, from);
}

errno_t wcsncpy_s(WCHAR* to, size_t size, const WCHAR* from, size_t count) {
    if (!to || size == 0) return EINVAL;
    to[0] = 0;
    if (!from) return EINVAL;
    const size_t length = BoundedLength(from, count < size ? count : size);
    if (length == size && count != _TRUNCATE) return ERANGE;
    const size_t copied = length == size ? size - 1 : length;
    std::memmove(to, from, copied * sizeof(WCHAR));
    to[copied] = 0;
    return length == size ? STRUNCATE : 0;
}

errno_t strcpy_s(char* to, size_t size, const char* from) {
    return Copy(to, size, from);
}

int _wcsicmp(const WCHAR* a, const WCHAR* b) {
    return CompareNoCase(a, b, kNoLimit);
}

int _wcsnicmp(const WCHAR* a, const WCHAR* b, size_t count) {
    return CompareNoCase(a, b, count);
}

int _strnicmp(const char* a, const char* b, size_t count) {
    return CompareNoCase(a, b, count);
}

int MultiByteToWideChar(UINT code_page, DWORD flags, LPCSTR from, int from_size, LPWSTR to,
                        int to_size) {
    const bool flags_known = (flags & ~(MB_PRECOMPOSED | MB_ERR_INVALID_CHARS)) == 0;
    const int64_t size =
        SourceSize(code_page, flags_known, from, from_size, to, to_size,
                   [](const void* text) { return std::strlen(static_cast<const char*>(text)); });
    if (size < 0) return 0;
    return Convert(from, static_cast<size_t>(size), to, to_size,
                   (flags & MB_ERR_INVALID_CHARS) != 0, posix::DecodeUtf8, posix::EncodeUtf16);
}

int WideCharToMultiByte(UINT code_page, DWORD flags, LPCWSTR from, int from_size, LPSTR to,
                        int to_size, LPCSTR default_char, LPBOOL used_default) {
    if (default_char || used_default) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    const int64_t size =
        SourceSize(code_page, (flags & ~WC_ERR_INVALID_CHARS) == 0, from, from_size, to, to_size,
                   [](const void* text) { return wcslen(static_cast<const WCHAR*>(text)); });
    if (size < 0) return 0;
    return Convert(from, static_cast<size_t>(size), to, to_size,
                   (flags & WC_ERR_INVALID_CHARS) != 0, posix::DecodeUtf16, posix::EncodeUtf8);
}

}  // extern "C"

size_t wcslen(const WCHAR* text) {
    return std::char_traits<WCHAR>::length(text);
}

int wcscmp(const WCHAR* a, const WCHAR* b) {
    for (; *a == *b; ++a, ++b)
        if (*a == 0) return 0;
    return *a < *b ? -1 : 1;
}

const WCHAR* wcsrchr(const WCHAR* text, WCHAR wanted) {
    const WCHAR* found = nullptr;
    for (;; ++text) {
        if (*text == wanted) found = text;
        if (*text == 0) return found;
    }
}

WCHAR* wcsrchr(WCHAR* text, WCHAR wanted) {
    return const_cast<WCHAR*>(wcsrchr(static_cast<const WCHAR*>(text), wanted));
}
