// The verbs of zem for frames, files and clients from outside.
#include "tests/zem/zemcli.h"

namespace {

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
}

// The same mistake has one answer, whichever verb it is made with.
TEST_F(ZemCliFiles, AFirstFrameThatThereIsNoneOfIs1) {
    const std::vector<std::vector<std::string>> verbs = {{"framemd5"},
                                                         {"frames"},
                                                         {"frames", "--by-name"},
                                                         {"read", "-o", "none.bin"},
                                                         {"erase", "--count", "1"}};
    m_media.files["media/empty"] = m_media.files["media/v"];
    m_media.files["media/empty"].frames.clear();
    const auto run = [&](std::vector<std::string> arguments, const char* name, const char* from) {
        arguments.insert(arguments.end(), {name, "--from", from, "--json"});
        return Run(arguments);
    };
    for (const auto& verb : verbs) {
        for (const char* from : {"4", "9", "4294967295"}) {
            const Outcome behind = run(verb, "media/v", from);
            EXPECT_EQ(behind.code, 1) << verb[0];
            EXPECT_EQ(behind.err, "zem: media/v: there is no frame " + std::string(from) +
                                      ", it has 4 frames, 0 to 3\n");
        }
        EXPECT_EQ(run(verb, "media/empty", "1").err,
                  "zem: media/empty: there is no frame 1, it has none\n");
    }
    EXPECT_FALSE(fs::exists(m_dir / "none.bin"));
    EXPECT_FALSE(fs::exists(m_dir / "none.bin.part"));
    EXPECT_EQ(m_media.files["media/v"].frames.size(), 3u) << "nothing was erased";
}

TEST_F(ZemCliFiles, ReadersTakeWhatThereIsAndEraseWantsAll) {
    EXPECT_EQ(Run({"read", "media/v", "--from", "3", "--count", "9"}).out, "fourth");
    EXPECT_EQ(Run({"framemd5", "media/v", "--from", "3", "--count", "9"}).code, 0);
    EXPECT_EQ(Run({"frames", "media/v", "--from", "3", "--count", "9"}).code, 0);
    const Outcome more = Run({"erase", "media/v", "--from", "3", "--count", "2"});
    EXPECT_EQ(more.code, 1);
    EXPECT_EQ(more.err, "zem: media/v: from 3 on it has 1 frame, not 2\n");
    EXPECT_EQ(m_media.files["media/v"].frames.size(), 3u);
}

TEST_F(ZemCliFiles, AllOfAFileWithoutFramesIsNothingAndNoFailure) {
    m_media.files["media/v"].frames.clear();
    for (const char* verb : {"framemd5", "frames"}) {
        const Outcome list = Run({verb, "media/v", "--json"});
        EXPECT_EQ(list.code, 0) << list.err;
        EXPECT_TRUE(Has(list.out, "\"frames\":[]")) << list.out;
    }
    EXPECT_EQ(Run({"read", "media/v", "-o", "frames.bin"}).code, 0);
    EXPECT_TRUE(fs::exists(m_dir / "frames.bin"));
    EXPECT_EQ(Contents(m_dir / "frames.bin"), "");
    EXPECT_EQ(Run({"erase", "media/v", "--from", "0", "--count", "1"}).code, 1);
}

// Four frames of 25 a second, as positions of other rates.
TEST_F(ZemCliFiles, FramesInAnotherRateAreAllUpToTheEnd) {
    const auto positions = [&](const char* rate) {
        const std::string out = Run({"frames", "media/v", "--rate", rate, "--json"}).out;
        size_t count = 0;
        for (size_t at = 0; (at = out.find("{\"frame\":", at)) != std::string::npos; ++at)
            ++count;
        EXPECT_TRUE(Has(out, "\"frame_count\":" + std::to_string(count) + ",")) << out;
        return count;
    };
    EXPECT_EQ(positions("0"), 4u);
    EXPECT_EQ(positions("3"), 4u);
    EXPECT_EQ(positions("6"), 8u) << "50 a second";
    EXPECT_EQ(positions("2"), 4u) << "24 a second: 3.84 of them, and the last begins in time";
    EXPECT_EQ(positions("4"), 5u) << "29.97";
    EXPECT_EQ(positions("8"), 10u) << "60: 9.6";
    EXPECT_EQ(Run({"frames", "media/v", "--rate", "6", "--from", "7"}).code, 0);
    EXPECT_EQ(Run({"frames", "media/v", "--rate", "6", "--from", "8"}).code, 1);
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
        EXPECT_TRUE(
            Has(run("info"),
                "\"type\":\"video\",\"codec\":\"jpeg\",\"codec_name\":\"mjpeg\",\"frames\":4"));
        EXPECT_TRUE(Has(run("frames"), "{\"frame\":1,\"size\":6,\"key\":true,\"present\":true"));
        EXPECT_EQ(run("marks"), "{\"name\":\"media/v\",\"first\":3,\"second\":7}\n");
    }
    EXPECT_TRUE(Has(Run({"info", "media/v"}).out, "rate      25\n"));
    EXPECT_TRUE(Has(Run({"frames", "media/v"}).out, "         2          0  ----"));
    EXPECT_EQ(Run({"info", "media/none"}).code, 1);
    m_media.files["media"].isDirectory = true;
    m_media.files["media/d"].isDirectory = true;
    for (const char* verb : {"info", "marks", "frames"}) {
        for (const auto& [name, why] : {std::pair{"media/none", "there is no such file"},
                                        std::pair{"media/d", "it is a folder"}}) {
            const Outcome outcome = Run({verb, name, "--by-name"});
            EXPECT_EQ(outcome.code, 1) << verb << outcome.out;
            EXPECT_EQ(outcome.out, "");
            EXPECT_EQ(outcome.err, std::string("zem: the server has no information about this "
                                               "file: ") +
                                       why + "\n");
        }
    }
}

