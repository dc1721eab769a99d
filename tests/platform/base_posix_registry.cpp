// The registry file: format, views, changes, overrides and mistakes. Linux only.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <optional>
#include <thread>
#include <vector>

#include "platform/platform.h"
#include "platform/posix/object.h"
#include "tests/platform/sysloglines.h"
#include "tests/tempfolder.h"

namespace {

class Registry : public testing::Test {
protected:
    Registry() {
        SetRegistryFile(m_path.c_str());
        TakeSyslogLines();
    }
    ~Registry() override { SetRegistryFile(nullptr); }

    void Write(const std::string& text) { std::ofstream(m_path, std::ios::binary) << text; }
    void WriteVersion5(const std::string& text) {
        Write("Windows Registry Editor Version 5.00\r\n\r\n" + text);
    }

    static LSTATUS Open(const WCHAR* key, HKEY* result, REGSAM rights = KEY_READ,
                        HKEY root = HKEY_LOCAL_MACHINE) {
        return RegOpenKeyExW(root, key, 0, rights, result);
    }

    // The value's type and bytes; nothing when key or value is missing.
    struct CValue {
        DWORD type;
        std::string bytes;
    };
    static std::optional<CValue> Get(const WCHAR* key, const WCHAR* name, REGSAM rights = KEY_READ,
                                     HKEY root = HKEY_LOCAL_MACHINE) {
        HKEY handle;
        if (Open(key, &handle, rights, root) != ERROR_SUCCESS) return {};
        CValue value{};
        DWORD size = 0;
        LSTATUS status = RegQueryValueExW(handle, name, nullptr, &value.type, nullptr, &size);
        if (status == ERROR_SUCCESS) {
            value.bytes.resize(size);
            status = RegQueryValueExW(handle, name, nullptr, &value.type,
                                      reinterpret_cast<BYTE*>(value.bytes.data()), &size);
            EXPECT_EQ(status, ERROR_SUCCESS);
            EXPECT_EQ(size, value.bytes.size());
        }
        EXPECT_EQ(RegCloseKey(handle), ERROR_SUCCESS);
        return status == ERROR_SUCCESS ? std::optional(value) : std::nullopt;
    }
    static DWORD Number(const WCHAR* key, const WCHAR* name, REGSAM rights = KEY_READ) {
        const auto value = Get(key, name, rights);
        if (!value || value->type != REG_DWORD || value->bytes.size() != 4) return 0xDEADu;
        DWORD number;
        std::memcpy(&number, value->bytes.data(), 4);
        return number;
    }
    static WString String(const WCHAR* key, const WCHAR* name) {
        const auto value = Get(key, name);
        if (!value || value->type != REG_SZ) return TEXT("(none)");
        WString text(value->bytes.size() / 2, u'\0');
        std::memcpy(text.data(), value->bytes.data(), value->bytes.size());
        EXPECT_FALSE(text.empty());
        EXPECT_EQ(text.back(), 0);
        text.pop_back();
        return text;
    }

