// The parts of zemhost: its command line, the settings that it lays over the registry, what it
// checks, and how it waits for a stop signal.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "apps/zemhost/checks.h"
#include "apps/zemhost/hostsystem.h"
#include "apps/zemhost/options.h"
#include "apps/zemhost/settings.h"
#include "apps/zemhost/wrongvalues.h"
#include "platform/platform.h"
#include "tests/tempfolder.h"

namespace {

std::string Parse(const std::vector<std::string>& arguments, HostOptions& options) {
    options = {};
    return ParseOptions(arguments, options);
}

// Reads the settings that the options give, and takes the overrides away again.
HostSettings SettingsOf(const HostOptions& options) {
    ApplyOptions(options);
    const HostSettings settings = ReadSettings(options);
    for (const auto& [key, value] :
         {std::pair(TEXT("HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\ZEM"), TEXT("HttpPort")),
          std::pair(TEXT("HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\RUD\\vfs"), TEXT("0")),
          std::pair(
              TEXT("HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services\\HTTP\\Parameters"),
              TEXT("ListenOnlyList"))}) {
        OverrideRegistryValue(key, value, 0, nullptr, 0);
    }
    return settings;
}

constexpr char kTitle[] = "Windows Registry Editor Version 5.00\r\n\r\n";

TEST(ZemhostOptions, TakeBothForms) {
    HostOptions options;
    EXPECT_EQ(Parse({"--port", "8080", "--listen=127.0.0.1,::1", "--volume", "/a b", "--registry=r",
                     "--log", "l"},
                    options),
              "");
    EXPECT_EQ(options.port, 8080);
    EXPECT_EQ(options.listen, "127.0.0.1,::1");
    EXPECT_EQ(options.volume, "/a b");
    EXPECT_EQ(options.registry, "r");
    EXPECT_EQ(options.log, "l");
    EXPECT_FALSE(options.help || options.version || options.settings);
}

TEST(ZemhostOptions, AreEmptyWithoutArguments) {
    HostOptions options;
    EXPECT_EQ(Parse({}, options), "");
    EXPECT_FALSE(options.port || options.listen || options.volume);
}

TEST(ZemhostOptions, RefuseWhatTheyDoNotKnow) {
    HostOptions options;
    EXPECT_EQ(Parse({"--verbose"}, options), "there is no option '--verbose'; see zemhost --help");
    EXPECT_EQ(Parse({"8080"}, options), "there is no option '8080'; see zemhost --help");
    EXPECT_EQ(Parse({"--help=yes"}, options), "--help takes no value; see zemhost --help");
    EXPECT_EQ(Parse({"--volume"}, options), "--volume needs a value; see zemhost --help");
    EXPECT_EQ(Parse({"--volume="}, options), "--volume needs a value; see zemhost --help");
}

TEST(ZemhostOptions, RefuseAnEmptyAddress) {
    for (const char* const text : {",", ",127.0.0.1", "127.0.0.1,", "127.0.0.1,,::1"}) {
        HostOptions options;
        EXPECT_EQ(Parse({"--listen", text}, options),
                  "'" + std::string(text) +
                      "' has an empty address; give one, or several with commas between them, "
                      "with --listen");
    }
}

TEST(ZemhostOptions, RefuseWhatIsNoPort) {
    for (const char* const text : {"0", "65536", "-1", "80x", "x", " 80", "1e3"}) {
        HostOptions options;
        EXPECT_EQ(
            Parse({"--port", text}, options),
            "'" + std::string(text) + "' is not a port; give a number from 1 to 65535 with --port");
    }
}

TEST(ZemhostSettings, AreTheDefaultsWithoutARegistryFile) {
    const CTempFolder folder;
    HostOptions options;
    options.registry = folder.File("none");
    const HostSettings settings = SettingsOf(options);
    EXPECT_EQ(settings.port, 80u);
    EXPECT_TRUE(settings.addresses.empty());
    EXPECT_EQ(settings.volume, "");
    EXPECT_EQ(SettingsText(settings),
              "port 80 default\nlisten all default\nvolume none default\n"
              "log-format text default\naddress http://127.0.0.1:80 on every address\n");
}

TEST(ZemhostSettings, ComeFromTheRegistryFile) {
    const CTempFolder folder;
    HostOptions options;
    options.registry = folder.Write(
        "r",
        std::string(kTitle) +
            "[HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\ZEM]\r\n\"HttpPort\"=dword:00002328\r\n"
            "[HKEY_LOCAL_MACHINE\\Software\\Quorvane "
            "Group\\RUD\\vfs]\r\n\"0\"=\"/media/m\xC3\xBC\"\r\n"
            "[HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services\\HTTP\\Parameters]\r\n"
            "\"ListenOnlyList\"=hex(7):3a,00,3a,00,31,00,00,00,30,00,00,00,00,00\r\n");
    const HostSettings settings = SettingsOf(options);
    EXPECT_EQ(SettingsText(settings),
              "port 9000 registry\nlisten ::1,0 registry\nvolume /media/m\xC3\xBC registry\n"
              "log-format text default\n"
              "address http://[::1]:9000 and http://0:9000\n");
}

TEST(ZemhostSettings, OptionsComeBeforeTheRegistryFile) {
    const CTempFolder folder;
    HostOptions options;
    options.registry = folder.Write("r", std::string(kTitle) +
                                             "[HKEY_LOCAL_MACHINE\\Software\\Quorvane "
                                             "Group\\ZEM]\r\n\"HttpPort\"=dword:00002328\r\n");
    options.port = uint16_t{8081};
    options.listen = "127.0.0.2,127.0.0.3";
    options.volume = "/media/\xE2\x82\xAC";
    EXPECT_EQ(
        SettingsText(SettingsOf(options)),
        "port 8081 option\nlisten 127.0.0.2,127.0.0.3 option\nvolume /media/\xE2\x82\xAC option\n"
        "log-format text default\n"
        "address http://127.0.0.2:8081 and http://127.0.0.3:8081\n");
}

TEST(ZemhostSettings, EveryAddressIsReachedThroughTheLoopback) {
    HostSettings settings;
    settings.port = 1;
    EXPECT_EQ(LocalUrl(settings), "http://127.0.0.1:1");
    EXPECT_EQ(Elsewhere(settings), " on every address");
    settings.addresses = {"0.0.0.0"};
    EXPECT_EQ(LocalUrl(settings), "http://127.0.0.1:1");
    EXPECT_EQ(Elsewhere(settings), " on every address");
    settings.addresses = {"::"};
    EXPECT_EQ(LocalUrl(settings), "http://[::1]:1");
    EXPECT_EQ(Elsewhere(settings), " on every address");
    settings.addresses = {"127.0.0.1", "::1"};
    EXPECT_EQ(Elsewhere(settings), " and http://[::1]:1");
    settings.addresses = {"10.1.2.3"};
    EXPECT_EQ(Elsewhere(settings), "");
    settings.addresses = {"127.0.0.1", "::"};
    EXPECT_EQ(Elsewhere(settings), " on every address");
}

// Where the server reads the list an empty text ends it, and nothing before that is every address.
TEST(ZemhostSettings, AnEmptyAddressIsNotPassedOver) {
    const CTempFolder folder;
    HostOptions options;
    options.registry = folder.Write(
        "r", std::string(kTitle) +
                 "[HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services\\HTTP\\Parameters]\r\n"
                 "\"ListenOnlyList\"=hex(7):00,00,3a,00,3a,00,31,00,00,00,00,00\r\n");
    const HostSettings settings = SettingsOf(options);
    EXPECT_EQ(settings.addresses, (std::vector<std::string>{"", "::1"}));
    EXPECT_NE(CheckAddresses(settings), "");
}

// The sentences about a file with these lines, each behind 1 or 0: whether it decides.
std::vector<std::string> WrongValuesOf(const std::string& lines) {
    const CTempFolder folder;
    SetRegistryFile(folder.Write("r", kTitle + lines).c_str());
    std::vector<std::string> said;
    for (const WrongValue& wrong : FindWrongValues())
        said.push_back((wrong.decides ? "1 " : "0 ") + wrong.sentence);
    return said;
}

constexpr char kServerKey[] = "[HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\ZEM]\r\n";
constexpr char kHttpKey[] =
    "[HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services\\HTTP\\Parameters]\r\n";

using Said = std::vector<std::string>;

TEST(ZemhostWrongValues, NumberThatIsNone) {
    const std::string start = "1 the registry value HttpPort of Software\\Quorvane Group\\ZEM is ";
    const std::string end =
        ", which is not read; its line must be \"HttpPort\"=dword:00001f90 (8080 in hexadecimal)";
    for (const auto& [line, is] :
         {std::pair("\"8080\"", "a text"), std::pair("\"http\"", "a text"),
          std::pair("\"\"", "a text"), std::pair("hex:90,1f,00,00", "of another type"),
          std::pair("hex(4):90,1f", "not of four bytes"),
          std::pair("hex(7):38,00,30,00,38,00,30,00", "a list of texts")}) {
        EXPECT_EQ(WrongValuesOf(kServerKey + ("\"HttpPort\"=" + std::string(line)) + "\r\n"),
                  Said{start + is + end})
            << line;
    }
    EXPECT_EQ(WrongValuesOf(std::string(kServerKey) + "\"HttpPort\"=\"9000\"\r\n"),
              Said{start +
                   "a text, which is not read; its line must be \"HttpPort\"=dword:00002328 (9000 "
                   "in hexadecimal)"});
    EXPECT_EQ(WrongValuesOf(std::string(kServerKey) + "\"HttpPort\"=dword:0\r\n"), Said{});
}

TEST(ZemhostWrongValues, ListThatIsNone) {
    const std::string start =
        "1 the registry value ListenOnlyList of "
        "System\\CurrentControlSet\\Services\\HTTP\\Parameters is ";
    EXPECT_EQ(
        WrongValuesOf(std::string(kHttpKey) + "\"ListenOnlyList\"=\"::1, 10.0.0.5\"\r\n"),
        Said{start + "a text, which is not read; its line must be \"ListenOnlyList\"=hex(7):"
                     "3a,00,3a,00,31,00,00,00,31,00,30,00,2e,00,30,00,2e,00,30,00,2e,00,35,00,"
                     "00,00,00,00 (::1, 10.0.0.5)"});
    EXPECT_EQ(
        WrongValuesOf(std::string(kHttpKey) + "\"ListenOnlyList\"=\"::1,nowhere\"\r\n"),
        Said{start +
             "a text, which is not read, and 'nowhere' is no IP address; its line must be "
             "\"ListenOnlyList\"=hex(7):"
             "31,00,32,00,37,00,2e,00,30,00,2e,00,30,00,2e,00,31,00,00,00,00,00 (127.0.0.1)"});
    EXPECT_EQ(
        WrongValuesOf(std::string(kHttpKey) + "\"ListenOnlyList\"=dword:1\r\n"),
        Said{start +
             "a number, which is not read; its line must be \"ListenOnlyList\"=hex(7):"
             "31,00,32,00,37,00,2e,00,30,00,2e,00,30,00,2e,00,31,00,00,00,00,00 (127.0.0.1)"});
    EXPECT_EQ(WrongValuesOf(std::string(kHttpKey) + "\"ListenOnlyList\"=hex(7):\r\n"), Said{});
}

TEST(ZemhostWrongValues, TextThatIsNone) {
    EXPECT_EQ(WrongValuesOf("[HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\RUD\\vfs]\r\n"
                            "\"0\"=hex(7):43,00,3a,00,5c,00,00,00\r\n"),
              Said{"1 the registry value 0 of Software\\Quorvane Group\\RUD\\vfs is a list of "
                   "texts, which is not read; its line must be \"0\"=\"C:\\\\\""});
    EXPECT_EQ(WrongValuesOf(std::string(kServerKey) + "\"LogFormat\"=dword:1\r\n"),
              Said{"1 the registry value LogFormat of Software\\Quorvane Group\\ZEM is a number, "
                   "which is not read; its line must be \"LogFormat\"=\"text\""});
}

TEST(ZemhostWrongValues, OthersAreNamedAndDoNotDecide) {
    const std::vector<std::string> said = WrongValuesOf(
        std::string(kServerKey) +
        "\"HttpFileServer\"=\"1\"\r\n\"ReclaimFrameBlocks\"=\"1\"\r\n\"ReportBlocks\"=\"1\"\r\n"
        "\"RsDbg\"=\"1\"\r\n"
        "[HKEY_LOCAL_MACHINE\\Software\\WOW6432Node\\Quorvane Group\\ZEM]\r\n\"RsDbg\"=\"1\"\r\n"
        "[HKEY_LOCAL_MACHINE\\Software\\Quorvane Group]\r\n\"version\"=dword:1\r\n" +
        kHttpKey + "\"MaxRequestBytes\"=\"1024\"\r\n");
    EXPECT_EQ(said.size(), 7u);
    for (const std::string& one : said)
        EXPECT_EQ(one.front(), '0') << one;
}

TEST(ZemhostWrongValues, NamesThatNobodyAsksFor) {
    const CTempFolder folder;
    SetRegistryFile(folder
                        .Write("r", std::string(kTitle) +
                                        "[HKEY_LOCAL_MACHINE\\Software\\Quorvane\\ZEM]\r\n"
                                        "\"HttpPort\"=dword:1f90\r\n" +
                                        kServerKey +
                                        "@=\"x\"\r\n\"HTTPPORT\"=dword:1f90\r\n"
                                        "[HKEY_CLASSES_ROOT\\.a]\r\n\"Content Type\"=\"a/a\"\r\n"
                                        "[HKEY_CLASSES_ROOT\\.b]\r\n\"Content Type\"=dword:1\r\n"
                                        "[HKEY_CLASSES_ROOT\\c]\r\n\"Content Type\"=\"c/c\"\r\n")
                        .c_str());
    EXPECT_EQ(
        FindStrayValues(),
        (Said{"the value content type of hkey_local_machine\\software\\classes\\.b is no text and "
              "is not read",
              "nobody reads the value content type of hkey_local_machine\\software\\classes\\c",
              "nobody reads the default value of hkey_local_machine\\software\\quorvane group\\zem",
              "nobody reads the value httpport of hkey_local_machine\\software\\quorvane\\zem"}));
    std::string many = kTitle + std::string(kServerKey);
    for (int i = 0; i < 25; ++i)
        many += "\"n" + std::to_string(i) + "\"=dword:0\r\n";
    SetRegistryFile(folder.Write("r", many).c_str());
    const std::vector<std::string> remarks = FindStrayValues();
    ASSERT_EQ(remarks.size(), 21u);
    EXPECT_EQ(remarks.back(), "there are 5 more values that nobody reads");
}

TEST(ZemhostPackage, RegistryFileHasTheSettingsAndThisVersion) {
    HostOptions options;
    options.registry = PACKAGED_REGISTRY_FILE;
    EXPECT_EQ(CheckRegistryFile(options.registry), "");
    EXPECT_EQ(
        SettingsText(SettingsOf(options)),
        "port 8080 registry\nlisten 127.0.0.1 registry\nvolume /var/lib/zemhttpd/volume registry\n"
        "log-format text registry\n"
        "address http://127.0.0.1:8080\n");

    EXPECT_TRUE(FindWrongValues().empty());
    EXPECT_TRUE(FindStrayValues().empty());

    HKEY key = nullptr;
    ASSERT_EQ(
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, TEXT("Software\\Quorvane Group"), 0, KEY_READ, &key),
        ERROR_SUCCESS);
    char version[64] = {};
    DWORD size = sizeof version;
    EXPECT_EQ(RegQueryValueExA(key, "version", nullptr, nullptr, reinterpret_cast<LPBYTE>(version),
                               &size),
              ERROR_SUCCESS);
    RegCloseKey(key);
    EXPECT_STREQ(version, PROJECT_VERSION_TEXT);
}

