// Conversion between 8-bit and wide text, and the registry values that the server reads.
#include "tests/fakes/serverfixture.h"
#include "zemhttpd/server/narrowtext.h"
#include "zemhttpd/server/registrykey.h"

#include <gtest/gtest.h>

namespace {

WString Widen(const std::string& text, size_t room = 260) {
    WCHAR out[700] = {};
    const size_t units = WidenText(text.data(), text.size(), out, room);
    EXPECT_EQ(units, wcslen(out));
    return out;
}

std::string Narrow(const WString& text, size_t room = 260) {
    char out[700] = {};
    const size_t bytes = NarrowText(text.c_str(), out, room);
    EXPECT_EQ(bytes, strlen(out));
    return out;
}

TEST(NarrowText, AsciiGoesThrough) {
    EXPECT_EQ(Widen("client-1"), TEXT("client-1"));
    EXPECT_EQ(Narrow(TEXT("client-1")), "client-1");
    EXPECT_EQ(Widen(""), TEXT(""));
    EXPECT_EQ(Narrow(TEXT("")), "");
}

TEST(NarrowText, TheCodePageIsUtf8AndIllFormedBytesBecomeTheReplacementCharacter) {
    EXPECT_EQ(Widen("\xC3\xA4\xE2\x82\xAC"), WString(TEXT("\u00E4\u20AC")));
    EXPECT_EQ(Widen("a\xFF"
                    "b"),
              WString(TEXT("a\uFFFDb")));
    EXPECT_EQ(Narrow(TEXT("\u00E4\u20AC")), "\xC3\xA4\xE2\x82\xAC");
    EXPECT_EQ(Narrow(WString(TEXT("\U0001F3AC"))), "\xF0\x9F\x8E\xAC");
}

TEST(NarrowText, LongTextIsCut) {
    EXPECT_EQ(Widen(std::string(600, 'x')), WString(259, u'x'));
    EXPECT_EQ(Narrow(WString(600, u'x')), std::string(259, 'x'));
}

TEST(NarrowText, CutsFallBetweenCharacters) {
    // 300 two-byte characters cross the conversion's steps.
    std::string umlauts;
    for (int i = 0; i < 300; ++i)
        umlauts += "\xC3\xA4";
    EXPECT_EQ(Widen("x" + umlauts, 700), TEXT("x") + WString(300, u'\u00E4'));
    EXPECT_EQ(Widen("x" + umlauts), TEXT("x") + WString(258, u'\u00E4'));
    EXPECT_EQ(Narrow(WString(300, u'\u00E4'), 10), "\xC3\xA4\xC3\xA4\xC3\xA4\xC3\xA4");
    // A surrogate pair that does not fit goes whole.
    EXPECT_EQ(Widen("ab\xF0\x9F\x8E\xAC", 4), TEXT("ab"));
    EXPECT_EQ(Widen("ab\xF0\x9F\x8E\xAC", 5), WString(TEXT("ab\U0001F3AC")));
}

TEST(NarrowText, NoRoomIsRespected) {
    WCHAR wide[1] = {u'x'};
    EXPECT_EQ(WidenText("abc", 3, wide, 1), 0u);
    EXPECT_EQ(wide[0], 0);
    EXPECT_EQ(WidenText("abc", 3, wide, 0), 0u);
    char narrow[1] = {'x'};
    EXPECT_EQ(NarrowText(TEXT("abc"), narrow, 1), 0u);
    EXPECT_EQ(narrow[0], 0);
}

TEST(RegistryKey, MissingKeyReadsNothing) {
    const CRegistryKey key(TEXT("Software\\No Such Vendor"));
    EXPECT_FALSE(key.IsOpen());
    DWORD value = 9;
    EXPECT_FALSE(key.ReadDword(TEXT("x"), value));
    EXPECT_EQ(value, 9u);
}

TEST(RegistryKey, DwordOfTheRightTypeOnly) {
    const CRegistryValue good(kTestZemKey, TEXT("Good"), 0x12345678u);
    const CRegistryValue text(kTestZemKey, TEXT("Text"), TEXT("5"));
    const ULONGLONG wide = 5;
    const CRegistryValue quad(kTestZemKey, TEXT("Quad"), REG_QWORD, &wide, sizeof(wide));
    const CRegistryKey key(kZemKeyPath);
    ASSERT_TRUE(key.IsOpen());
    DWORD value = 9;
    EXPECT_FALSE(key.ReadDword(TEXT("Text"), value));
    EXPECT_FALSE(key.ReadDword(TEXT("Quad"), value));
    EXPECT_FALSE(key.ReadDword(TEXT("Missing"), value));
    EXPECT_EQ(value, 9u);
    EXPECT_TRUE(key.ReadDword(TEXT("Good"), value));
    EXPECT_EQ(value, 0x12345678u);
}

struct StringRead {
    bool read;
    WString text;
    DWORD length;
};
StringRead ReadString(const WCHAR* name) {
    WCHAR text[kNameUnits] = TEXT("before");
    DWORD length = kNameUnits;
    const bool read = CRegistryKey(kZemKeyPath).ReadString(name, text, length);
    return {read, text, length};
}

TEST(RegistryKey, StringsOfBothTypes) {
    const CRegistryValue plain(kTestZemKey, TEXT("Plain"), TEXT("value"));
    const CRegistryValue expand(kTestZemKey, TEXT("Expand"), TEXT("%x%"), REG_EXPAND_SZ);
    StringRead read = ReadString(TEXT("Plain"));
    EXPECT_TRUE(read.read);
    EXPECT_EQ(read.text, TEXT("value"));
    EXPECT_EQ(read.length, 6u);
    read = ReadString(TEXT("Expand"));
    EXPECT_TRUE(read.read);
    EXPECT_EQ(read.text, TEXT("%x%")) << "not expanded";
}

TEST(RegistryKey, EmptyValueYieldsTheEmptyText) {
    const CRegistryValue empty(kTestZemKey, TEXT("Empty"), REG_SZ, TEXT(""), 0);
    const CRegistryValue nul(kTestZemKey, TEXT("Nul"), TEXT(""));
    EXPECT_TRUE(ReadString(TEXT("Empty")).read);
    EXPECT_EQ(ReadString(TEXT("Empty")).text, TEXT(""));
    EXPECT_TRUE(ReadString(TEXT("Nul")).read);
    EXPECT_EQ(ReadString(TEXT("Nul")).text, TEXT(""));
}

TEST(RegistryKey, MalformedStringsLeaveTheBuffer) {
    const CRegistryValue odd(kTestZemKey, TEXT("Odd"), REG_SZ, TEXT("ab\0"), 5);
    const CRegistryValue open(kTestZemKey, TEXT("Open"), REG_SZ, TEXT("ab"), 4);
    const CRegistryValue number(kTestZemKey, TEXT("Number"), 5u);
    const CRegistryValue tooLong(kTestZemKey, TEXT("Long"), WString(260, u'x').c_str());
    const CRegistryValue fits(kTestZemKey, TEXT("Fits"), WString(259, u'x').c_str());
    for (const WCHAR* name :
         {TEXT("Odd"), TEXT("Open"), TEXT("Number"), TEXT("Long"), TEXT("Missing")}) {
        const StringRead read = ReadString(name);
        EXPECT_FALSE(read.read) << Utf8(name);
        EXPECT_EQ(read.text, TEXT("before")) << Utf8(name);
        EXPECT_EQ(read.length, static_cast<DWORD>(kNameUnits)) << Utf8(name);
    }
    EXPECT_EQ(ReadString(TEXT("Fits")).text, WString(259, u'x'));
}

}  // namespace