TEST_F(ZemCliFiles, FramesThatAreNotFoundByNameHaveNoHeading) {
    m_media.files["media/v"].frames = {{0, ""}};
    m_media.noDescs = true;
    const Outcome outcome = Run({"frames", "media/v", "--by-name"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_TRUE(Has(outcome.err, "no frame found by name")) << outcome.err;
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
    m_media.files["media/d"].isDirectory = true;
    EXPECT_EQ(Run({"mv", "media/d", "media/d/e/f"}).err,
              "zem: media/d was not moved: it cannot lie in itself\n");
    EXPECT_EQ(Run({"rm", "media/v"}).code, 1);
    EXPECT_EQ(Run({"stripe", "media/v", "10:00:00:00"}).code, 1);
    EXPECT_EQ(Run({"erase", "media/v", "--from", "0", "--count", "1"}).code, 1);
}

TEST_F(ZemCliFiles, StripeEraseAndFlush) {
    EXPECT_EQ(Run({"stripe", "media/v", "10:11:12:13"}).code, 0);
    EXPECT_EQ(m_media.files["media/v"].desc.substr(40, 4), "\x13\x12\x11\x10");
    EXPECT_EQ(Run({"stripe", "media/v", "10:11:12:99"}).code, 2);
    EXPECT_EQ(Run({"stripe", "media/v", "10:11:12:13", "--flags", "2"}).code, 2);
    EXPECT_EQ(Run({"erase", "media/v", "--from", "0", "--count", "2"}).code, 0);
    EXPECT_EQ(m_media.files["media/v"].frames.size(), 1u);
    EXPECT_EQ(Run({"flush", "media/v"}).code, 0);
}

TEST_F(ZemCliFiles, EraseLooksAtEveryFrame) {
    std::map<uint32_t, std::string>& frames = m_media.files["media/v"].frames;
    const auto erase = [&] {
        for (uint32_t position = 0; position < 20001; ++position)
            frames[position] = "x";
        return Run({"erase", "media/v", "--from", "1", "--count", "20000"});
    };
    EXPECT_EQ(erase().code, 0);
    EXPECT_EQ(frames.size(), 1u);
    m_media.noErase = {17000};
    const Outcome outcome = erase();
    EXPECT_EQ(outcome.code, 1);
    EXPECT_TRUE(outcome.err.starts_with("zem: frame 17000 was not erased")) << outcome.err;
}

// A server may keep the address as it was sent and the counting beside it.
TEST_F(ZemCliFiles, DropFrameIsShownWhereverItIsSaid) {
    CFakeMedia::File& file = m_media.files["media/v"];
    file.desc.replace(12, 8, Le32(30000) + Le32(1001));
    ASSERT_EQ(Run({"stripe", "media/v", "10:00:00:00", "--flags", "1"}).code, 0);
    EXPECT_EQ(file.desc.substr(40, 4), std::string("\0\0\0\x10", 4)) << "as it was asked for";
    EXPECT_TRUE(Has(Run({"info", "media/v"}).out, "timecode  10:00:00;00\n"));
    EXPECT_TRUE(Has(Run({"info", "media/v", "--json"}).out, "\"start_timecode\":\"10:00:00;00\""));
    m_media.ignored = {13};
    EXPECT_EQ(Run({"stripe", "media/v", "10:00:00:00"}).code, 1) << "it still drops frames";
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

// Under sudo a device that was replaced would be gone for all: it is written to, as a pipe is.
TEST_F(ZemCliFiles, PipesAndDevicesAreWrittenToAndStay) {
    ASSERT_EQ(Shell("mkfifo pipe.mov"), 0);
    for (const char* verb : {"read", "get"}) {
        m_server.Settle();
        EXPECT_EQ(Shell("{ timeout 20 cat pipe.mov >got & " + Quoted(ZEM_PROGRAM) + " --server " +
                        m_server.Url() + " " + verb + " media/v -o pipe.mov; code=$?; wait; " +
                        "exit $code; }"),
                  0);
        EXPECT_EQ(Contents(m_dir / "got"), "firstsecondfourth");
        EXPECT_EQ(Run({verb, "media/v", "-o", "/dev/null"}).code, 0);
        const Outcome full = Run({verb, "media/v", "-o", "/dev/full"});
        EXPECT_EQ(full.code, 5);
        EXPECT_EQ(full.err, "zem: /dev/full: No space left on device\n");
        const Outcome folder = Run({verb, "media/v", "-o", ".", "--force"});
        EXPECT_EQ(folder.code, 5);
        EXPECT_EQ(folder.err, "zem: . is a folder: name a file in it\n");
        EXPECT_EQ(Run({verb, "media/v", "-o", "/nope/x"}).err,
                  "zem: /nope/x cannot be written: there is no folder /nope\n");
    }
    MakeClip();
    ASSERT_EQ(Run({"put", "clip.mov", "media/c"}).code, 0);
    EXPECT_EQ(Run({"export", "media/c", "/nope/x.mov"}).err,
              "zem: /nope/x.mov cannot be written: there is no folder /nope\n");
    const Outcome clip = Run({"export", "media/c", "pipe.mov", "--force"});
    EXPECT_EQ(clip.code, 5);
    EXPECT_EQ(clip.err, "zem: pipe.mov is no file: a clip is read back when it is written\n");
    EXPECT_TRUE(fs::is_fifo(m_dir / "pipe.mov"));
}

// As with cp and curl: the link stays. One that leads nowhere may have been laid by somebody else.
TEST_F(ZemCliFiles, WhatALinkLeadsToIsWrittenAndTheLinkStays) {
    MakeClip();
    ASSERT_EQ(Run({"put", "clip.mov", "media/c"}).code, 0);
    fs::create_directory(m_dir / "elsewhere");
    fs::create_symlink("elsewhere/file.mov", m_dir / "first.mov");
    fs::create_symlink("first.mov", m_dir / "link.mov");
    fs::create_symlink("loop.mov", m_dir / "loop.mov");
    const std::vector<std::vector<std::string>> verbs = {
        {"read", "media/v", "-o"}, {"get", "media/v", "-o"}, {"export", "media/c"}};
    for (std::vector<std::string> verb : verbs) {
        const auto to = [&](const char* path, bool force) {
            std::vector<std::string> all = verb;
            all.emplace_back(path);
            if (force) all.emplace_back("--force");
            return Run(all);
        };
        for (const char* link : {"link.mov", "loop.mov"}) {
            const Outcome nowhere = to(link, true);
            EXPECT_EQ(nowhere.code, 5);
            EXPECT_EQ(nowhere.err, "zem: " + std::string(link) +
                                       " is a link that leads to no file: name the file itself\n");
        }
        std::ofstream(m_dir / "elsewhere/file.mov") << "old";
        EXPECT_EQ(to("link.mov", false).err, "zem: link.mov exists; --force replaces it\n");
        EXPECT_EQ(Contents(m_dir / "elsewhere/file.mov"), "old");
        EXPECT_EQ(to("link.mov", true).code, 0);
        EXPECT_EQ(fs::read_symlink(m_dir / "link.mov"), "first.mov");
        EXPECT_EQ(fs::read_symlink(m_dir / "first.mov"), "elsewhere/file.mov");
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(m_dir / "elsewhere/file.mov")));
        EXPECT_GT(fs::file_size(m_dir / "elsewhere/file.mov"), 3u) << verb[0];
        EXPECT_FALSE(fs::exists(m_dir / "elsewhere/file.mov.part"));
        fs::remove(m_dir / "elsewhere/file.mov");
    }
}

TEST_F(ZemCliFiles, GetRefusesWhatAPageHidesBeforeItAsks) {
    const size_t before = m_server.Requests().size();
    for (const char* const name : {"media/clients-choir.v0", "media/STATUS", "/media/clients"}) {
        const Outcome outcome = Run({"get", name, "-o", "z"});
        EXPECT_EQ(outcome.code, 2) << name;
        EXPECT_EQ(outcome.err, "zem: a page of the server hides the files of this name: '" +
                                   std::string(name) +
                                   "'; zem read takes its frames, zem mv another name\n");
    }
    EXPECT_EQ(m_server.Requests().size(), before);
    EXPECT_FALSE(fs::exists(m_dir / "z"));
    EXPECT_EQ(Run({"rm", "--http", "media/clients-choir.v0"}).code, 1) << "DELETE sees files";
}

TEST_F(ZemCliFiles, ClientVerbsStayJoined) {
    std::ofstream(m_dir / "config.xml")
        << "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?><c a=\"\xC3\xA9\"/>";
    EXPECT_EQ(Run({"--id", "d", "config", "push", "config.xml"}).code, 0);
    EXPECT_EQ(m_server.Requests().back().body.substr(12),
              std::string("<\0c\0 \0a\0=\0\"\0\xE9\0\"\0/\0>\0\0\0", 22));
    EXPECT_EQ(Shell("sed 's/a=/b=/' config.xml | " + Quoted(ZEM_PROGRAM) + " --server " +
                    m_server.Url() + " --id d config push -"),
              0);
    EXPECT_EQ(m_server.Requests().back().body.substr(18, 2), std::string("b\0", 2));
    EXPECT_EQ(Run({"--id", "d", "config", "set", "readAhead", "4"}).code, 0);
    EXPECT_EQ(Run({"--id", "d", "realtime"}).code, 0);
    EXPECT_EQ(Run({"--id", "d", "keepalive"}).code, 0);
    EXPECT_EQ(m_media.clients, std::set<std::string>{"d"});
    EXPECT_EQ(Run({"--id", "d", "leave", "--json"}).out,
              "{\"verb\":\"leave\",\"done\":true,\"client\":\"d\"}\n");
    EXPECT_TRUE(m_media.clients.empty());
    EXPECT_EQ(Run({"--id", "d", "config", "push", "missing.xml"}).code, 5);
    const Outcome folder = Run({"--id", "d", "config", "push", "."});
    EXPECT_EQ(folder.code, 5);
    EXPECT_EQ(folder.err, "zem: .: cannot be read: Is a directory\n");
    EXPECT_EQ(Run({"--id", "d", "config", "push", "missing.xml"}).err,
              "zem: missing.xml: cannot be read: No such file or directory\n");
    EXPECT_EQ(Run({"--id", "d", "config", "push", "/dev/null"}).err, "zem: /dev/null: is empty\n");
}

// The protocol does not tell; the server may have another media library.
TEST_F(ZemCliFiles, AnAttributeThatIsNotKnownIsSentWhenForcedOnly) {
    struct Attribute {
        const char* name;
        const char* value;
        const char* fault;
    };
    for (const auto& [name, value, fault] :
         {Attribute{"frameRate", "file", ""},
          {"frameRate", "59.94", ""},
          {"readAhead", "auto", ""},
          {"readAhead", "64", ""},
          {"frameRate", "26", "26 is not a frameRate"},
          {"readAhead", "65", "65 is not a readAhead"},
          {"readAhead", "100", "100 is not a readAhead"},
          {"readAhead", "", " is not a readAhead"},
          {"framerate", "25", "framerate is not an attribute"}}) {
        const size_t before = m_server.Requests().size();
        const Outcome outcome = Run({"--id", "d", "config", "set", name, value});
        if (*fault == '\0') {
            EXPECT_EQ(outcome.code, 0) << outcome.err;
            EXPECT_EQ(m_server.Requests().back().Header("Zem-Id"), "d");
            EXPECT_EQ(outcome.err, "");
            continue;
        }
        EXPECT_EQ(outcome.code, 2);
        EXPECT_EQ(outcome.err, std::string("zem: ") + fault +
                                   ": not sent, for zemhost would not take it; see zem config set "
                                   "--help, and --force for a host of your own\n");
        EXPECT_EQ(m_server.Requests().size(), before);
        const Outcome forced = Run({"--id", "d", "config", "set", name, value, "--force"});
        EXPECT_EQ(forced.code, 0) << forced.err;
        EXPECT_EQ(forced.err, "");
        EXPECT_GT(m_server.Requests().size(), before);
    }
}

TEST_F(ZemCliFiles, StayKeepsTheClientJoined) {
    EXPECT_EQ(Run({"--id", "d", "--stay", "info", "media/v"}).code, 0);
    EXPECT_EQ(m_media.clients, std::set<std::string>{"d"});
}

}  // namespace
