// What clients may call a file.
#include "mediaio/store/names.h"

#include <gtest/gtest.h>

namespace {

using namespace zemstore;

struct NameCase {
    const WCHAR* name;
    HRESULT hr;
    const char* path;
};

TEST(Names, Rules) {
    const HRESULT denied = E_ACCESSDENIED;
    const HRESULT bad = HRESULT_FROM_WIN32(ERROR_INVALID_NAME);
    const NameCase cases[] = {
        {TEXT("clip"), S_OK, "clip"},
        {TEXT("media/clip.v0"), S_OK, "media/clip.v0"},
        {TEXT("media\\clip.v0"), S_OK, "media/clip.v0"},
        {TEXT("media//.//clip/"), S_OK, "media/clip"},
        {TEXT(""), S_OK, ""},
        {TEXT("/srv/volume/a/b"), S_OK, "a/b"},
        {TEXT("\\srv\\volume\\a"), S_OK, "a"},
        {TEXT("/srv/volume"), S_OK, ""},
        {TEXT("/srv/volumes/a"), denied, nullptr},
        {TEXT("/a"), denied, nullptr},
        {TEXT("//server/share"), denied, nullptr},
        {TEXT(".."), denied, nullptr},
        {TEXT("a/../b"), denied, nullptr},
        {TEXT("/srv/volume/../x"), denied, nullptr},
        {TEXT("C:\\a"), denied, nullptr},
        {TEXT("a:stream"), denied, nullptr},
        {TEXT("nul"), denied, nullptr},
        {TEXT("media/Com1.v0"), denied, nullptr},
        {TEXT("con .txt"), denied, nullptr},
        {TEXT("media/LPT\u00b3.v0"), denied, nullptr},
        {TEXT("com\u2070"), S_OK, "com\xE2\x81\xB0"},
        {TEXT("console"), S_OK, "console"},
        {TEXT("com10"), S_OK, "com10"},
        {TEXT("a*"), bad, nullptr},
        {TEXT("a?"), bad, nullptr},
        {TEXT("a\u0001"), bad, nullptr},
        {TEXT("a."), bad, nullptr},
        {TEXT("a "), bad, nullptr},
        {TEXT("..."), bad, nullptr},
        {TEXT("%s%n"), S_OK, "%s%n"},
        {TEXT("Stra\u00DFe/\u65E5\u672C"), S_OK,
         "Stra\xC3\x9F"
         "e/\xE6\x97\xA5\xE6\x9C\xAC"},
    };
    for (const NameCase& one : cases) {
        std::string path = "untouched";
        EXPECT_EQ(ParseName(one.name, "/srv/volume", path), one.hr)
            << (one.path ? one.path : "(refused)");
        EXPECT_EQ(path, one.path != nullptr ? one.path : "untouched");
    }
}

TEST(Names, Surrogates) {
    std::string path;
    const WCHAR pair[] = {0xD83D, 0xDE00, 0};
    EXPECT_EQ(ParseName(pair, "", path), S_OK);
    EXPECT_EQ(path, "\xF0\x9F\x98\x80");
    const WCHAR alone[] = {u'a', 0xD83D, 0};
    EXPECT_EQ(ParseName(alone, "", path), HRESULT_FROM_WIN32(ERROR_INVALID_NAME));
    const WCHAR low[] = {0xDE00, u'a', 0};
    EXPECT_EQ(ParseName(low, "", path), HRESULT_FROM_WIN32(ERROR_INVALID_NAME));
}

TEST(Names, Bounds) {
    std::string path;
    EXPECT_EQ(ParseName(nullptr, "", path), E_INVALIDARG);
    const WString fits = WString(250, u'a');
    EXPECT_EQ(ParseName(fits.c_str(), "", path), S_OK);
    const WString endless(kNameRoom, u'a');
    EXPECT_EQ(ParseName(endless.c_str(), "", path), HRESULT_FROM_WIN32(ERROR_FILENAME_EXCED_RANGE));
    const WString part(130, u'\u00DF');  // 260 bytes
    EXPECT_EQ(ParseName(part.c_str(), "", path), HRESULT_FROM_WIN32(ERROR_FILENAME_EXCED_RANGE));
    EXPECT_EQ(ParseFileName(TEXT("."), "", path), E_INVALIDARG);
    EXPECT_EQ(ParseName(TEXT("/a"), "", path), E_ACCESSDENIED) << "no root, nothing is below it";
    EXPECT_EQ(ParseName(TEXT("/a"), "/", path), S_OK);
    EXPECT_EQ(path, "a");
}

TEST(Names, Streams) {
    StreamName stream;
    EXPECT_EQ(ParseStreamName(nullptr, stream), S_OK);
    EXPECT_EQ(stream.kind, StreamKind::kFirst);
    EXPECT_EQ(ParseStreamName(TEXT(""), stream), S_OK);
    EXPECT_EQ(ParseStreamName(TEXT("v0"), stream), S_OK);
    EXPECT_EQ(stream.kind, StreamKind::kVideo);
    EXPECT_EQ(ParseStreamName(TEXT("a12"), stream), S_OK);
    EXPECT_EQ(stream.kind, StreamKind::kAudio);
    EXPECT_EQ(stream.index, 12u);
    EXPECT_EQ(ParseStreamName(TEXT("tc"), stream), S_OK);
    EXPECT_EQ(stream.kind, StreamKind::kTimecode);
    EXPECT_EQ(ParseStreamName(TEXT("mk"), stream), S_OK);
    for (const WCHAR* wrong :
         {TEXT("v"), TEXT("x0"), TEXT("v0x"), TEXT("v1000"), TEXT("tcc"), TEXT("longername")}) {
        EXPECT_EQ(ParseStreamName(wrong, stream), E_INVALIDARG);
    }
}

}  // namespace
