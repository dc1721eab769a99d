// The program zem from outside: exit codes, outputs, and what it does when the server loses frames
// without saying so.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "tests/zem/fakemedia.h"
#include "tests/zem/scriptserver.h"

namespace {

namespace fs = std::filesystem;

struct Outcome {
    int code;
    std::string out;
    std::string err;
};

class ZemCli : public testing::Test {
protected:
    ZemCli() : m_server(std::ref(m_media)) {
        std::string pattern = (fs::temp_directory_path() / "zemcli-XXXXXX").string();
        m_dir = mkdtemp(pattern.data());
    }
    ~ZemCli() override { fs::remove_all(m_dir); }

    static std::string Quoted(const std::string& text) {
        std::string out = "'";
        for (const char c : text)
            out += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return out + "'";
    }
    static std::string Contents(const fs::path& path) {
        std::ifstream in(path, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }
    int Shell(const std::string& command) const {
        const int status = std::system(("cd " + Quoted(m_dir.string()) + " && " + command).c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000;
    }
    Outcome RunOn(const std::string& server, const std::vector<std::string>& arguments) const {
        std::string command = Quoted(ZEM_PROGRAM) + " --server " + Quoted(server);
        for (const std::string& argument : arguments)
            command += " " + Quoted(argument);
        m_server.Settle();
        const int code = Shell(command + " >out 2>err");
        m_server.Settle();
        return {code, Contents(m_dir / "out"), Contents(m_dir / "err")};
    }
    Outcome Run(const std::vector<std::string>& arguments) const {
        return RunOn(m_server.Url(), arguments);
    }
    // A second of moving picture and two channels of sound.
    void MakeClip() const {
        ASSERT_EQ(Shell("ffmpeg -v error -nostdin -f lavfi -i testsrc2=size=64x48:rate=25 "
                        "-f lavfi -i sine=frequency=440:sample_rate=48000 -t 1 -c:v mjpeg "
                        "-c:a pcm_s16le -ac 2 -timecode 01:02:03:04 clip.mov"),
                  0);
    }
    // The size and hash columns of ffmpeg's list of the clip's packets.
    std::string Reference(const std::string& map) const {
        Shell("ffmpeg -v error -nostdin -i clip.mov -map " + map +
              " -c copy -f framemd5 - | grep -v '^#' | cut -d, -f5,6 >reference");
        return Contents(m_dir / "reference");
    }
    std::string Columns(const std::string& list) const {
        std::ofstream(m_dir / "list") << list;
        Shell("grep -v '^#' list | cut -d, -f5,6 >columns");
        return Contents(m_dir / "columns");
    }

    fs::path m_dir;
    CFakeMedia m_media;
    CScriptServer m_server;
};

bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(ZemCli, HelpAndVersionGoToStdoutWithCode0) {
    const Outcome help = Run({"--help"});
    EXPECT_EQ(help.code, 0);
    EXPECT_TRUE(Has(help.out, "Exit codes:"));
    EXPECT_EQ(help.err, "");
    const Outcome version = Run({"--version"});
    EXPECT_EQ(version.code, 0);
    EXPECT_EQ(version.out.rfind("zem ", 0), 0u);
}

TEST_F(ZemCli, EveryVerbHasHelp) {
    for (const char* verb :
         {"put",    "import",    "export",   "framemd5", "read",      "frames", "info",  "marks",
          "df",     "stat",      "rm",       "mv",       "mkdir",     "stripe", "erase", "flush",
          "status", "clients",   "get",      "top",      "bench",     "doctor", "join",  "leave",
          "config", "keepalive", "realtime", "manual",   "completion"}) {
        const Outcome help = Run({verb, "--help"});
        EXPECT_EQ(help.code, 0) << verb;
        EXPECT_TRUE(Has(help.out, std::string("Usage: zem ") + verb)) << verb << help.out;
        EXPECT_TRUE(Has(help.out, "--json") || std::string(verb) == "config") << verb;
        EXPECT_TRUE(Has(Run({"--help"}).out, std::string("\n  ") + verb + " ")) << verb;
    }
}

TEST_F(ZemCli, FailuresAreJsonToo) {
    const Outcome refused = Run({"stat", "media/none", "--json"});
    EXPECT_EQ(refused.code, 1);
    EXPECT_EQ(
        refused.out,
        "{\"error\":\"media/none: there is no such file\",\"exit_code\":1,\"hresult\":null}\n");
    EXPECT_EQ(refused.err, "zem: media/none: there is no such file\n");
    const Outcome away =
        RunOn("http://127.0.0.1:" + std::to_string(UnusedPort()), {"--json", "status"});
    EXPECT_EQ(away.code, 3);
    EXPECT_TRUE(Has(away.out, "\"exit_code\":3")) << away.out;
    const Outcome usage = Run({"read", "media/v", "--json"});
    EXPECT_EQ(usage.code, 2);
    EXPECT_TRUE(Has(usage.out, "\"exit_code\":2")) << usage.out;
    const Outcome number = Run({"--json", "info", "media/none"});
    EXPECT_TRUE(Has(number.out, "\"hresult\":\"0x80004005\"")) << number.out;
}

TEST_F(ZemCli, TheServerMayComeFromTheEnvironment) {
    const auto shell = [&](const std::string& more) {
        m_server.Settle();
        return Shell("ZEM_SERVER=" + m_server.Url() + " " + Quoted(ZEM_PROGRAM) + more + " >out");
    };
    EXPECT_EQ(shell(" status"), 0);
    EXPECT_TRUE(Has(Contents(m_dir / "out"), m_server.Url()));
    m_server.Settle();
    const std::string nowhere = "http://127.0.0.1:" + std::to_string(UnusedPort());
    EXPECT_EQ(shell(" --server " + nowhere + " status"), 3) << "the option goes first";
}

TEST_F(ZemCli, ColoursAreAskedForOrNotThere) {
    EXPECT_EQ(Run({"stat", "media/none"}).err.rfind("zem: ", 0), 0u) << "no terminal";
    EXPECT_EQ(Run({"--color", "always", "stat", "media/none"}).err.rfind("\x1b[31mzem:\x1b[0m ", 0),
              0u);
    EXPECT_EQ(Run({"--color", "never", "stat", "media/none"}).err.rfind("zem: ", 0), 0u);
    EXPECT_EQ(Run({"--color", "sometimes", "status"}).code, 2);
}

TEST_F(ZemCli, TextOfTheServerDoesNotReachTheTerminalRaw) {
    const std::string evil =
        "\x1b]0;pwned\x07 \xc2\x9b"
        "2J \xe2\x80\xae \xff";
    CScriptServer server([&](const ScriptRequest& request) {
        if (request.target == "/media/status") {
            return ScriptAnswer{
                "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nX-ServerName: " + evil + "\r\n\r\n0 1 2",
                false};
        }
        if (request.target == "/media/clients")
            return ScriptAnswer{PageReplyBytes(200, "OK", evil + "\r\n"), false};
        return ScriptAnswer{PageReplyBytes(500, evil, ""), false};
    });
    const std::vector<std::vector<std::string>> lines = {{"status"},
                                                         {"clients"},
                                                         {"clients", "--json"},
                                                         {"status", "--json"},
                                                         {"info", "x"},
                                                         {"info", "x", "--json"},
                                                         {"get", "media/x"},
                                                         {"top", "--count", "1"},
                                                         {"doctor"},
                                                         {"doctor", "--json"},
                                                         {"top", "--count", "1", "--json"},
                                                         {"stat", evil}};
    for (const auto& arguments : lines) {
        const Outcome outcome = RunOn(server.Url(), arguments);
        const std::string all = outcome.out + outcome.err;
        EXPECT_NE(all, "") << arguments[0];
        for (const char* raw : {"\x1b", "\x07", "\xc2\x9b", "\xe2\x80\xae", "\xff"})
            EXPECT_FALSE(Has(all, raw)) << arguments[0] << ": " << all;
    }
    EXPECT_TRUE(
        Has(RunOn(server.Url(), {"clients"}).out, "\\x1b]0;pwned\\x07 \\u009b2J \\u202e \\xff\n"));
}

TEST_F(ZemCli, AFullClientPageIsSaidToBeFull) {
    std::atomic<size_t> length{4420};  // the server has a thread of its own
    CScriptServer server([&](const ScriptRequest&) {
        return ScriptAnswer{PageReplyBytes(200, "OK", std::string(length - 2, 'x') + "\r\n"),
                            false};
    });
    EXPECT_TRUE(Has(RunOn(server.Url(), {"clients", "--json"}).out, "\"perhaps_more\":false"));
    ++length;
    EXPECT_TRUE(Has(RunOn(server.Url(), {"clients", "--json"}).out, "\"perhaps_more\":true"));
    EXPECT_TRUE(Has(RunOn(server.Url(), {"clients"}).err, "there may be more"));
}

TEST_F(ZemCli, WrongUsageIs2AndSendsNothing) {
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"nix"},
        {"put"},
        {"put", "a"},
        {"status", "x"},
        {"erase", "f", "--from", "0"},
        {"erase", "f", "--from", "0", "--count", "0"},
        {"frames", "f", "--rate", "9"},
        {"leave"},
        {"realtime"},
        {"config"},
        {"config", "set", "a"},
        {"config", "set", "a", "b"},
        {"--timeout", "0", "status"},
        {"--id", "", "leave"},
        {"info", "\xFF"},
        {"read", "f", "--json"},
        {"top", "--interval", "0"},
        {"bench", "--mode", "nix"},
        {"bench", "--frame-size", "15"},
        {"bench", "--frame-size", "241M"},
        {"bench", "--file", "media/x"},
        {"completion", "tcsh"},
        {"manual"}};
    for (const auto& arguments : wrong) {
        const Outcome outcome = Run(arguments);
        EXPECT_EQ(outcome.code, 2) << (arguments.empty() ? "" : arguments[0]) << outcome.err;
        EXPECT_EQ(outcome.err.rfind("zem: ", 0), 0u);
    }
    for (const ScriptRequest& request : m_server.Requests()) {
        // The ill-formed name is found after the join.
        EXPECT_EQ(request.Header("Zem-Id").rfind("zem-", 0), 0u);
    }
    EXPECT_LE(m_server.Requests().size(), 2u);
}

TEST_F(ZemCli, UnreachableServerIs3) {
    const std::string nowhere = "http://127.0.0.1:" + std::to_string(UnusedPort());
    EXPECT_EQ(RunOn(nowhere, {"status"}).code, 3);
    EXPECT_EQ(RunOn(nowhere, {"framemd5", "media/x"}).code, 3);
}

TEST_F(ZemCli, AnotherKindOfServerIs4) {
    CScriptServer other([](const ScriptRequest&) {
        return ScriptAnswer{PageReplyBytes(200, "OK", "<html>welcome</html>"), false};
    });
    EXPECT_EQ(RunOn(other.Url(), {"status"}).code, 4);
    EXPECT_EQ(RunOn(other.Url(), {"info", "media/x"}).code, 4);
}

TEST_F(ZemCli, StatusAndClients) {
    EXPECT_TRUE(Has(Run({"status"}).out, "1.0 TiB of 4.0 TiB (25 %)"));
    EXPECT_EQ(Run({"status", "--json"}).out,
              "{\"server\":\"studio7\",\"error\":0,\"free_bytes\":1099511627776,"
              "\"total_bytes\":4398046511104}\n");
    EXPECT_EQ(Run({"clients"}).out, "No clients\n");
    EXPECT_EQ(Run({"--id", "desk 1", "join"}).code, 0);
    EXPECT_EQ(Run({"--id", "desk 2", "join"}).code, 0);
    EXPECT_EQ(Run({"clients"}).out, "desk 1\ndesk 2\n");
    EXPECT_EQ(
        Run({"clients", "--json"}).out,
        "{\"server\":\"studio7\",\"clients\":[\"desk 1\",\"desk 2\"],\"perhaps_more\":false}\n");
    EXPECT_EQ(Run({"--id", "desk 1", "leave"}).code, 0);
    EXPECT_EQ(Run({"clients"}).out, "desk 2\n");
}

TEST_F(ZemCli, StatusOfAServerWithoutAVolumeIs1) {
    CScriptServer server([](const ScriptRequest&) {
        return ScriptAnswer{PageReplyBytes(200, "OK", "80070003 0 0"), false};
    });
    const Outcome outcome = RunOn(server.Url(), {"status"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_TRUE(Has(outcome.err, "0x80070003 (path not found)"));
    const Outcome json = RunOn(server.Url(), {"status", "--json"});
    EXPECT_EQ(json.code, 1);
    EXPECT_TRUE(Has(json.out, "\"error\":2147942403,")) << json.out;
    CScriptServer later([](const ScriptRequest&) {
        return ScriptAnswer{PageReplyBytes(200, "OK", "0 0 0"), false};
    });
    EXPECT_EQ(RunOn(later.Url(), {"status"}).code, 1) << "the error is told once, the zeros stay";
}

TEST_F(ZemCli, PutAndFramemd5EqualTheClip) {
    MakeClip();
    const Outcome put = Run({"put", "clip.mov", "media/clip"});
    EXPECT_EQ(put.code, 0) << put.err;
    EXPECT_EQ(put.out, "");
    EXPECT_EQ(put.err, "");
    ASSERT_EQ(m_media.files.at("media/clip.v0").frames.size(), 25u);
    const std::string& desc = m_media.files.at("media/clip.v0").desc;
    EXPECT_EQ(desc.substr(0, 28),
              Le32(0x10038) + Le32(1) + "jpeg" + Le32(25) + Le32(1) + Le32(64) + Le32(48));
    EXPECT_EQ(desc.substr(40, 4), "\x04\x03\x02\x01");
    const std::string& audio = m_media.files.at("media/clip.a0").desc;
    EXPECT_EQ(audio.substr(4, 8), Le32(2) + "sowt");
    EXPECT_EQ(audio.substr(28, 8), Le32(48000) + Le16(2) + Le16(16));
    EXPECT_TRUE(m_media.clients.empty()) << "the client left";

    const std::string video = Reference("0:v");
    EXPECT_EQ(std::count(video.begin(), video.end(), '\n'), 25);
    EXPECT_EQ(Columns(Run({"framemd5", "media/clip.v0"}).out), video);
    EXPECT_EQ(Columns(Run({"framemd5", "media/clip.a0"}).out), Reference("0:a"));
}

TEST_F(ZemCli, PutWorksOnAServerWithoutFlushAndDescriptors) {
    MakeClip();
    m_media.notImplemented = {8, 10};
    EXPECT_EQ(Run({"put", "clip.mov", "media/clip"}).code, 0);
    m_media.corruptWrites = {{"media/c2.v0", 3}};
    EXPECT_EQ(Run({"put", "clip.mov", "media/c2"}).code, 1) << "all frames are read back instead";
}

TEST_F(ZemCli, PutDoesNotReplaceWithoutForce) {
    MakeClip();
    m_media.files["media/clip.v0"].frames[0] = "precious";
    const Outcome refused = Run({"put", "clip.mov", "media/clip"});
    EXPECT_EQ(refused.code, 1);
    EXPECT_TRUE(Has(refused.err, "--force")) << refused.err;
    EXPECT_EQ(m_media.files["media/clip.v0"].frames[0], "precious");
    const Outcome forced = Run({"put", "--force", "--json", "clip.mov", "media/clip"});
    EXPECT_EQ(forced.code, 0) << forced.err;
    EXPECT_TRUE(Has(forced.out,
                    "\"name\":\"media/clip.v0\",\"type\":\"video\",\"codec\":\"mjpeg\","
                    "\"frames\":25,"))
        << forced.out;
}

TEST_F(ZemCli, PutNoticesEveryLostFrame) {
    MakeClip();
    for (const uint32_t lost : {0u, 12u, 24u}) {
        m_media.dropWrites = {{"media/clip.v0", lost}};
        const Outcome outcome = Run({"put", "--force", "clip.mov", "media/clip"});
        EXPECT_EQ(outcome.code, 1) << lost;
        EXPECT_TRUE(Has(outcome.err, "media/clip.v0: frame " + std::to_string(lost)))
            << outcome.err;
    }
}

TEST_F(ZemCli, PutTellsAFullVolume) {
    MakeClip();
    m_media.dropWrites = {{"media/clip.v0", 24}};
    Outcome outcome = Run({"put", "clip.mov", "media/clip"});
    EXPECT_TRUE(Has(outcome.err, "its volume is full (1000 B free)")) << outcome.err;
    m_media.freeSpace_bytes = uint64_t{1} << 30;
    outcome = Run({"put", "--force", "clip.mov", "media/clip"});
    EXPECT_TRUE(Has(outcome.err, "its log has the reason")) << outcome.err;
}

// A hundred megabytes are not sent in vain: every 40 the server is asked whether it has the last.
TEST_F(ZemCli, PutStopsSoonWhenNothingIsStoredAnyMore) {
    ASSERT_EQ(Shell("ffmpeg -v error -nostdin -f rawvideo -s 1920x1080 -pix_fmt uyvy422 -r 25 "
                    "-i /dev/zero -frames:v 25 -c copy raw.mov"),
              0);
    // At the end it would be the first of them that is missed.
    for (uint32_t position = 8; position < 25; ++position)
        m_media.dropWrites.insert({"media/raw.v0", position});
    const Outcome outcome = Run({"put", "raw.mov", "media/raw"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_TRUE(Has(outcome.err, "media/raw.v0: frame 9 is missing")) << outcome.err;
    EXPECT_TRUE(Has(outcome.err, "its volume is full")) << outcome.err;
}

TEST_F(ZemCli, AnImportThatFailsLeavesNothing) {
    MakeClip();
    m_media.dropWrites = {{"media/clip.v0.part", 3}};
    const Outcome outcome = Run({"import", "clip.mov", "media/clip"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_TRUE(Has(outcome.err, "media/clip.v0: frame 3")) << outcome.err;
    EXPECT_TRUE(Has(outcome.err, "nothing of it is left on the server")) << outcome.err;
    for (const auto& [name, file] : m_media.files)
        EXPECT_FALSE(name.starts_with("media/clip")) << name;
}

TEST_F(ZemCli, AnImportKeepsWhatItWouldReplaceUntilItIsWhole) {
    MakeClip();
    ASSERT_EQ(Run({"import", "clip.mov", "media/clip"}).code, 0);
    ASSERT_EQ(m_media.files.count("media/clip.v0"), 1u);
    ASSERT_EQ(m_media.files.count("media/clip.clip"), 1u);
    ASSERT_EQ(m_media.files.count("media/clip.v0.part"), 0u);
    m_media.files["media/clip.v0"].frames[0] = "precious";
    const Outcome refused = Run({"import", "clip.mov", "media/clip"});
    EXPECT_EQ(refused.code, 1);
    EXPECT_TRUE(Has(refused.err, "media/clip.v0 exists; --force")) << refused.err;
    m_media.dropWrites = {{"media/clip.v0.part", 3}};
    EXPECT_EQ(Run({"import", "--force", "clip.mov", "media/clip"}).code, 1);
    EXPECT_EQ(m_media.files["media/clip.v0"].frames[0], "precious");
    m_media.dropWrites.clear();
    EXPECT_EQ(Run({"import", "--force", "clip.mov", "media/clip"}).code, 0);
    EXPECT_NE(m_media.files["media/clip.v0"].frames[0], "precious");
}

TEST_F(ZemCli, PutNoticesADamagedFrame) {
    MakeClip();
    m_media.corruptWrites = {{"media/clip.v0", 24}};
    EXPECT_EQ(Run({"put", "--force", "clip.mov", "media/clip"}).code, 1) << "the last is compared";
    m_media.corruptWrites = {{"media/clip.v0", 7}};
    EXPECT_EQ(Run({"put", "--force", "--verify", "all", "clip.mov", "media/clip"}).code, 1);
    m_media.corruptWrites.clear();
    EXPECT_EQ(Run({"put", "--force", "--verify", "all", "clip.mov", "media/clip"}).code, 0);
}

TEST_F(ZemCli, PutOfWhatIsNoClipIs5AndTouchesNoServer) {
    EXPECT_EQ(Run({"put", "missing.mov", "media/clip"}).code, 5);
    std::ofstream(m_dir / "text.mov") << "this is no clip";
    EXPECT_EQ(Run({"put", "text.mov", "media/clip"}).code, 5);
    EXPECT_TRUE(m_server.Requests().empty());
}

TEST_F(ZemCli, AServerThatFallsSilentIs3) {
    CScriptServer silent([](const ScriptRequest&) { return ScriptAnswer{}; });
    const Outcome outcome = RunOn(silent.Url(), {"--timeout", "1", "status"});
    EXPECT_EQ(outcome.code, 3) << outcome.err;
}

TEST_F(ZemCli, AStoppedPutLeavesAndSaysWhatIsLeftBehind) {
    MakeClip();
    const fs::path pid_file = m_dir / "pid";
    bool signalled = false;  // once: a second signal ends the program at once
    CScriptServer server([&](const ScriptRequest& request) {
        if (request.body.substr(4, 4) == Le32(4) && !std::exchange(signalled, true)) {
            kill(std::stoi(Contents(pid_file)), SIGTERM);
        }
        return m_media(request);
    });
    const int code = Shell("sh -c 'echo $$ >pid; exec \"$0\" \"$@\"' " + Quoted(ZEM_PROGRAM) +
                           " --server " + server.Url() + " put clip.mov media/clip 2>err");
    server.Settle();
    EXPECT_EQ(code, 130);
    EXPECT_TRUE(Has(Contents(m_dir / "err"), "incomplete")) << Contents(m_dir / "err");
    EXPECT_EQ(m_media.log.back(), "16");
    EXPECT_LT(m_media.files["media/clip.v0"].frames.size(), 25u);
}

TEST_F(ZemCli, Framemd5OfAMissingFileIs1) {
    const Outcome outcome = Run({"framemd5", "media/none"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_TRUE(Has(outcome.err, "could not open 'media/none'")) << outcome.err;
    EXPECT_TRUE(m_media.clients.empty());
}

class ZemCliFiles : public ZemCli {
protected:
    ZemCliFiles() {
        CFakeMedia::File& file = m_media.files["media/v"];
        file.desc = Le32(0x10038) + Le32(1) + "jpeg" + Le32(25) + Le32(1) + std::string(36, '\0');
        file.frames = {{0, "first"}, {1, "second"}, {3, "fourth"}};
    }
};

TEST_F(ZemCliFiles, Framemd5HasTheUsualColumnsAndTellsHoles) {
    const Outcome outcome = Run({"framemd5", "media/v"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_TRUE(
        Has(outcome.out,
            "\n0,          0,          0,        1,        5, 8b04d5e3775d298e78455efc5ca404d5\n"
            "0,          1,          1,        1,        6, a9f0e61a137d86aa9db53465e0801612\n"
            "# 2: 0x80040201"))
        << outcome.out;
    EXPECT_TRUE(
        Has(Run({"framemd5", "media/v", "--from", "3", "--json"}).out,
            "{\"frame\":3,\"size\":6,\"md5\":\"c0759f2416498708841e7975566360ce\"}],\"count\":1}"));
}

TEST_F(ZemCliFiles, AServerShortOfMemoryIsAskedAgain) {
    m_media.shortOfMemory = 3;
    EXPECT_EQ(Run({"framemd5", "media/v"}).code, 0);
}

TEST_F(ZemCliFiles, ReadWritesFramesToAPipeOrAFile) {
    const Outcome pipe = Run({"read", "media/v", "--count", "2"});
    EXPECT_EQ(pipe.code, 0);
    EXPECT_EQ(pipe.out, "firstsecond");
    EXPECT_EQ(Run({"read", "media/v", "-o", "frames.bin"}).code, 0);
    EXPECT_EQ(Contents(m_dir / "frames.bin"), "firstsecondfourth");
    EXPECT_EQ(Run({"read", "media/v", "-o", "frames.bin"}).code, 5) << "it exists";
    EXPECT_EQ(Run({"read", "media/v", "-o", "frames.bin", "--from", "3", "--force"}).code, 0);
    EXPECT_EQ(Contents(m_dir / "frames.bin"), "fourth");
    EXPECT_EQ(Run({"read", "media/v", "--from", "9", "-o", "none.bin"}).code, 1);
    EXPECT_FALSE(fs::exists(m_dir / "none.bin"));
    EXPECT_FALSE(fs::exists(m_dir / "none.bin.part"));
}

TEST_F(ZemCliFiles, AVerbThatWaitsForAPipeKeepsItsClientAlive) {
    m_media.files["media/v"].frames = {{0, std::string(1 << 20, 'x')}, {1, "end"}};
    // The reader of the pipe starts to read only when the server has seen a sign of life.
    CScriptServer server([&](const ScriptRequest& request) {
        if (request.body.substr(4, 4) == Le32(17)) std::ofstream(m_dir / "go");
        return m_media(request);
    });
    ASSERT_EQ(Shell("mkfifo go"), 0);
    EXPECT_EQ(Shell("{ timeout 60 " + Quoted(ZEM_PROGRAM) + " --keep-alive 1 --server " +
                    server.Url() + " read media/v; echo $? >code; } | { cat go; wc -c >count; }"),
              0);
    server.Settle();
    EXPECT_EQ(Contents(m_dir / "code"), "0\n");
    EXPECT_EQ(Contents(m_dir / "count"), "1048579\n");
}

TEST_F(ZemCliFiles, InfoFramesAndMarksInBothForms) {
    for (const char* form : {"", "--by-name"}) {
        std::vector<std::string> more = {"--json"};
        if (*form != '\0') more.emplace_back(form);
        const auto run = [&](const char* verb) {
            std::vector<std::string> arguments = {verb, "media/v"};
            arguments.insert(arguments.end(), more.begin(), more.end());
            return Run(arguments).out;
        };
        EXPECT_TRUE(Has(run("info"), "\"type\":\"video\",\"codec\":\"jpeg\",\"frames\":4"));
        EXPECT_TRUE(Has(run("frames"), "{\"frame\":1,\"size\":6,\"key\":true,\"present\":true"));
        EXPECT_EQ(run("marks"), "{\"name\":\"media/v\",\"first\":3,\"second\":7}\n");
    }
    EXPECT_TRUE(Has(Run({"info", "media/v"}).out, "rate      25\n"));
    EXPECT_TRUE(Has(Run({"frames", "media/v"}).out, "         2          0  ----"));
    EXPECT_EQ(Run({"info", "media/none"}).code, 1);
    EXPECT_EQ(Run({"info", "media/none", "--by-name"}).code, 1);
}

TEST_F(ZemCliFiles, SpaceAndStat) {
    EXPECT_EQ(Run({"df", "--json"}).out,
              "{\"volume\":\"\",\"total_bytes\":4000,\"free_bytes\":1000}\n");
    EXPECT_EQ(Run({"stat", "media/v", "--json"}).out,
              "{\"name\":\"media/v\",\"attributes\":128,\"directory\":false,\"size_bytes\":17}\n");
    EXPECT_TRUE(Has(Run({"stat", "media/v"}).out, "0x80 (normal)"));
    EXPECT_EQ(Run({"stat", "media/none"}).code, 1);
}

TEST_F(ZemCliFiles, RemoveMoveAndMakeDirectory) {
    EXPECT_EQ(Run({"mkdir", "media/d"}).code, 0);
    EXPECT_EQ(Run({"mkdir", "media/d"}).code, 1) << "it exists";
    EXPECT_EQ(Run({"mv", "media/v", "media/d/v"}).code, 0);
    EXPECT_EQ(Run({"mv", "media/v", "media/w"}).code, 1) << "it is gone";
    m_media.files["media/w"];
    EXPECT_EQ(Run({"mv", "media/w", "media/d/v"}).code, 1) << "the target exists";
    EXPECT_EQ(Run({"rm", "media/d/v"}).code, 0);
    EXPECT_EQ(Run({"rm", "media/d/v"}).code, 1);
    EXPECT_EQ(Run({"rm", "--http", "media/w"}).code, 0);
    EXPECT_EQ(Run({"rm", "--http", "media/w"}).code, 1);
}

TEST_F(ZemCliFiles, WhatTheServerDidNotDoIs1) {
    m_media.ignored = {13, 21, 23, 24, 25};
    EXPECT_EQ(Run({"mkdir", "media/d"}).code, 1);
    EXPECT_EQ(Run({"mv", "media/v", "media/w"}).code, 1);
    EXPECT_EQ(Run({"rm", "media/v"}).code, 1);
    EXPECT_EQ(Run({"stripe", "media/v", "10:00:00:00"}).code, 1);
    EXPECT_EQ(Run({"erase", "media/v", "--from", "0", "--count", "1"}).code, 1);
}

TEST_F(ZemCliFiles, StripeEraseAndFlush) {
    EXPECT_EQ(Run({"stripe", "media/v", "10:11:12:13"}).code, 0);
    EXPECT_EQ(m_media.files["media/v"].desc.substr(40, 4), "\x13\x12\x11\x10");
    EXPECT_EQ(Run({"stripe", "media/v", "10:11:12:99"}).code, 2);
    EXPECT_EQ(Run({"erase", "media/v", "--from", "0", "--count", "2"}).code, 0);
    EXPECT_EQ(m_media.files["media/v"].frames.size(), 1u);
    EXPECT_EQ(Run({"erase", "media/v", "--from", "3", "--count", "2"}).code, 2);
    EXPECT_EQ(Run({"flush", "media/v"}).code, 0);
}

TEST_F(ZemCliFiles, GetDownloadsWholeFilesOnly) {
    EXPECT_EQ(Run({"get", "media/v"}).code, 0);
    EXPECT_EQ(Contents(m_dir / "v"), "firstsecondfourth");
    EXPECT_EQ(Run({"get", "media/v"}).code, 5) << "it exists";
    EXPECT_EQ(Run({"get", "media/v", "-o", "-"}).out, "firstsecondfourth");
    EXPECT_TRUE(Has(Run({"get", "media/v", "--force", "--json"}).out, "\"bytes\":17"));
    EXPECT_EQ(Run({"get", "media/none"}).code, 1);
    EXPECT_FALSE(fs::exists(m_dir / "none"));
    EXPECT_FALSE(fs::exists(m_dir / "none.part"));
    CScriptServer cut([](const ScriptRequest&) {
        return ScriptAnswer{"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\nhalf of it", true};
    });
    EXPECT_EQ(RunOn(cut.Url(), {"get", "media/half"}).code, 4);
    EXPECT_FALSE(fs::exists(m_dir / "half"));
    EXPECT_FALSE(fs::exists(m_dir / "half.part"));
}

TEST_F(ZemCliFiles, ClientVerbsStayJoined) {
    std::ofstream(m_dir / "config.xml")
        << "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?><c a=\"\xC3\xA9\"/>";
    EXPECT_EQ(Run({"--id", "d", "config", "push", "config.xml"}).code, 0);
    EXPECT_EQ(m_server.Requests().back().body.substr(12),
              std::string("<\0c\0 \0a\0=\0\"\0\xE9\0\"\0/\0>\0\0\0", 22));
    EXPECT_EQ(Run({"--id", "d", "config", "set", "readAhead", "4"}).code, 0);
    EXPECT_EQ(Run({"--id", "d", "realtime"}).code, 0);
    EXPECT_EQ(Run({"--id", "d", "keepalive"}).code, 0);
    EXPECT_EQ(m_media.clients, std::set<std::string>{"d"});
    EXPECT_EQ(Run({"--id", "d", "leave", "--json"}).out, "{\"client\":\"d\",\"done\":\"leave\"}\n");
    EXPECT_TRUE(m_media.clients.empty());
    EXPECT_EQ(Run({"--id", "d", "config", "push", "missing.xml"}).code, 5);
}

TEST_F(ZemCliFiles, StayKeepsTheClientJoined) {
    EXPECT_EQ(Run({"--id", "d", "--stay", "info", "media/v"}).code, 0);
    EXPECT_EQ(m_media.clients, std::set<std::string>{"d"});
}

}  // namespace