TEST(ZemhostPackage, RegistryFileHasTheTraceSwitchInBothViews) {
    SetRegistryFile(PACKAGED_REGISTRY_FILE);
    for (const REGSAM view : {KEY_WOW64_64KEY, KEY_WOW64_32KEY}) {
        HKEY key = nullptr;
        ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, TEXT("Software\\Quorvane Group\\ZEM"), 0,
                                KEY_READ | view, &key),
                  ERROR_SUCCESS);
        DWORD type = 0;
        DWORD value = 1;
        DWORD size = sizeof value;
        EXPECT_EQ(RegQueryValueExW(key, TEXT("RsDbg"), nullptr, &type,
                                   reinterpret_cast<LPBYTE>(&value), &size),
                  ERROR_SUCCESS);
        EXPECT_EQ(type, REG_DWORD);
        EXPECT_EQ(value, 0u);
        RegCloseKey(key);
    }
}

TEST(ZemhostPackage, RegistryFileKnowsTheUsualContentTypes) {
    SetRegistryFile(PACKAGED_REGISTRY_FILE);
    const std::pair<const WCHAR*, const char*> types[] = {
        {TEXT(".mxf"), "application/mxf"}, {TEXT(".MOV"), "video/quicktime"},
        {TEXT(".mp4"), "video/mp4"},       {TEXT(".wav"), "audio/wav"},
        {TEXT(".jpg"), "image/jpeg"},      {TEXT(".txt"), "text/plain"},
        {TEXT(".html"), "text/html"}};
    for (const auto& [extension, type] : types) {
        HKEY key = nullptr;
        ASSERT_EQ(RegOpenKeyExW(HKEY_CLASSES_ROOT, extension, 0, 0x2001F, &key), ERROR_SUCCESS)
            << type;
        char text[260] = {};
        DWORD size = sizeof text;
        EXPECT_EQ(RegQueryValueExA(key, "Content Type", nullptr, nullptr,
                                   reinterpret_cast<LPBYTE>(text), &size),
                  ERROR_SUCCESS);
        EXPECT_STREQ(text, type);
        RegCloseKey(key);
    }
}

