// What programs read of zem: one way to say that something was done, one name for a codec, one form
// of a time.
#include <regex>

#include "tests/zem/zemcli.h"

namespace {

class ZemCliScripts : public ZemCliFiles {};

TEST_F(ZemCliScripts, WhatWasDoneIsSaidInOneWay) {
    std::ofstream(m_dir / "config.xml") << "<c/>";
    m_media.files["media/w"] = m_media.files["media/x"] = m_media.files["media/v"];
    const std::string client = R"(,"done":true,"client":"desk"})";
    const std::string name = R"(,"done":true,"name":"media/)";
    const std::vector<std::pair<std::vector<std::string>, std::string>> verbs = {
        {{"stripe", "media/v", "10:00:00:00"}, R"({"verb":"stripe")" + name + "v\"}\n"},
        {{"erase", "media/v", "--from", "0", "--count", "1"},
         R"({"verb":"erase")" + name + "v\"}\n"},
        {{"flush", "media/v"}, R"({"verb":"flush")" + name + "v\"}\n"},
        {{"mkdir", "media/d"}, R"({"verb":"mkdir")" + name + "d\"}\n"},
        {{"mv", "media/v", "media/d/v"},
         R"({"verb":"mv")" + name + R"(v","to":"media/d/v"})" + "\n"},
        {{"rm", "media/d/v", "media/w"},
         R"({"verb":"rm")" + name + "d/v\"}\n" + R"({"verb":"rm")" + name + "w\"}\n"},
        {{"rm", "--http", "media/x"}, R"({"verb":"rm")" + name + "x\"}\n"},
        {{"join"}, R"({"verb":"join")" + client + "\n"},
        {{"keepalive"}, R"({"verb":"keepalive")" + client + "\n"},
        {{"realtime"}, R"({"verb":"realtime")" + client + "\n"},
        {{"config", "push", "config.xml"}, R"({"verb":"config push")" + client + "\n"},
        {{"config", "set", "readAhead", "4"}, R"({"verb":"config set")" + client + "\n"},
        {{"leave"}, R"({"verb":"leave")" + client + "\n"},
    };
    for (const auto& [arguments, said] : verbs) {
        std::vector<std::string> all = {"--json", "--id", "desk"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const Outcome outcome = Run(all);
        EXPECT_EQ(outcome.out, said) << outcome.err;
    }
}

TEST_F(ZemCliScripts, TheVersionIsAnObjectToo) {
    const std::regex object(R"(\{"program":"zem","version":"[0-9]+\.[0-9]+\.[0-9]+"\}\n)");
    EXPECT_TRUE(std::regex_match(Run({"--json", "--version"}).out, object));
    EXPECT_TRUE(std::regex_match(Run({"--version", "--json"}).out, object));
    EXPECT_EQ(Run({"--version", "--json"}).code, 0);
}

// What put says of a codec is what info says of its file, and export.
TEST_F(ZemCliScripts, ACodecHasTheSameNamesInEveryVerb) {
    MakeClip();
    const std::string video = R"("codec":"jpeg","codec_name":"mjpeg",)";
    const std::string audio = R"("codec":"sowt","codec_name":"pcm_s16le",)";
    const Outcome put = Run({"put", "clip.mov", "media/c", "--json"});
    EXPECT_TRUE(Has(put.out, video) && Has(put.out, audio)) << put.out << put.err;
    const Outcome whole = Run({"import", "clip.mov", "media/i", "--json"});
    EXPECT_TRUE(Has(whole.out, video) && Has(whole.out, audio)) << whole.out << whole.err;
    EXPECT_TRUE(Has(whole.out, R"("codec":"zclp","codec_name":null,)")) << whole.out;
    EXPECT_TRUE(Has(Run({"info", "media/c.v0", "--json"}).out, video));
    EXPECT_TRUE(Has(Run({"info", "media/c.a0", "--json"}).out, audio));
    for (const char* name : {"media/c", "media/i"}) {
        const Outcome out = Run({"export", name, "out.mov", "--force", "--json"});
        EXPECT_TRUE(Has(out.out, video) && Has(out.out, audio)) << out.out << out.err;
    }
    EXPECT_TRUE(Has(Run({"info", "media/c.v0"}).out, "codec     jpeg (mjpeg)\n"));
    EXPECT_TRUE(Has(Run({"info", "media/i.clip"}).out, "codec     zclp\n"));
}

TEST_F(ZemCliScripts, ATimeHasTheFormThatItHasInTheLog) {
    m_server.Settle();
    ASSERT_EQ(Shell("TZ=here3:30 " + Quoted(ZEM_PROGRAM) + " --server " + m_server.Url() +
                    " top --count 1 --json >out"),
              0);
    const std::regex time(R"(\{"time":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d-03:30",)");
    const std::string out = Contents(m_dir / "out");
    EXPECT_TRUE(std::regex_search(out, time)) << out;
}

}  // namespace
