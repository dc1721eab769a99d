// The verbs of zem for frames, files and clients from outside.
#include "tests/zem/zemcli.h"

namespace {

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
