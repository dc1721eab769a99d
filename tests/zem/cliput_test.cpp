// zem put and import from outside: what arrives, and what they do when the server loses frames
// without saying so.
#include <algorithm>

#include "tests/zem/zemcli.h"

namespace {

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
                    "\"name\":\"media/clip.v0\",\"type\":\"video\",\"codec\":\"jpeg\","
                    "\"codec_name\":\"mjpeg\",\"frames\":25,"))
        << forced.out;
}

TEST_F(ZemCli, AMovIndexBehindTheFramesCannotComeThroughAPipe) {
    MakeClip();
    const std::string zem = Quoted(ZEM_PROGRAM) + " --server " + m_server.Url();
    const auto piped = [&](const std::string& clip, const std::string& verb) {
        m_server.Settle();
        const int code = Shell("cat " + clip + " | " + zem + " " + verb + " - media/x 2>err");
        m_server.Settle();
        return code;
    };
    for (const char* const verb : {"put", "import"}) {
        EXPECT_EQ(piped("clip.mov", verb), 5) << verb;
        const std::string err = Contents(m_dir / "err");
        EXPECT_TRUE(Has(err, "index stands at its end cannot come through a pipe")) << err;
        EXPECT_TRUE(err.starts_with("zem: ") && err.find('\n') + 1 == err.size()) << err;
        EXPECT_TRUE(m_media.files.empty()) << verb;
        EXPECT_TRUE(m_media.clients.empty()) << verb;
    }
    ASSERT_EQ(Shell("ffmpeg -v error -nostdin -i clip.mov -c copy -movflags +faststart front.mov"),
              0);
    EXPECT_EQ(piped("front.mov", "put"), 0);
    EXPECT_EQ(m_media.files.at("media/x.v0").frames.size(), 25u);
}

TEST_F(ZemCli, WhatTheFfmpegLibrariesSayIsForWhoAsks) {
    ASSERT_EQ(Shell("head -c 4096 /dev/zero >noise.mov"), 0);
    const std::string put = Quoted(ZEM_PROGRAM) + " put noise.mov media/x 2>err";
    EXPECT_EQ(Shell(put), 5);
    const std::string err = Contents(m_dir / "err");
    EXPECT_TRUE(err.starts_with("zem: noise.mov: ") && err.find('\n') + 1 == err.size()) << err;
    EXPECT_EQ(Shell("ZEM_AV_LOG=1 " + put), 5);
    const std::string asked = Contents(m_dir / "err");
    EXPECT_TRUE(asked.size() > err.size() && asked.ends_with(err)) << asked;
}

// Its index may stand at the end, and it may begin within the file.
TEST_F(ZemCli, AFileOnTheStandardInputIsReadLikeOneThatIsNamed) {
    MakeClip();
    const auto put = [&](const std::string& arguments) {
        m_server.Settle();
        const int code = Shell(Quoted(ZEM_PROGRAM) + " --server " + m_server.Url() + " put " +
                               arguments + " 2>err");
        m_server.Settle();
        return code;
    };
    EXPECT_EQ(put("clip.mov media/named"), 0);
    EXPECT_EQ(put("- media/x <clip.mov"), 0) << Contents(m_dir / "err");
    ASSERT_EQ(Shell("{ head -c 1000 /dev/zero; cat clip.mov; } >later.mov"), 0);
    EXPECT_EQ(Shell("{ dd bs=1000 count=1 of=/dev/null 2>/dev/null; " + Quoted(ZEM_PROGRAM) +
                    " --server " + m_server.Url() + " put - media/y 2>err; } <later.mov"),
              0)
        << Contents(m_dir / "err");
    m_server.Settle();
    for (const char* const name : {"media/x.v0", "media/y.v0"}) {
        EXPECT_EQ(m_media.files[name].frames, m_media.files["media/named.v0"].frames) << name;
        EXPECT_EQ(m_media.files[name].frames.size(), 25u) << name;
    }
    // That it is cut off shows before anything is made.
    ASSERT_EQ(
        Shell("ffmpeg -v error -nostdin -i clip.mov -c copy -movflags +faststart front.mov && "
              "head -c 150000 front.mov >cut.mov"),
        0);
    EXPECT_EQ(put("- media/cut <cut.mov"), 5);
    const std::string err = Contents(m_dir / "err");
    EXPECT_TRUE(Has(err, "-: the clip is cut off: by its index packet ") &&
                !Has(err, "on the server"))
        << err;
}

