// The printf family: Windows' meanings, buffer ends, and what must not be read or written. One
// thread.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>

#include "platform/platform.h"

namespace {

WString Wide(const WCHAR* format, ...) {
    WCHAR buffer[512];
    va_list args;
    va_start(args, format);
    const int length = _vsnwprintf_s(buffer, 512, _TRUNCATE, format, args);
    va_end(args);
    EXPECT_EQ(length, length < 0 ? -1 : static_cast<int>(wcslen(buffer)));
    return buffer;
}

std::string Narrow(const char* format, ...) {
    char buffer[512];
    va_list args;
    va_start(args, format);
    _vsnprintf_s(buffer, 512, _TRUNCATE, format, args);
    va_end(args);
    return buffer;
}

TEST(Format, StringsInAWideFormat) {
    EXPECT_EQ(Wide(TEXT("%s: handling '%s'"), TEXT("client"), TEXT("file")),
              TEXT("client: handling 'file'"));
    EXPECT_EQ(Wide(TEXT("%S"), "narrow"), TEXT("narrow"));
    EXPECT_EQ(Wide(TEXT("%hs %ls %ws"), "a", TEXT("b"), TEXT("c")), TEXT("a b c"));
    EXPECT_EQ(Wide(TEXT("%S"), "\xC3\xA4\xF0\x9F\x8E\xAC"), TEXT("\u00E4\U0001F3AC"));
    EXPECT_EQ(
        Wide(TEXT("[%10s|%-10s|%.2s|%5.1s]"), TEXT("ab"), TEXT("ab"), TEXT("abc"), TEXT("xyz")),
        TEXT("[        ab|ab        |ab|    x]"));
    EXPECT_EQ(Wide(TEXT("[%*s|%-*s|%.*s]"), 4, TEXT("a"), 3, TEXT("b"), 1, TEXT("cd")),
              TEXT("[   a|b  |c]"));
    EXPECT_EQ(Wide(TEXT("[%*s]"), -4, TEXT("a")), TEXT("[a   ]"));
}

TEST(Format, StringsInANarrowFormat) {
    EXPECT_EQ(Narrow("%s|%S", "a", TEXT("b")), "a|b");
    EXPECT_EQ(Narrow("%hs|%ls", "a", TEXT("\u20AC")), "a|\xE2\x82\xAC");
    EXPECT_EQ(Narrow("[%4S]", TEXT("\u00E4")), "[  \xC3\xA4]");
    EXPECT_EQ(Narrow("%x %I64u %I64u", 0, uint64_t{1099511627776}, uint64_t{4398046511104}),
              "0 1099511627776 4398046511104");
}

TEST(Format, NullStringsAndIllFormedText) {
    EXPECT_EQ(
        Wide(TEXT("%s %S"), static_cast<const WCHAR*>(nullptr), static_cast<const char*>(nullptr)),
        TEXT("(null) (null)"));
    EXPECT_EQ(Wide(TEXT("%.3s|%8s"), static_cast<const WCHAR*>(nullptr),
                   static_cast<const WCHAR*>(nullptr)),
              TEXT("(nu|  (null)"));
    EXPECT_EQ(Wide(TEXT("%S"), "a\xFF\xC3"), TEXT("a\uFFFD\uFFFD"));
    const WCHAR alone[] = {0xD800, u'x', 0};
    EXPECT_EQ(Narrow("%S", alone), "\xEF\xBF\xBDx");
}

TEST(Format, Characters) {
    EXPECT_EQ(Wide(TEXT("%c%C%hc%lc"), u'\u20AC', 'b', 'c', u'd'), TEXT("\u20ACbcd"));
    EXPECT_EQ(Narrow("%c%C", 'a', u'\u00E4'), "a\xC3\xA4");
    EXPECT_EQ(Wide(TEXT("[%3c|%-3c]"), u'a', u'b'), TEXT("[  a|b  ]"));
}

TEST(Format, Integers) {
    EXPECT_EQ(Wide(TEXT("%d %i %u"), -1, INT32_MIN, UINT32_MAX), TEXT("-1 -2147483648 4294967295"));
    EXPECT_EQ(Wide(TEXT("%x %X %o"), 0xBEEFu, 0xBEEFu, 8u), TEXT("beef BEEF 10"));
    EXPECT_EQ(Wide(TEXT("%#x %#X %#o %#x %#o"), 0xBu, 0xBu, 8u, 0u, 0u), TEXT("0xb 0XB 010 0 0"));
    EXPECT_EQ(Wide(TEXT("0x%x"), static_cast<HRESULT>(0x80070005)), TEXT("0x80070005"));
    EXPECT_EQ(Wide(TEXT("%0lX"), static_cast<LONG>(0x80040FFF)), TEXT("80040FFF"));
    EXPECT_EQ(
        Wide(TEXT("%I64d %I64u %I64x %I64X"), INT64_MIN, UINT64_MAX, UINT64_MAX, uint64_t{0xAB}),
        TEXT("-9223372036854775808 18446744073709551615 ffffffffffffffff AB"));
    EXPECT_EQ(Wide(TEXT("%lld %llu %zu %Iu %jd %td"), int64_t{-2}, uint64_t{3}, size_t{4},
                   size_t{5}, int64_t{6}, int64_t{7}),
              TEXT("-2 3 4 5 6 7"));
    EXPECT_EQ(Wide(TEXT("%I32d"), -5), TEXT("-5"));
    EXPECT_EQ(Wide(TEXT("%hd %hu %hhd %hhu"), 0x18000, 0x18000, 0x1FF, 0x1FF),
              TEXT("-32768 32768 -1 255"));
    // A long is 32 bits wide here, and the next argument is found again.
    EXPECT_EQ(Wide(TEXT("%ld %lu %s"), LONG{-7}, DWORD{7}, TEXT("next")), TEXT("-7 7 next"));
}

TEST(Format, IntegerFlags) {
    EXPECT_EQ(Wide(TEXT("[%5d|%-5d|%05d|%+d|% d|%+5d]"), 42, 42, 42, 42, 42, 42),
              TEXT("[   42|42   |00042|+42| 42|  +42]"));
    EXPECT_EQ(Wide(TEXT("[%05d|%.3d|%8.3d|%08.3d|%-8.3d]"), -42, 7, 7, 7, 7),
              TEXT("[-0042|007|     007|     007|007     ]"));
    EXPECT_EQ(Wide(TEXT("[%.0d|%.d|%08x|%#06x]"), 0, 0, 0xAB, 0xAB), TEXT("[||000000ab|0x00ab]"));
}

TEST(Format, PointersAndPercent) {
    EXPECT_EQ(Wide(TEXT("%p"), reinterpret_cast<void*>(0xABCDEFull)), TEXT("0000000000ABCDEF"));
    EXPECT_EQ(Wide(TEXT("100%%")), TEXT("100%"));
}

TEST(Format, Floats) {
    EXPECT_EQ(Wide(TEXT("%f %.2f %e %g %G"), 1.5, 2.345, 1234.5, 0.0001, 1e-10),
              TEXT("1.500000 2.35 1.234500e+03 0.0001 1E-10"));
    EXPECT_EQ(Wide(TEXT("[%8.2f|%-8.2f|%08.2f|%+.1f]"), -1.5, 1.5, -1.5, 1.0),
              TEXT("[   -1.50|1.50    |-0001.50|+1.0]"));
    EXPECT_EQ(Wide(TEXT("%.1f %d"), 1e308, 7).size(), 309u + 2 + 2);
}

TEST(Format, UnknownConversionsAreCopied) {
    EXPECT_EQ(Wide(TEXT("%y %5q %"), 1), TEXT("%y %5q %"));
    EXPECT_EQ(Wide(TEXT("%")), TEXT("%"));
    EXPECT_EQ(Wide(TEXT("50%-")), TEXT("50%-"));
}

TEST(Format, RefusesToWriteThroughN) {
    int written = 77;
    WCHAR buffer[16] = TEXT("before");
    errno = 0;
    EXPECT_EQ(swprintf_s(buffer, 16, TEXT("abc%n"), &written), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(buffer[0], 0);
    EXPECT_EQ(written, 77);
}

TEST(Format, FitsExactly) {
    WCHAR buffer[4];
    EXPECT_EQ(swprintf_s(buffer, 4, TEXT("%s"), TEXT("abc")), 3);
    EXPECT_EQ(WString(buffer), TEXT("abc"));
    errno = 0;
    EXPECT_EQ(swprintf_s(buffer, 4, TEXT("%s"), TEXT("abcd")), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(buffer[0], 0);
    char narrow[4];
    EXPECT_EQ(sprintf_s(narrow, 4, "%d", 123), 3);
    EXPECT_STREQ(narrow, "123");
    EXPECT_EQ(sprintf_s(narrow, 4, "%d", 1234), -1);
    EXPECT_STREQ(narrow, "");
}

TEST(Format, CutsAtCountOrAtTheBuffersEnd) {
    WCHAR buffer[8];
    EXPECT_EQ(_snwprintf_s(buffer, 8, 3, TEXT("%s"), TEXT("abcdef")), -1);
    EXPECT_EQ(WString(buffer), TEXT("abc"));
    EXPECT_EQ(_snwprintf_s(buffer, 8, 6, TEXT("%s"), TEXT("abcdef")), 6);
    EXPECT_EQ(WString(buffer), TEXT("abcdef"));
    EXPECT_EQ(_snwprintf_s(buffer, 4, _TRUNCATE, TEXT("%s"), TEXT("abcdef")), -1);
    EXPECT_EQ(WString(buffer), TEXT("abc"));
    // A count that does not fit the buffer allows no cut.
    errno = 0;
    EXPECT_EQ(_snwprintf_s(buffer, 4, 5, TEXT("%s"), TEXT("abcdef")), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(buffer[0], 0);
    EXPECT_EQ(_snwprintf_s(buffer, 4, 5, TEXT("%s"), TEXT("abc")), 3);
    char narrow[4];
    EXPECT_EQ(_snprintf_s(narrow, 4, _TRUNCATE, "%s", "abcdef"), -1);
    EXPECT_STREQ(narrow, "abc");
    EXPECT_EQ(_snprintf_s(narrow, 4, 2, "%s", "abcdef"), -1);
    EXPECT_STREQ(narrow, "ab");
}

TEST(Format, BadArguments) {
    WCHAR buffer[4] = {u'x', 0};
    errno = 0;
    EXPECT_EQ(swprintf_s(nullptr, 4, TEXT("a")), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(swprintf_s(buffer, 0, TEXT("a")), -1);
    EXPECT_EQ(buffer[0], u'x');
    EXPECT_EQ(swprintf_s(buffer, 4, nullptr), -1);
    EXPECT_EQ(buffer[0], 0);
}

TEST(Format, ReadsNoFurtherThanAllowed) {
    // Not terminated; the sanitizers watch what lies behind.
    const std::unique_ptr<char[]> narrow(new char[3]{'a', 'b', 'c'});
    EXPECT_EQ(Wide(TEXT("%.3S|%.*S"), narrow.get(), 2, narrow.get()), TEXT("abc|ab"));
    const std::unique_ptr<WCHAR[]> wide(new WCHAR[2]{u'a', u'b'});
    EXPECT_EQ(Wide(TEXT("%.2s"), wide.get()), TEXT("ab"));
    EXPECT_EQ(Narrow("%.2S", wide.get()), "ab");
    // A cut UTF-8 sequence at the bound.
    const std::unique_ptr<char[]> cut(new char[2]{'a', '\xE2'});
    EXPECT_EQ(Wide(TEXT("%.2S"), cut.get()), TEXT("a\uFFFD"));
}

TEST(Format, HostileWidthsEndAtTheBuffer) {
    WCHAR buffer[64];
    EXPECT_EQ(_snwprintf_s(buffer, 64, _TRUNCATE, TEXT("%99999999999999999999d"), 1), -1);
    EXPECT_EQ(wcslen(buffer), 63u);
    EXPECT_EQ(_snwprintf_s(buffer, 64, _TRUNCATE, TEXT("%.2147483647d"), 1), -1);
    EXPECT_EQ(_snwprintf_s(buffer, 64, _TRUNCATE, TEXT("%*.*f"), INT32_MIN, INT32_MAX, 1.0), -1);
    EXPECT_EQ(wcslen(buffer), 63u);
}

TEST(Format, AgreesWithTheCLibraryOnRandomNumbers) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);
    const char* flags[] = {"", "-", "0", "+", " ", "#", "-#", "+0", " -"};
    const char kinds[] = {'d', 'u', 'x', 'X', 'o'};
    for (int i = 0; i < 5000; ++i) {
        const char kind = kinds[random() % sizeof(kinds)];
        std::string flag = flags[random() % 9];
        // Not defined by C: # for decimals, signs for unsigned.
        if (kind == 'd' || kind == 'u') std::erase(flag, '#');
        if (kind != 'd') std::erase_if(flag, [](char c) { return c == '+' || c == ' '; });
        std::string shape = "%" + flag;
        if (random() % 2) shape += std::to_string(random() % 30);
        if (random() % 3 == 0) shape += "." + std::to_string(random() % 25);
        const uint64_t value = random() >> (random() % 64);
        char expected[128], narrow[128];
        std::snprintf(expected, sizeof(expected), (shape + "ll" + kind).c_str(), value);
        sprintf_s(narrow, sizeof(narrow), (shape + "I64" + kind).c_str(), value);
        ASSERT_STREQ(narrow, expected) << shape << kind;
    }
}

}  // namespace
