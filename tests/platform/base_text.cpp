// Copies, comparison and code pages. One thread.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <random>

#include "platform/platform.h"

namespace {

TEST(Text, CopiesWhatFitsOrNothing) {
    WCHAR to[4] = {u'x', u'x', u'x', u'x'};
    EXPECT_EQ(wcscpy_s(to, 4, TEXT("abc")), 0);
    EXPECT_EQ(WString(to), TEXT("abc"));
    EXPECT_EQ(wcscpy_s(to, 4, TEXT("abcd")), ERANGE);
    EXPECT_EQ(to[0], 0);
    EXPECT_EQ(wcscpy_s(nullptr, 4, TEXT("a")), EINVAL);
    EXPECT_EQ(wcscpy_s(to, 0, TEXT("a")), EINVAL);
    to[0] = u'x';
    EXPECT_EQ(wcscpy_s(to, 4, nullptr), EINVAL);
    EXPECT_EQ(to[0], 0);
    char narrow[4];
    EXPECT_EQ(strcpy_s(narrow, 4, "abc"), 0);
    EXPECT_STREQ(narrow, "abc");
    EXPECT_EQ(strcpy_s(narrow, 4, "abcd"), ERANGE);
    EXPECT_STREQ(narrow, "");
}

TEST(Text, CopiesACount) {
    WCHAR to[4];
    EXPECT_EQ(wcsncpy_s(to, 4, TEXT("abcdef"), 3), 0);
    EXPECT_EQ(WString(to), TEXT("abc"));
    EXPECT_EQ(wcsncpy_s(to, 4, TEXT("ab"), 100), 0);
    EXPECT_EQ(WString(to), TEXT("ab"));
    EXPECT_EQ(wcsncpy_s(to, 4, TEXT("abcdef"), 4), ERANGE);
    EXPECT_EQ(to[0], 0);
    EXPECT_EQ(wcsncpy_s(to, 4, TEXT("abcdef"), _TRUNCATE), STRUNCATE);
    EXPECT_EQ(WString(to), TEXT("abc"));
    EXPECT_EQ(wcsncpy_s(to, 4, TEXT("abc"), _TRUNCATE), 0);
    EXPECT_EQ(wcsncpy_s(to, 4, TEXT("abc"), 0), 0);
    EXPECT_EQ(to[0], 0);
    EXPECT_EQ(wcsncpy_s(to, 4, nullptr, 2), EINVAL);
    // Reads no more than the count.
    const WCHAR source[2] = {u'a', u'b'};
    EXPECT_EQ(wcsncpy_s(to, 4, source, 2), 0);
    EXPECT_EQ(WString(to), TEXT("ab"));
}

TEST(Text, Compares) {
    EXPECT_EQ(_wcsicmp(TEXT("Media"), TEXT("mEDIA")), 0);
    EXPECT_LT(_wcsicmp(TEXT("a"), TEXT("B")), 0);
    EXPECT_GT(_wcsicmp(TEXT("ab"), TEXT("A")), 0);
    // Only ASCII has two cases here.
    EXPECT_NE(_wcsicmp(TEXT("\u00C4"), TEXT("\u00E4")), 0);
    EXPECT_EQ(_wcsnicmp(TEXT("/MEDIA/STATUSxyz"), TEXT("/media/status"), 13), 0);
    EXPECT_NE(_wcsnicmp(TEXT("/media"), TEXT("/media/status"), 13), 0);
    EXPECT_EQ(_wcsnicmp(TEXT("a"), TEXT("b"), 0), 0);
    EXPECT_LT(_strnicmp("a\x7F", "a\x80", 2), 0);
    EXPECT_EQ(_strnicmp("abX", "ABy", 2), 0);
    EXPECT_LT(_strnicmp("abX", "ABy", 3), 0);
    EXPECT_EQ(wcscmp(TEXT("a"), TEXT("a")), 0);
    EXPECT_LT(wcscmp(TEXT("A"), TEXT("a")), 0);
}

TEST(Text, Searches) {
    const WCHAR* text = TEXT("a\\b\\c");
    EXPECT_EQ(wcslen(text), 5u);
    EXPECT_EQ(wcsrchr(text, u'\\'), text + 3);
    EXPECT_EQ(wcsrchr(text, u'/'), nullptr);
    EXPECT_EQ(wcsrchr(text, 0), text + 5);
}

int ToWide(const char* from, int size, WCHAR* to, int room, DWORD flags = 0) {
    return MultiByteToWideChar(CP_UTF8, flags, from, size, to, room);
}

TEST(CodePage, ConvertsBothWays) {
    WCHAR wide[16];
    EXPECT_EQ(ToWide("a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x8E\xAC", -1, wide, 16), 6);
    EXPECT_EQ(WString(wide), TEXT("a\u00E4\u20AC\U0001F3AC"));
    EXPECT_EQ(ToWide("abc", 2, wide, 16), 2);
    EXPECT_EQ(ToWide("abc", -1, nullptr, 0), 4);
    EXPECT_EQ(ToWide("a\0b", 3, wide, 16), 3);
    EXPECT_EQ(wide[1], 0);
    char narrow[16];
    EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, TEXT("a\u00E4\u20AC\U0001F3AC"), -1, narrow, 16,
                                  nullptr, nullptr),
              11);
    EXPECT_STREQ(narrow, "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x8E\xAC");
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, TEXT("\u20AC"), 1, nullptr, 0, nullptr, nullptr), 3);
}