TEST(ZemhostChecks, TakeARegistryExportInAnyEncoding) {
    const CTempFolder folder;
    const std::string title = kTitle;
    std::string wide = "\xFF\xFE";
    for (const char c : title)
        wide += {c, '\0'};
    EXPECT_EQ(CheckRegistryFile(folder.Write("plain", title)), "");
    EXPECT_EQ(CheckRegistryFile(folder.Write("marked", "\xEF\xBB\xBF" + title)), "");
    EXPECT_EQ(CheckRegistryFile(folder.Write("wide", wide)), "");
    EXPECT_EQ(CheckRegistryFile(folder.Write("old", "REGEDIT4\n")), "");
}

TEST(ZemhostChecks, RefuseOtherFiles) {
    const CTempFolder folder;
    for (const char* const text :
         {"", "Windows Registry Editor", "port=8080\n", "\n[HKEY_LOCAL_MACHINE]\n"}) {
        EXPECT_NE(CheckRegistryFile(folder.Write("file", text)), "") << text;
    }
    EXPECT_EQ(CheckRegistryFile(folder.File("")),
              "the registry file '" + folder.File("") +
                  "' is not a file; give a file with --registry FILE");
}

TEST(ZemhostChecks, PortThatTheRegistryHasWrong) {
    HostSettings settings;
    for (const uint32_t port : {0u, 65536u, 0xFFFFFFFFu}) {
        settings.port = port;
        EXPECT_EQ(CheckPort(settings), "the registry value HttpPort is " + std::to_string(port) +
                                           "; give it a number from 1 to 65535");
    }
    for (const uint32_t port : {1u, 65535u}) {
        settings.port = port;
        EXPECT_EQ(CheckPort(settings), "");
    }
}

TEST(ZemhostChecks, AddressThatIsGivenTwice) {
    HostSettings settings;
    settings.addresses = {"127.0.0.1", "::1", "127.0.0.1"};
    EXPECT_EQ(CheckAddresses(settings),
              "the address 127.0.0.1 is given twice; give each once with --listen ADDRESS");
    settings.addresses.pop_back();
    EXPECT_EQ(CheckAddresses(settings), "");
}

TEST(ZemhostSignals, StopSignalIsTakenAndTheNextOneEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const auto& [number, name] : {std::pair(SIGINT, "SIGINT"), std::pair(SIGTERM, "SIGTERM"),
                                       std::pair(SIGHUP, "SIGHUP")}) {
        EXPECT_EXIT(
            {
                PrepareProcess();
                kill(getpid(), number);
                if (WaitForStopSignal([] {}) != name) std::exit(1);
                kill(getpid(), SIGTERM);
                std::exit(2);
            },
            testing::KilledBySignal(SIGTERM), "");
    }
}

}  // namespace