// Its index names frames that are not there: nothing of it goes in unsaid.
TEST_F(ZemCli, AMovThatIsCutOffIsNotTakenForAWholeOne) {
    MakeClip();
    ASSERT_EQ(
        Shell("ffmpeg -v error -nostdin -i clip.mov -c copy -movflags +faststart front.mov && "
              "head -c 150000 front.mov >cut.mov"),
        0);
    for (const char* const verb : {"put", "import"}) {
        const Outcome outcome = Run({verb, "cut.mov", "media/x"});
        EXPECT_EQ(outcome.code, 5) << verb;
        EXPECT_TRUE(Has(outcome.err, "cut.mov: the clip is cut off: by its index packet ") &&
                    Has(outcome.err, " ends at byte ") && Has(outcome.err, ", but it has 150000;"))
            << outcome.err;
    }
    EXPECT_TRUE(m_server.Requests().empty()) << "it was looked at before the server was";

    // Of a pipe it shows at the end.
    const int code = Shell("cat cut.mov | " + Quoted(ZEM_PROGRAM) + " --server " + m_server.Url() +
                           " import - media/x 2>err");
    m_server.Settle();
    EXPECT_EQ(code, 5);
    const std::string err = Contents(m_dir / "err");
    EXPECT_TRUE(Has(err, "the clip is cut off: ")) << err;
    EXPECT_TRUE(Has(err, "nothing of it is left on the server")) << err;
    EXPECT_TRUE(m_media.files.empty());
}

TEST_F(ZemCli, AMovWithoutItsIndexIsPerhapsCutOff) {
    MakeClip();
    ASSERT_EQ(Shell("head -c 100000 clip.mov >cut.mov && head -c 100000 /dev/zero >noise.mov"), 0);
    const Outcome outcome = Run({"put", "cut.mov", "media/x"});
    EXPECT_EQ(outcome.code, 5);
    EXPECT_TRUE(Has(outcome.err,
                    "cut.mov: a MOV or MP4 whose index cannot be read: perhaps it is "
                    "cut off"))
        << outcome.err;
    EXPECT_FALSE(Has(Run({"put", "noise.mov", "media/x"}).err, "a MOV"));
}

// Each fragment brings an index of its own.
TEST_F(ZemCli, AFragmentedMp4ThatIsCutOffIsNotTakenForAWholeOne) {
    ASSERT_EQ(Shell("ffmpeg -v error -nostdin -f lavfi -i testsrc2=size=64x48:rate=25 -t 1 "
                    "-c:v mpeg4 -g 5 -movflags frag_keyframe+empty_moov clip.mp4 && "
                    "head -c $(($(stat -c %s clip.mp4) / 2)) clip.mp4 >cut.mp4"),
              0);
    EXPECT_EQ(Run({"put", "clip.mp4", "media/whole"}).code, 0);
    const Outcome outcome = Run({"put", "cut.mp4", "media/x"});
    EXPECT_EQ(outcome.code, 5);
    EXPECT_TRUE(Has(outcome.err, "cut.mp4: the clip is cut off: ")) << outcome.err;
}

TEST_F(ZemCli, AClipThatEndsWithinAFrameIsCutOff) {
    MakeClip();
    // An AVI has its index at the end: without it the frames are read as they come.
    ASSERT_EQ(Shell("ffmpeg -v error -nostdin -i clip.mov -c copy clip.avi && "
                    "head -c 150000 clip.avi >cut.avi"),
              0);
    EXPECT_EQ(Run({"put", "clip.avi", "media/whole"}).code, 0);
    const Outcome outcome = Run({"put", "cut.avi", "media/x"});
    EXPECT_EQ(outcome.code, 5);
    EXPECT_TRUE(Has(outcome.err, "cut.avi: the clip is cut off: it ends within packet "))
        << outcome.err;
    EXPECT_TRUE(Has(outcome.err, "the files on the server are incomplete")) << outcome.err;
}