TEST(CodePage, RefusesBadArguments) {
    WCHAR wide[4];
    SetLastError(0);
    EXPECT_EQ(ToWide("abcd", 4, wide, 3), 0);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(ToWide("a", 0, wide, 4), 0);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(ToWide("a", 1, wide, 4, 0x4000), 0);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_FLAGS);
    SetLastError(0);
    EXPECT_EQ(MultiByteToWideChar(12345, 0, "a", 1, wide, 4), 0);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    SetLastError(0);
    char narrow[4];
    BOOL used = FALSE;
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, TEXT("a"), 1, narrow, 4, "?", &used), 0);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    // Not half a character either.
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, TEXT("ab\u20AC"), 3, narrow, 4, nullptr, nullptr), 0);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
}

TEST(CodePage, ReplacesIllFormedText) {
    struct {
        const char* bytes;
        const WCHAR* text;
    } const cases[] = {
        {"a\x80z", TEXT("a\uFFFDz")},
        {"\xC0\xAF", TEXT("\uFFFD\uFFFD")},
        {"\xE0\x80\xAF", TEXT("\uFFFD\uFFFD\uFFFD")},
        {"\xED\xA0\x80", TEXT("\uFFFD\uFFFD\uFFFD")},
        {"\xF4\x90\x80\x80", TEXT("\uFFFD\uFFFD\uFFFD\uFFFD")},
        {"\xE2\x82", TEXT("\uFFFD")},
        {"\xE2\x82z", TEXT("\uFFFDz")},
        {"\xF0\x9F\x8E", TEXT("\uFFFD")},
        {"\xF8\x88\x80\x80\x80", TEXT("\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD")},
    };
    for (const auto& c : cases) {
        WCHAR wide[16];
        EXPECT_GT(ToWide(c.bytes, -1, wide, 16), 0);
        EXPECT_EQ(WString(wide), c.text);
        SetLastError(0);
        EXPECT_EQ(ToWide(c.bytes, -1, wide, 16, MB_ERR_INVALID_CHARS), 0);
        EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION);
    }
    const WCHAR swapped[] = {0xDC00, 0xD800, 0};
    char narrow[16];
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, swapped, -1, narrow, 16, nullptr, nullptr), 7);
    EXPECT_STREQ(narrow, "\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, swapped, -1, narrow, 16, nullptr,
                                  nullptr),
              0);
    EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION);
}

TEST(CodePage, EveryByteStringConvertsAndComesBackStable) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int i = 0; i < 5000; ++i) {
        std::string bytes(1 + random() % 12, ' ');
        for (char& c : bytes)
            c = static_cast<char>(random());
        WCHAR wide[32];
        const int units = ToWide(bytes.data(), static_cast<int>(bytes.size()), wide, 32);
        ASSERT_GT(units, 0);
        ASSERT_EQ(ToWide(bytes.data(), static_cast<int>(bytes.size()), nullptr, 0), units);
        char narrow[128];
        const int size = WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, wide, units, narrow,
                                             128, nullptr, nullptr);
        ASSERT_GT(size, 0);
        WCHAR again[32];
        ASSERT_EQ(ToWide(narrow, size, again, 32, MB_ERR_INVALID_CHARS), units);
        ASSERT_EQ(std::memcmp(wide, again, static_cast<size_t>(units) * sizeof(WCHAR)), 0);
    }
}

}  // namespace