    CTempFolder m_folder;
    std::string m_path = m_folder.File("settings.reg");
};

TEST_F(Registry, AMissingFileIsEmpty) {
    HKEY key = nullptr;
    EXPECT_EQ(Open(TEXT("Software"), &key), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Open(nullptr, &key), ERROR_SUCCESS);
    EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
    EXPECT_TRUE(TakeSyslogLines().empty());
}

TEST_F(Registry, ReadsEveryKindOfValue) {
    WriteVersion5(
        "; a comment\r\n"
        "[HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\ZEM]\r\n"
        "@=\"the default\"\r\n"
        "\"HttpPort\"=dword:00001f90 ; trailing\r\n"
        "  \"padded\" = dword:1\r\n"
        "\"path\"=\"D:\\\\media\\\\\\\"x\\\" [y] ;z\"\r\n"
        "\"lines\"=\"a\\r\\nb\"\r\n"
        "\"quoted\\\"name\\\\\"=\"q\"\r\n"
        "\"bytes\"=hex:01,02,\\\r\n"
        "  0a,FF\r\n"
        "\"none\"=hex:\r\n"
        "\"expand\"=hex(2):25,00,\\\r\n"
        "  00,00\r\n"
        "\"multi\"=hex(7):61,00,00,00,62,00,00,00,00,00\r\n"
        "\"long\"=hex(b):08,07,06,05,04,03,02,01\r\n"
        "\"\xE2\x82\xAC\"=\"\xC3\xA4\"\r\n");
    const WCHAR* key = TEXT("Software\\Quorvane Group\\ZEM");
    EXPECT_EQ(String(key, nullptr), TEXT("the default"));
    EXPECT_EQ(String(key, TEXT("")), TEXT("the default"));
    EXPECT_EQ(Number(key, TEXT("HttpPort")), 8080u);
    EXPECT_EQ(Number(key, TEXT("padded")), 1u);
    EXPECT_EQ(String(key, TEXT("path")), TEXT("D:\\media\\\"x\" [y] ;z"));
    EXPECT_EQ(String(key, TEXT("lines")), TEXT("a\r\nb"));
    EXPECT_EQ(String(key, TEXT("quoted\"name\\")), TEXT("q"));
    EXPECT_EQ(Get(key, TEXT("bytes"))->bytes, "\x01\x02\x0A\xFF");
    EXPECT_EQ(Get(key, TEXT("bytes"))->type, REG_BINARY);
    EXPECT_EQ(Get(key, TEXT("none"))->bytes, "");
    EXPECT_EQ(Get(key, TEXT("expand"))->type, REG_EXPAND_SZ);
    EXPECT_EQ(Get(key, TEXT("expand"))->bytes, std::string("%\0\0\0", 4));
    EXPECT_EQ(Get(key, TEXT("multi"))->type, REG_MULTI_SZ);
    EXPECT_EQ(Get(key, TEXT("multi"))->bytes.size(), 10u);
    EXPECT_EQ(Get(key, TEXT("long"))->type, REG_QWORD);
    EXPECT_EQ(String(key, TEXT("\u20AC")), TEXT("\u00E4"));
    EXPECT_TRUE(TakeSyslogLines().empty());
}

TEST_F(Registry, NamesHaveNoCaseAndParentsExist) {
    WriteVersion5("[HKEY_LOCAL_MACHINE\\SOFTWARE\\A\\B]\n\"Name\"=dword:7\n");
    EXPECT_EQ(Number(TEXT("sOfTwArE\\a\\b"), TEXT("NAME")), 7u);
    EXPECT_EQ(Number(TEXT("Software\\A\\B\\"), TEXT("name")), 7u);
    HKEY parent, child;
    ASSERT_EQ(Open(TEXT("Software\\A"), &parent), ERROR_SUCCESS);
    ASSERT_EQ(RegOpenKeyExW(parent, TEXT("b"), 0, KEY_READ, &child), ERROR_SUCCESS);
    DWORD value = 0, size = 4, type = 0;
    EXPECT_EQ(RegQueryValueExW(child, TEXT("Name"), nullptr, &type, reinterpret_cast<BYTE*>(&value),
                               &size),
              ERROR_SUCCESS);
    EXPECT_EQ(value, 7u);
    EXPECT_EQ(RegQueryValueExW(parent, TEXT("Name"), nullptr, &type, nullptr, nullptr),
              ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegCloseKey(child), ERROR_SUCCESS);
    EXPECT_EQ(RegCloseKey(parent), ERROR_SUCCESS);
    EXPECT_EQ(RegCloseKey(parent), ERROR_INVALID_HANDLE);
}

TEST_F(Registry, Encodings) {
    const std::string body =
        "[HKEY_LOCAL_MACHINE\\K]\r\n\"v\"=\"\xE2\x82\xAC\"\r\n\"e\"=hex(2):e2,82,ac,00\r\n";
    Write("REGEDIT4\r\n" + body);
    EXPECT_EQ(String(TEXT("K"), TEXT("v")), TEXT("\u20AC"));
    EXPECT_EQ(Get(TEXT("K"), TEXT("e"))->bytes, std::string("\xAC\x20\0\0", 4));
    Write("\xEF\xBB\xBFWindows Registry Editor Version 5.00\r\n" + body);
    EXPECT_EQ(String(TEXT("K"), TEXT("v")), TEXT("\u20AC"));
    EXPECT_EQ(Get(TEXT("K"), TEXT("e"))->bytes, std::string("\xE2\x82\xAC\0", 4));
    const WString wide = TEXT(
        "\uFEFFWindows Registry Editor Version "
        "5.00\r\n[HKEY_LOCAL_MACHINE\\K]\r\n\"v\"=\"\U0001F3AC\"\r\n");
    Write(std::string(reinterpret_cast<const char*>(wide.data()), wide.size() * 2));
    EXPECT_EQ(String(TEXT("K"), TEXT("v")), TEXT("\U0001F3AC"));
    EXPECT_TRUE(TakeSyslogLines().empty());
}

TEST_F(Registry, DeletionsInTheFile) {
    WriteVersion5(
        "[HKEY_LOCAL_MACHINE\\A]\n\"x\"=dword:1\n\"y\"=dword:2\n\"x\"=-\n"
        "[HKEY_LOCAL_MACHINE\\A\\B]\n\"z\"=dword:3\n"
        "[HKEY_LOCAL_MACHINE\\AB]\n\"z\"=dword:4\n"
        "[-HKEY_LOCAL_MACHINE\\A\\B]\n");
    EXPECT_FALSE(Get(TEXT("A"), TEXT("x")));
    EXPECT_EQ(Number(TEXT("A"), TEXT("y")), 2u);
    HKEY key;
    EXPECT_EQ(Open(TEXT("A\\B"), &key), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Number(TEXT("AB"), TEXT("z")), 4u);
}

TEST_F(Registry, TheTwoViews) {
    WriteVersion5(
        "[HKEY_LOCAL_MACHINE\\Software\\K]\n\"v\"=dword:64\n"
        "[HKEY_LOCAL_MACHINE\\Software\\WOW6432Node\\K]\n\"v\"=dword:32\n"
        "[HKEY_LOCAL_MACHINE\\Software\\Classes\\.x]\n\"v\"=dword:1\n"
        "[HKEY_LOCAL_MACHINE\\System\\K]\n\"v\"=dword:2\n");
    const WCHAR* key = TEXT("Software\\K");
    EXPECT_EQ(Number(key, TEXT("v")), 0x64u);
    EXPECT_EQ(Number(key, TEXT("v"), KEY_READ | KEY_WOW64_64KEY), 0x64u);
    EXPECT_EQ(Number(key, TEXT("v"), KEY_READ | KEY_WOW64_32KEY), 0x32u);
    EXPECT_EQ(Number(TEXT("Software\\WOW6432Node\\K"), TEXT("v")), 0x32u);
    EXPECT_EQ(Number(TEXT("Software\\WOW6432Node\\K"), TEXT("v"), KEY_READ | KEY_WOW64_32KEY),
              0x32u);
    EXPECT_EQ(Number(TEXT("Software\\Classes\\.x"), TEXT("v"), KEY_READ | KEY_WOW64_32KEY), 1u);
    EXPECT_EQ(Number(TEXT("System\\K"), TEXT("v"), KEY_READ | KEY_WOW64_32KEY), 2u);
    HKEY handle;
    EXPECT_EQ(Open(key, &handle, KEY_READ | KEY_WOW64_32KEY | KEY_WOW64_64KEY),
              ERROR_INVALID_PARAMETER);
}

TEST_F(Registry, ClassesRoot) {
    WriteVersion5("[HKEY_CLASSES_ROOT\\.mxf]\n\"Content Type\"=\"application/mxf\"\n");
    // Write rights are part of how a type is looked up.
    HKEY key;
    ASSERT_EQ(Open(TEXT(".MXF"), &key, 0x2001F, HKEY_CLASSES_ROOT), ERROR_SUCCESS);
    char type[260];
    DWORD size = sizeof(type);
    ASSERT_EQ(RegQueryValueExA(key, "content type", nullptr, nullptr, reinterpret_cast<BYTE*>(type),
                               &size),
              ERROR_SUCCESS);
    EXPECT_STREQ(type, "application/mxf");
    EXPECT_EQ(size, 16u);
    EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
    EXPECT_EQ(String(TEXT("Software\\Classes\\.mxf"), TEXT("Content Type")),
              TEXT("application/mxf"));
    EXPECT_EQ(RegCloseKey(HKEY_CLASSES_ROOT), ERROR_SUCCESS);
}

TEST_F(Registry, SizesAndErrors) {
    WriteVersion5("[HKEY_LOCAL_MACHINE\\K]\n\"n\"=dword:5\n\"s\"=\"\xC3\xA4z\"\n");
    HKEY key;
    ASSERT_EQ(Open(TEXT("K"), &key), ERROR_SUCCESS);
    BYTE data[16];
    DWORD type = 77, size = 3;
    EXPECT_EQ(RegQueryValueExW(key, TEXT("n"), nullptr, &type, data, &size), ERROR_MORE_DATA);
    EXPECT_EQ(type, REG_DWORD);
    EXPECT_EQ(size, 4u);
    size = 0;
    EXPECT_EQ(RegQueryValueExW(key, TEXT("s"), nullptr, &type, nullptr, &size), ERROR_SUCCESS);
    EXPECT_EQ(size, 6u);
    EXPECT_EQ(type, REG_SZ);
    EXPECT_EQ(RegQueryValueExW(key, TEXT("s"), nullptr, &type, nullptr, nullptr), ERROR_SUCCESS);
    EXPECT_EQ(RegQueryValueExA(key, "s", nullptr, &type, nullptr, &size), ERROR_SUCCESS);
    EXPECT_EQ(size, 4u);
    size = 3;
    EXPECT_EQ(RegQueryValueExA(key, "s", nullptr, &type, data, &size), ERROR_MORE_DATA);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(RegQueryValueExA(key, "s", nullptr, &type, data, &size), ERROR_SUCCESS);
    EXPECT_STREQ(reinterpret_cast<char*>(data), "\xC3\xA4z");
    size = 16;
    EXPECT_EQ(RegQueryValueExA(key, "n", nullptr, &type, data, &size), ERROR_SUCCESS);
    EXPECT_EQ(size, 4u);
    size = 16;
    EXPECT_EQ(RegQueryValueExW(key, TEXT("missing"), nullptr, &type, data, &size),
              ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(size, 16u);
    EXPECT_EQ(RegQueryValueExW(key, TEXT("n"), nullptr, &type, data, nullptr),
              ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegQueryValueExW(key, TEXT("n"), &size, &type, data, &size), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
    EXPECT_EQ(RegQueryValueExW(key, TEXT("n"), nullptr, &type, data, &size), ERROR_INVALID_HANDLE);
    HKEY other;
    EXPECT_EQ(RegOpenKeyExW(key, TEXT("x"), 0, KEY_READ, &other), ERROR_INVALID_HANDLE);
    EXPECT_EQ(RegOpenKeyExW(nullptr, TEXT("K"), 0, KEY_READ, &other), ERROR_INVALID_HANDLE);
    EXPECT_EQ(Open(TEXT("\\K"), &other), ERROR_BAD_PATHNAME);
    EXPECT_EQ(Open(TEXT("K"), nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(Open(TEXT("K"), &other, 0x80000000u), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, TEXT("K"), 8, KEY_READ, &other),
              ERROR_INVALID_PARAMETER);
}

TEST_F(Registry, AChangeIsSeenAtTheNextOpen) {
    WriteVersion5("[HKEY_LOCAL_MACHINE\\K]\n\"flag\"=dword:0\n");
    EXPECT_EQ(Number(TEXT("K"), TEXT("flag")), 0u);
    HKEY open;
    ASSERT_EQ(Open(TEXT("K"), &open), ERROR_SUCCESS);
    // The same size, over and over, as fast as it can be written.
    for (DWORD i = 1; i < 10; ++i) {
        WriteVersion5("[HKEY_LOCAL_MACHINE\\K]\n\"flag\"=dword:" + std::to_string(i) + "\n");
        EXPECT_EQ(Number(TEXT("K"), TEXT("flag")), i);
    }
    // The open key keeps what it was opened on.
    DWORD value = 1, size = 4;
    EXPECT_EQ(RegQueryValueExW(open, TEXT("flag"), nullptr, nullptr,
                               reinterpret_cast<BYTE*>(&value), &size),
              ERROR_SUCCESS);
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(RegCloseKey(open), ERROR_SUCCESS);
    std::filesystem::remove(m_path);
    EXPECT_FALSE(Get(TEXT("K"), TEXT("flag")));
}

TEST_F(Registry, AnUnchangedFileIsNotReadAgain) {
    WriteVersion5("[HKEY_LOCAL_MACHINE\\K]\n\"flag\"=dword:1\n");
    // Long unchanged by its time stamp.
    const timespec old[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, m_path.c_str(), old, 0), 0);
    EXPECT_EQ(Number(TEXT("K"), TEXT("flag")), 1u);
    // A change that leaves time, size and inode alone is not looked for.
    {
        std::fstream file(m_path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(-2, std::ios::end);
        file.put('2');
    }
    ASSERT_EQ(utimensat(AT_FDCWD, m_path.c_str(), old, 0), 0);
    EXPECT_EQ(Number(TEXT("K"), TEXT("flag")), 1u);
    // Any time but the known one is a change.
    const timespec other[2] = {{1'000'000'000, 1}, {1'000'000'000, 1}};
    ASSERT_EQ(utimensat(AT_FDCWD, m_path.c_str(), other, 0), 0);
    EXPECT_EQ(Number(TEXT("K"), TEXT("flag")), 2u);
}

TEST_F(Registry, MalformedLinesAreSkippedAndReportedOnce) {
    WriteVersion5(
        "\"outside\"=dword:1\n"
        "[HKEY_LOCAL_MACHINE\\K]\n"
        "\"a\"=dword:1\n"
        "nonsense\n"
        "\"b\"=dword:xyz\n"
        "\"c\"=dword:123456789\n"
        "\"d\"=\"open\n"
        "\"e\"=\"D:\\media\"\n"
        "\"f\"=hex:01,zz\n"
        "\"g\"=hex:100\n"
        "\"h\" dword:1\n"
        "\"i\"=what\n"
        "[HKEY_NOWHERE\\K]\n"
        "\"j\"=dword:1\n"
        "[HKEY_LOCAL_MACHINE\\K\n"
        "[HKEY_CURRENT_USER\\K]\n"
        "\"k\"=dword:1\n"
        "[HKEY_LOCAL_MACHINE\\K]\n"
        "\"z\"=dword:26\n"
        "\"last\"=hex:01,\\\n");
    const WCHAR* key = TEXT("K");
    EXPECT_EQ(Number(key, TEXT("a")), 1u);
    EXPECT_EQ(Number(key, TEXT("z")), 0x26u);
    for (const WCHAR* name :
         {TEXT("outside"), TEXT("b"), TEXT("c"), TEXT("d"), TEXT("e"), TEXT("f"), TEXT("g"),
          TEXT("h"), TEXT("i"), TEXT("j"), TEXT("k"), TEXT("last")}) {
        EXPECT_FALSE(Get(key, name)) << testing::PrintToString(WString(name));
    }
    const std::vector<std::string> lines = TakeSyslogLines();
    EXPECT_EQ(lines.size(), 13u);
    ASSERT_GE(lines.size(), 3u);
    EXPECT_NE(lines[0].find(m_path + ":3: "), std::string::npos) << lines[0];
    EXPECT_NE(lines[2].find(m_path + ":7: "), std::string::npos) << lines[2];
}

TEST_F(Registry, AnAlienFirstLineIsReportedAndReadOn) {
    Write("[HKEY_LOCAL_MACHINE\\K]\n\"a\"=dword:1\n");
    EXPECT_EQ(Number(TEXT("K"), TEXT("a")), 1u);
    EXPECT_EQ(TakeSyslogLines().size(), 1u);
}

TEST_F(Registry, Overrides) {
    WriteVersion5("[HKEY_LOCAL_MACHINE\\Software\\K]\n\"port\"=dword:1\n\"other\"=dword:2\n");
    const DWORD port = 99;
    ASSERT_TRUE(OverrideRegistryValue(TEXT("HKEY_LOCAL_MACHINE\\SOFTWARE\\K"), TEXT("Port"),
                                      REG_DWORD, &port, 4));
    EXPECT_EQ(Number(TEXT("Software\\K"), TEXT("port")), 99u);
    EXPECT_EQ(Number(TEXT("Software\\K"), TEXT("other")), 2u);
    // It stays over a change of the file and makes its key.
    WriteVersion5("[HKEY_LOCAL_MACHINE\\Other]\n");
    EXPECT_EQ(Number(TEXT("Software\\K"), TEXT("port")), 99u);
    std::filesystem::remove(m_path);
    EXPECT_EQ(Number(TEXT("Software\\K"), TEXT("port")), 99u);
    ASSERT_TRUE(OverrideRegistryValue(TEXT("HKEY_LOCAL_MACHINE\\SOFTWARE\\K"), TEXT("PORT"),
                                      REG_DWORD, nullptr, 0));
    EXPECT_FALSE(Get(TEXT("Software\\K"), TEXT("port")));
    EXPECT_FALSE(OverrideRegistryValue(TEXT("Software\\K"), TEXT("x"), REG_DWORD, &port, 4));
    EXPECT_FALSE(
        OverrideRegistryValue(TEXT("HKEY_LOCAL_MACHINE\\"), TEXT("x"), REG_DWORD, &port, 4));
    EXPECT_FALSE(OverrideRegistryValue(nullptr, TEXT("x"), REG_DWORD, &port, 4));
}

TEST_F(Registry, VisitsEveryValue) {
    WriteVersion5(
        "[HKEY_LOCAL_MACHINE\\Software\\K]\n\"Port\"=\"1\"\n\"gone\"=dword:2\n\"gone\"=-\n"
        "[HKEY_CLASSES_ROOT\\.X]\n@=\"x\"\n[HKEY_LOCAL_MACHINE\\Empty]\n");
    const DWORD port = 99;
    const auto lay = [&](const DWORD* data) {
        OverrideRegistryValue(TEXT("HKEY_LOCAL_MACHINE\\Software\\Z"), TEXT("Over"), REG_DWORD,
                              data, 4);
    };
    lay(&port);
    std::u16string seen;
    VisitRegistryValues(
        [](void* context, LPCWSTR key, LPCWSTR name, DWORD type) {
            auto& all = *static_cast<std::u16string*>(context);
            all +=
                std::u16string(key) + u':' + name + u'=' + static_cast<WCHAR>(u'0' + type) + u' ';
        },
        &seen);
    lay(nullptr);
    EXPECT_EQ(seen, u"software\\classes\\.x:=1 software\\k:port=1 software\\z:over=4 ");
}

TEST_F(Registry, CountsTheLinesThatItSkips) {
    EXPECT_EQ(SkippedRegistryLines(), 0u);
    WriteVersion5("[HKEY_LOCAL_MACHINE\\K]\n\"a\"=1\n\"b\"=dword:1\nc\n");
    EXPECT_EQ(SkippedRegistryLines(), 2u);
    WriteVersion5("[HKEY_LOCAL_MACHINE\\K]\n\"b\"=dword:1\n");
    EXPECT_EQ(SkippedRegistryLines(), 0u);
}

TEST_F(Registry, TheEnvironmentNamesTheFile) {
    WriteVersion5("[HKEY_LOCAL_MACHINE\\K]\n\"a\"=dword:1\n");
    SetRegistryFile(nullptr);
    setenv("ZEM_REGISTRY", m_path.c_str(), 1);
    EXPECT_EQ(Number(TEXT("K"), TEXT("a")), 1u);
    SetRegistryFile("/nonexistent/file.reg");
    EXPECT_FALSE(Get(TEXT("K"), TEXT("a")));
    SetRegistryFile("");
    EXPECT_EQ(Number(TEXT("K"), TEXT("a")), 1u);
    unsetenv("ZEM_REGISTRY");
}

TEST_F(Registry, ManyThreadsAndChanges) {
    WriteVersion5("[HKEY_LOCAL_MACHINE\\K]\n\"a\"=dword:0\n");
    const size_t handles = posix::OpenHandleCount();
    std::atomic<bool> stop{false};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            while (!stop)
                EXPECT_NE(Number(TEXT("K"), TEXT("a")), 0xDEADu);
        });
    }
    for (int i = 0; i < 200; ++i) {
        const std::string next = m_path + ".new";
        std::ofstream(next) << "REGEDIT4\n[HKEY_LOCAL_MACHINE\\K]\n\"a\"=dword:" << i % 10 << "\n";
        std::filesystem::rename(next, m_path);
    }
    stop = true;
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(Number(TEXT("K"), TEXT("a")), 9u);
    EXPECT_EQ(posix::OpenHandleCount(), handles);
}

}  // namespace