// A Matroska says how long it is, or at least how long each part of it is, as one does that was
// written to a pipe; a transport stream consists of packets of one length.
TEST_F(ZemCli, AMatroskaOrTransportStreamThatEndsWithinAFrameIsCutOff) {
    ASSERT_EQ(Shell("ffmpeg -v error -nostdin -f lavfi -i testsrc2=size=320x240:rate=25 -t 1 "
                    "-c:v mpeg2video -g 5 whole.mkv && "
                    "ffmpeg -v error -nostdin -i whole.mkv -c copy -f matroska - >pipe.mkv && "
                    "ffmpeg -v error -nostdin -i whole.mkv -c copy -live 1 -f matroska - "
                    ">live.mkv && "
                    "ffmpeg -v error -nostdin -i whole.mkv -c copy whole.ts && "
                    "ffmpeg -v error -nostdin -i whole.mkv -c copy whole.m2ts && "
                    "for clip in *.mkv *.ts *.m2ts; do head -c 60100 $clip >cut.$clip; done && "
                    "head -c $((188 * 300)) whole.ts >packets.ts"),
              0);
    const auto piped = [&](const std::string& clip) {
        m_server.Settle();
        const int code = Shell("cat " + clip + " | " + Quoted(ZEM_PROGRAM) + " --server " +
                               m_server.Url() + " import --force - media/p 2>err");
        m_server.Settle();
        return Outcome{code, "", Contents(m_dir / "err")};
    };
    const std::vector<std::pair<std::string, std::string>> clips = {
        {"whole.mkv", "ends at byte "},
        {"pipe.mkv", "ends at byte "},
        {"live.mkv", "ends at byte "},
        {"whole.ts", "its last packet has 128 bytes of 188"},
        {"whole.m2ts", "its last packet has 4 bytes of 192"},
    };
    for (const auto& [clip, why] : clips) {
        const Outcome cut = Run({"put", "cut." + clip, "media/x"});
        EXPECT_EQ(cut.code, 5) << clip;
        EXPECT_TRUE(Has(cut.err, "the clip is cut off: ") && Has(cut.err, why)) << cut.err;
    }
    EXPECT_TRUE(m_server.Requests().empty()) << "it was looked at before the server was";
    for (const auto& [clip, why] : clips) {
        const Outcome cut = piped("cut." + clip);
        EXPECT_EQ(cut.code, 5) << clip;
        EXPECT_TRUE(Has(cut.err, "the clip is cut off: ") && Has(cut.err, why) &&
                    Has(cut.err, "nothing of it is left on the server"))
            << cut.err;
        EXPECT_EQ(Run({"put", "--force", clip, "media/x"}).code, 0) << clip;
        EXPECT_EQ(m_media.files["media/x.v0"].frames.size(), 25u) << clip;
        const Outcome whole = piped(clip);
        EXPECT_EQ(whole.code, 0) << clip << whole.err;
    }
    // Between two packets it may end.
    EXPECT_EQ(Run({"put", "--force", "packets.ts", "media/x"}).code, 0);
}

TEST_F(ZemCli, APipeThatBringsNothingIsNoClip) {
    m_server.Settle();
    const int code = Shell("mkfifo pipe && { : >pipe & } && timeout 60 " + Quoted(ZEM_PROGRAM) +
                           " --server " + m_server.Url() + " put pipe media/x 2>err");
    EXPECT_EQ(code, 5);
    EXPECT_EQ(Contents(m_dir / "err"), "zem: pipe: it is empty\n");
}

// Nothing is mapped at the beginning of a process' memory: reading there fails as a bad disk does.
TEST_F(ZemCli, AClipWhoseDeviceFailsIsNotEmpty) {
    m_server.Settle();
    for (const std::string from :
         {" put - media/x </proc/self/mem", " put /proc/self/mem media/x"}) {
        EXPECT_EQ(Shell(Quoted(ZEM_PROGRAM) + " --server " + m_server.Url() + from + " 2>err"), 5);
        EXPECT_TRUE(Contents(m_dir / "err").ends_with(": Input/output error\n"))
            << Contents(m_dir / "err");
    }
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
    EXPECT_TRUE(Has(outcome.err,
                    "its volume is full (1000 B free); the files on the server are incomplete: "
                    "media/clip.v0 media/clip.a0 (zem rm removes them, zem put --force replaces "
                    "them)"))
        << outcome.err;
    m_media.freeSpace_bytes = uint64_t{1} << 30;
    outcome = Run({"put", "--force", "clip.mov", "media/clip"});
    EXPECT_TRUE(Has(outcome.err, "its log has the reason")) << outcome.err;
}

