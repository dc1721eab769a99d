// What zem says of a refusal: to people why it was one, to programs a word.
#include "mediaio/zemiotypes.h"
#include "tests/zem/zemcli.h"

namespace {

// The server's answers say no more than "no": the program finds out by itself.
TEST_F(ZemCliFiles, ARefusalSaysWhatIsLikely) {
    m_media.files["media/d"].isDirectory = true;
    m_media.files["media"].isDirectory = true;
    m_media.files["media/foreign"] = m_media.files["media/v"];
    m_media.files["media/foreign"].desc.replace(44, 4, Le32(8));
    m_media.files["media/taken"] = m_media.files["media/v"];
    m_media.files["media/taken"].desc.replace(44, 4, Le32(4));
    m_media.noWrite = {"media/foreign", "media/taken"};
    const std::string open = "zem: the server could not open '";
    const std::string log = "': ";
    const std::vector<std::pair<std::vector<std::string>, std::string>> refusals = {
        {{"rm", "media/d"},
         "zem: media/d was not deleted: it is a folder, which "
         "the protocol has no command for: that is done on the server\n"},
        {{"info", "media/d"}, open + "media/d" + log + "it is a folder\n"},
        {{"info", "media/none"}, open + "media/none" + log + "there is no such file\n"},
        {{"info", "nowhere/none"}, open + "nowhere/none" + log + "there is no folder nowhere\n"},
        {{"read", "media/v/x"}, open + "media/v/x" + log + "media/v is a file, and no folder\n"},
        {{"stripe", "media/none", "10:00:00:00"},
         open + "media/none" + log + "there is no such file\n"},
        {{"stripe", "media/foreign", "10:00:00:00"},
         "zem: media/foreign was not striped: a file of a "
         "foreign format is only read; import it to change it\n"},
        {{"erase", "media/taken", "--from", "0", "--count", "1"},
         open + "media/taken" + log + "somebody has it open for writing\n"},
    };
    for (const auto& [arguments, said] : refusals) {
        const Outcome outcome = Run(arguments);
        EXPECT_EQ(outcome.code, 1) << said;
        EXPECT_EQ(outcome.err, said);
    }
    EXPECT_EQ(m_media.files.count("media/d"), 1u);
    EXPECT_TRUE(m_media.clients.empty());

    m_media.ignored = {21, 23};  // a deletion, a directory: success is answered, nothing happens
    EXPECT_TRUE(Has(Run({"rm", "media/v"}).err, "perhaps somebody has it open for writing"));
    EXPECT_EQ(Run({"mkdir", "nowhere/d"}).err,
              "zem: nowhere/d was not created: there is no folder nowhere\n");
    m_media.freeSpace_bytes = uint64_t{1} << 30;
    EXPECT_EQ(Run({"mkdir", "media/new"}).err,
              "zem: media/new was not created (the server's log has the reason): perhaps the "
              "server may not write there\n");
}

// What no server takes is told apart from what this one may not do.
TEST_F(ZemCliFiles, ARefusedNameIsNamed) {
    MakeClip();
    m_media.files["media"].isDirectory = true;
    m_media.freeSpace_bytes = uint64_t{1} << 30;
    m_media.ignored = {23, 24};
    const std::vector<std::pair<std::string, std::string>> names = {
        {"media/a:b", "a name has no ':' in it"},
        {"media/what?", "a name has no '?' in it"},
        {"media/../x", "a name does not lead upwards: '..' is refused"},
        {"media/a\tb", "a name has no control characters in it"},
        {"media/d /x", "a name ends in no dot and no blank"},
        {"media/aux", "' is the name of a device"},
        {"media/Com1", "' is the name of a device"},
        {"/media/v", ": a name begins below the volume root, without a slash"},
        {"\\media\\v", ": a name begins below the volume root, without a slash"},
        {"m/" + std::string(256, 'x'), "has 256 bytes, the most are 255"},
    };
    const auto has = [&](const std::vector<std::string>& arguments, const std::string& why) {
        const Outcome outcome = Run(arguments);
        EXPECT_EQ(outcome.code, 1) << outcome.err;
        EXPECT_TRUE(outcome.err.ends_with(why + "\n")) << arguments[0] << ": " << outcome.err;
        EXPECT_FALSE(Has(outcome.err, "log has the reason")) << outcome.err;
    };
    for (const auto& [name, why] : names) {
        has({"mkdir", name}, why);
        has({"mv", "media/v", name}, why);
        has({"info", name}, why);
        has({"stat", name}, why);
        has({"rm", name}, why);
    }
    m_media.noCreate = {"media/a:b.v0", "media/aux.v0", "/media/abs.v0"};
    has({"put", "clip.mov", "/media/abs"},
        ": a name begins below the volume root, without a slash");
    has({"put", "clip.mov", "media/a:b"}, "': a name has no ':' in it");
    has({"put", "clip.mov", "media/aux"}, "': 'aux.v0' is the name of a device");
    for (const char* name : {"media/auxiliary", "media/com", "media/.x", "media/a b"})
        EXPECT_TRUE(Has(Run({"info", name}).err, ": there is no such file\n")) << name;
    m_media.totalSpace_bytes = 0;
    EXPECT_TRUE(Has(Run({"df", "nope"}).err, "of this volume: there is no folder nope\n"));
    EXPECT_TRUE(Has(Run({"df", "/media"}).err, "of this volume: a name begins below the volume"));
}

// The status page's numbers are some seconds old; who has joined is told those of now.
TEST_F(ZemCliFiles, TheDoctorAsksForTheSpaceAnewAndSaysWhatToDo) {
    m_media.files["media"].isDirectory = true;
    m_media.ignored = {4};  // a write, as on a full volume
    const Outcome full = Run({"doctor"});
    EXPECT_EQ(full.code, 1);
    const std::string advice = "\n                  -> delete what is not needed: zem rm";
    EXPECT_TRUE(Has(full.out, "ok    volume      1000 B free of 3.9 KiB (25 %)\n")) << full.out;
    EXPECT_TRUE(Has(full.out, ": its volume is full (1000 B free)" + advice)) << full.out;
    m_media.freeSpace_bytes = 10;
    EXPECT_TRUE(Has(Run({"doctor", "--read-only"}).out, "10 B free of 3.9 KiB (0 %)" + advice));
    const Outcome file = Run({"doctor", "--folder", "media/v"});
    EXPECT_TRUE(Has(file.out, "-> name a folder that the server may have, with --folder FOLDER"))
        << file.out;
    m_media.freeSpace_bytes = 1000;
    m_media.ignored = {13, 25};  // timecode, erasing
    EXPECT_EQ(Run({"stripe", "media/v", "10:00:00:00"}).err,
              "zem: media/v was not striped: its volume is full (1000 B free)\n");
    EXPECT_EQ(Run({"erase", "media/v", "--from", "0", "--count", "1"}).err,
              "zem: frame 0 was not erased: its volume is full (1000 B free)\n");
}

TEST_F(ZemCliFiles, AClipWithAnErasedFrameIsNotExportedAndWhatToDoIsSaid) {
    MakeClip();
    ASSERT_EQ(Run({"import", "clip.mov", "media/c"}).code, 0);
    m_media.files["media/c.v0"].frames.erase(7);
    const Outcome outcome = Run({"export", "media/c", "x.mov"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_TRUE(Has(outcome.err, "media/c.v0: frame 7 cannot be read: ") &&
                Has(outcome.err,
                    "bring it in anew (zem import --force), or take what is there of "
                    "the stream (zem read media/c.v0 -o FILE)"))
        << outcome.err;
    EXPECT_FALSE(fs::exists(m_dir / "x.mov"));
}

TEST_F(ZemCliFiles, AnAddressWithTlsIsToldApart) {
    const Outcome outcome = RunOn("HTTPS://server:8443", {"status"});
    EXPECT_EQ(outcome.code, 2);
    EXPECT_TRUE(Has(outcome.err,
                    "': zem speaks plain HTTP only, http://HOST:PORT; to a server "
                    "behind TLS lay a tunnel"))
        << outcome.err;
}

// A clip's name has no ending, those of its files have one.
TEST_F(ZemCliFiles, WhoMixesUpAClipAndItsFilesIsToldSo) {
    MakeClip();
    m_media.files["media"].isDirectory = true;
    for (const char* const verb : {"put", "import"}) {
        ASSERT_EQ(Run({verb, "clip.mov", "media/c", "--force"}).code, 0);
        const Outcome info = Run({"info", "media/c"});
        EXPECT_EQ(info.code, 1);
        EXPECT_TRUE(
            info.err.ends_with(": there is no such file; a clip of this name has media/c.v0\n"))
            << info.err;
        const Outcome clip = Run({"export", "media/c.v0", "x.mov"});
        EXPECT_EQ(clip.code, 1);
        EXPECT_EQ(clip.err,
                  "zem: media/c.v0 is a file and no clip: name the clip without the ending, "
                  "media/c\n");
    }
    // A clip's neighbour is none of its files, whatever its name begins with.
    m_media.files["media/c.mov"] = m_media.files["media/c.v0"];
    for (const std::string name : {"media/v", "media/c.mov"}) {
        EXPECT_EQ(Run({"export", name, "x.mov"}).err,
                  "zem: " + name + " is a file and no clip: zem get fetches it as it is\n");
    }
    EXPECT_EQ(Run({"export", "media", "x.mov"}).err, "zem: media is a folder and no clip\n");
}

TEST_F(ZemCliFiles, AClipWithoutANameIsRefused) {
    MakeClip();
    m_media.files["media"].isDirectory = true;
    for (const char* verb : {"put", "import"}) {
        for (const char* name : {"media/", "", "media\\"})
            EXPECT_EQ(Run({verb, "clip.mov", name}).code, 2) << name;
        const Outcome folder = Run({verb, "clip.mov", "media"});
        EXPECT_EQ(folder.code, 1);
        EXPECT_TRUE(
            folder.err.starts_with("zem: media is a folder: say what the clip is to be "
                                   "called in it, as in media/clip"))
            << folder.err;
    }
    EXPECT_EQ(m_media.files.size(), 2u) << "the folder and media/v";
}

// For programs: what is not there is another thing than what is not allowed.
TEST_F(ZemCliFiles, AFailureHasAWordForPrograms) {
    m_media.files["media"].isDirectory = true;
    m_media.files["media/d"].isDirectory = true;
    m_media.files["media/foreign"] = m_media.files["media/v"];
    m_media.files["media/foreign"].desc.replace(44, 4, Le32(8));
    m_media.noWrite = {"media/foreign", "media/v"};
    const std::vector<std::pair<std::vector<std::string>, std::string>> words = {
        {{"info", "media/none"}, "\"no_such_file\""},
        {{"stat", "media/none"}, "\"no_such_file\""},
        {{"rm", "media/none"}, "\"no_such_file\""},
        {{"mv", "media/none", "media/x"}, "\"no_such_file\""},
        {{"marks", "media/none", "--by-name"}, "\"no_such_file\""},
        {{"export", "media/none", "x.mov"}, "\"no_such_file\""},
        {{"info", "nowhere/none"}, "\"no_such_folder\""},
        {{"info", "media/d"}, "\"is_folder\""},
        {{"rm", "media/d"}, "\"is_folder\""},
        {{"mv", "media/v", "media/foreign"}, "\"exists\""},
        {{"mkdir", "media/d"}, "\"exists\""},
        {{"info", "media/a:b"}, "\"bad_name\""},
        {{"info", "/media/v"}, "\"bad_name\""},
        {{"stat", "/media/v"}, "\"bad_name\""},
        {{"stripe", "media/foreign", "10:00:00:00"}, "\"read_only\""},
        {{"stripe", "media/v", "10:00:00:25"}, "\"no_such_timecode\""},
        {{"read", "media/v", "--from", "4", "-o", "x"}, "\"no_such_frame\""},
        {{"erase", "media/v", "--from", "0", "--count", "1"}, "null"},
    };
    for (const auto& [arguments, word] : words) {
        std::vector<std::string> all = arguments;
        all.emplace_back("--json");
        const Outcome outcome = Run(all);
        EXPECT_EQ(outcome.code, 1) << arguments[0];
        EXPECT_TRUE(outcome.out.ends_with(",\"reason\":" + word + "}\n")) << outcome.out;
    }
}

// GET and DELETE say the same of all that can be wrong, so somebody joins and asks; who is named
// with --id, and may be at work, is not made to leave.
TEST_F(ZemCliFiles, ARefusalOfPlainHttpHasAReasonToo) {
    m_media.files["media"].isDirectory = true;
    m_media.files["media/d"].isDirectory = true;
    m_media.noGet = {"media/d", "media/v"};
    m_media.clients = {"player"};
    struct Refusal {
        const char* name;
        const char* get;
        const char* remove;
        const char* word;
    };
    const std::vector<Refusal> refusals = {
        {"media/none", ": there is no such file", nullptr, "\"no_such_file\""},
        {"/media/none", ": there is no such file", nullptr, "\"no_such_file\""},
        {"media/away/none", ": there is no folder media/away", nullptr, "\"no_such_folder\""},
        {"other/x", ": plain HTTP reaches only what lies in media/ or zem/", nullptr,
         "\"not_served\""},
        {"media", ": it is a folder",
         ": it is a folder, which the protocol has no command for: that is done on the server",
         "\"is_folder\""},
        {"media/d", ": it is a folder",
         ": it is a folder, which the protocol has no command for: that is done on the server",
         "\"is_folder\""},
        {"media/v", ": it is there; perhaps the server may not read it, or its path is too long",
         ": perhaps somebody has it open for writing, or the server may not open it, or not write "
         "in "
         "its folder",
         "null"},
        {"media/a:b", ": a name has no ':' in it", nullptr, "\"bad_name\""},
    };
    for (const Refusal& refusal : refusals) {
        const std::string name = refusal.name;
        const Outcome get = Run({"--id", "player", "--json", "get", name, "-o", "x"});
        EXPECT_EQ(get.code, 1);
        EXPECT_TRUE(get.err.starts_with("zem: " + name + " was not sent: HTTP 4")) << get.err;
        EXPECT_TRUE(get.err.ends_with(std::string(refusal.get) + "\n")) << get.err;
        EXPECT_TRUE(get.out.ends_with(std::string(",\"reason\":") + refusal.word + "}\n"));
        const Outcome removed = Run({"--id", "player", "--stay", "--json", "rm", "--http", name});
        EXPECT_EQ(removed.code, 1);
        const char* const why = refusal.remove ? refusal.remove : refusal.get;
        EXPECT_TRUE(removed.err.starts_with("zem: " + name + " was not deleted: HTTP 4"));
        EXPECT_TRUE(removed.err.ends_with(std::string(why) + "\n")) << removed.err;
        EXPECT_TRUE(removed.out.ends_with(std::string(",\"reason\":") + refusal.word + "}\n"));
        EXPECT_EQ(m_media.clients, std::set<std::string>{"player"});
        EXPECT_FALSE(fs::exists(m_dir / "x"));
    }
    m_media.noGet.clear();
    m_media.log.clear();
    EXPECT_EQ(Run({"get", "media/v", "-o", "x"}).code, 0);
    EXPECT_TRUE(m_media.log.empty()) << "nobody joins for a file that is sent";
}

TEST_F(ZemCliFiles, ARefusalOfPlainHttpIsToldWhereNobodyCanJoin) {
    CScriptServer pages([](const ScriptRequest&) {
        return ScriptAnswer{"HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n", false};
    });
    const Outcome outcome = RunOn(pages.Url(), {"get", "media/none"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(
        outcome.err,
        "zem: media/none was not sent: HTTP 400 Bad Request (the server's log has the reason): "
        "perhaps there is no such file, or the server may not touch it\n");
}

TEST_F(ZemCliFiles, ACreationThatIsRefusedSaysWhatIsLikely) {
    MakeClip();
    m_media.files["media"].isDirectory = true;
    m_media.files["media/d.v0"].isDirectory = true;
    const auto said = [&](const std::string& name, bool force = false) {
        std::vector<std::string> arguments = {"put", "clip.mov", name};
        if (force) arguments.push_back("--force");
        const Outcome outcome = Run(arguments);
        EXPECT_EQ(outcome.code, 1) << name;
        const size_t at = outcome.err.rfind(": ");
        return at == std::string::npos ? outcome.err : outcome.err.substr(at + 2);
    };
    EXPECT_EQ(said("media/d"), "it is a folder\n");
    EXPECT_EQ(said("media/d", true), "it is a folder\n");
    ASSERT_EQ(Run({"put", "clip.mov", "media/c"}).code, 0);
    EXPECT_EQ(said("media/c"), "it exists; --force replaces it\n");
    m_media.noCreate = {"media/n.v0", "media/c.v0", "media/v/n.v0"};
    EXPECT_EQ(said("media/c", true),
              "perhaps somebody has it open, or the server may not write it\n");
    EXPECT_EQ(said("media/v/n"), "media/v is a file, and no folder\n");
    EXPECT_EQ(said("media/n"), "its volume is full (1000 B free)\n");
    m_media.freeSpace_bytes = uint64_t{1} << 30;
    EXPECT_EQ(said("media/n"), "perhaps the server may not write there\n");
}

// The server says nothing, and a file that has the start already would look as if it had worked.
// A client of the same server that has it open for writing is no reason.
TEST_F(ZemCliFiles, AStripeThatDidNothingSaysWhatIsLikely) {
    m_media.ignored = {13};
    m_media.freeSpace_bytes = uint64_t{1} << 30;
    CFakeMedia::File& file = m_media.files["media/v"];
    const auto said = [&](uint32_t flags) {
        file.desc.replace(44, 4, Le32(flags));
        const Outcome outcome = Run({"stripe", "media/v", "10:00:00:00"});
        EXPECT_EQ(outcome.code, 1);
        return outcome.err;
    };
    const std::string head = "zem: media/v was not striped",
                      log = " (the server's log has the reason)";
    EXPECT_EQ(said(0), head + log +
                           ": it can be read; perhaps another server writes it, or this one may "
                           "not\n");
    EXPECT_EQ(said(kEsFlagGrowing), head + log + "\n");
    EXPECT_EQ(said(kEsFlagReadOnly),
              head + ": a file of a foreign format is only read; import it to change it\n");
    m_media.freeSpace_bytes = 1000;
    EXPECT_EQ(said(kEsFlagGrowing), head + ": its volume is full (1000 B free)\n");
}

TEST_F(ZemCliFiles, StripeSaysWhyAFileCannotHaveATimecode) {
    const auto said = [&](uint32_t numerator, uint32_t denominator, const char* start,
                          const char* flags = "0") {
        m_media.files["media/v"].desc.replace(12, 8, Le32(numerator) + Le32(denominator));
        const Outcome outcome = Run({"stripe", "media/v", start, "--flags", flags});
        EXPECT_EQ(outcome.code, outcome.err.empty() ? 0 : 1);
        const std::string head =
            std::string("zem: media/v: no frame of it can have the timecode ") + start + ": ";
        return outcome.err.starts_with(head) ? outcome.err.substr(head.size()) : outcome.err;
    };
    const std::string drop = "drop-frame counts 30000/1001 or 60000/1001 frames a second, ";
    EXPECT_EQ(said(25, 1, "10:00:00:24"), "");
    EXPECT_EQ(said(25, 1, "10:00:00:25"), "at 25 frames a second the last one of a second is 24\n");
    EXPECT_EQ(said(25, 1, "10:00:00:24", "1"), drop + "the file has 25\n");
    EXPECT_EQ(said(25, 1, "10:00:00;00"), drop + "the file has 25\n");
    EXPECT_EQ(said(24000, 1001, "10:00:00:24"),
              "at 24000/1001 frames a second the last one of a second is 23\n");
    EXPECT_EQ(said(50, 1, "10:00:00:49"), "");
    EXPECT_EQ(said(50, 1, "10:00:00:50"), "at 50 frames a second the last one of a second is 49\n");
    EXPECT_EQ(said(30000, 1001, "10:00:00;29"), "");
    EXPECT_EQ(said(30000, 1001, "10:01:00;01"),
              "drop-frame leaves it out: this minute begins with 02\n");
    EXPECT_EQ(said(30000, 1001, "10:01:00:00", "1"),
              "drop-frame leaves it out: this minute begins with 02\n");
    for (const char* start : {"10:01:00;02", "10:10:00;00", "10:01:01;00"})
        EXPECT_EQ(said(30000, 1001, start), "") << start;
    EXPECT_EQ(said(60000, 1001, "10:01:00;03"),
              "drop-frame leaves it out: this minute begins with 04\n");
    EXPECT_EQ(said(60000, 1001, "10:01:00;04"), "");
    EXPECT_EQ(said(0, 0, "10:00:00:00"), "a file without a frame rate has no timecodes\n");
    EXPECT_EQ(said(44100, 1024, "10:00:00:00"), "") << "43 a second";
    EXPECT_EQ(said(48000, 480, "10:00:00:00"), "at 100 frames a second there are no timecodes\n");

    const size_t before = m_server.Requests().size();
    for (const char* start : {"1:2:3", "24:00:00:00", "10:00:00:60", ""})
        EXPECT_EQ(Run({"stripe", "media/v", start}).code, 2);
    EXPECT_EQ(m_server.Requests().size(), before) << "nobody was asked";
}

}  // namespace