// A hundred megabytes are not sent in vain: every 40 the server is asked whether it has the last.

TEST_F(ZemCli, PutStopsSoonWhenNothingIsStoredAnyMore) {
    ASSERT_EQ(Shell("ffmpeg -v error -nostdin -f rawvideo -s 1920x1080 -pix_fmt uyvy422 -r 25 "
                    "-i /dev/zero -frames:v 25 -c copy raw.mov"),
              0);
    for (uint32_t position = 8; position < 25; ++position)
        m_media.dropWrites.insert({"media/raw.v0", position});
    const Outcome outcome = Run({"put", "raw.mov", "media/raw"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_TRUE(Has(outcome.err, "media/raw.v0: frame 8 is missing")) << outcome.err;
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

TEST_F(ZemCli, AnImportWhoseServerIsGoneNamesWhatMayBeLeft) {
    MakeClip();
    int writes = 0;
    CScriptServer server([&](const ScriptRequest& request) {
        if (request.method == "POST" && request.body.substr(4, 4) == Le32(4)) ++writes;
        return writes < 3 ? m_media(request) : ScriptAnswer{"", true};
    });
    const Outcome outcome = RunOn(server.Url(), {"import", "clip.mov", "media/clip"});
    EXPECT_EQ(outcome.code, 3);
    EXPECT_TRUE(Has(outcome.err,
                    "; files may be left on the server: media/clip.v0.part media/clip.a0.part "
                    "media/clip.clip.part (zem rm removes them, the same import writes over "
                    "them)"))
        << outcome.err;
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
    EXPECT_TRUE(Has(refused.err,
                    "media/clip.v0 exists (video, jpeg (mjpeg), 25 frames); --force replaces it"))
        << refused.err;
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

// What is behind the header would pass for a raw MJPEG stream.
TEST_F(ZemCli, AFileOfTheStoreIsNoClip) {
    MakeClip();
    ASSERT_EQ(Shell("ffmpeg -v error -nostdin -i clip.mov -c copy -f mjpeg frames && "
                    "printf ZEMSTOR1 | cat - frames >clip.v0 && mkfifo pipe"),
              0);
    ASSERT_EQ(Run({"put", "frames", "media/x"}).code, 0);
    for (const std::string verb : {"put", "import"}) {
        for (const std::string clip : {"clip.v0", "pipe"}) {
            if (clip == "pipe") {
                ASSERT_EQ(Shell("cat clip.v0 >pipe 2>/dev/null &"), 0);
            }
            const Outcome outcome = Run({verb, clip, "media/stored"});
            EXPECT_EQ(outcome.code, 5);
            EXPECT_TRUE(Has(outcome.err, "zem: " + clip + ": a file of a server's store"))
                << outcome.err;
        }
    }
    EXPECT_FALSE(m_media.files.contains("media/stored.v0"));
}

TEST_F(ZemCli, PutOfWhatIsNoClipIs5AndTouchesNoServer) {
    EXPECT_EQ(Run({"put", "missing.mov", "media/clip"}).code, 5);
    // Each format's reader finds something else about it, or nothing at all.
    for (const std::string empty :
         {"empty.mov", "empty.mp3", "empty.y4m", "empty.yuv", "empty.h264"}) {
        std::ofstream(m_dir / empty).flush();
        EXPECT_EQ(Run({"put", empty, "media/clip"}).err, "zem: " + empty + ": it is empty\n");
    }
    std::ofstream(m_dir / "text.mov") << "this is no clip";
    const Outcome text = Run({"put", "text.mov", "media/clip"});
    EXPECT_EQ(text.code, 5);
    EXPECT_TRUE(Has(text.err,
                    "zem: text.mov: cannot be opened as a clip; perhaps it is none, or "
                    "it is cut off: "))
        << text.err;
    EXPECT_TRUE(m_server.Requests().empty());
}

}  // namespace
