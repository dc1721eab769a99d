// What zem says to a command line that does not fit: what is wrong with it, and what to do.
#include "apps/zem/valuecheck.h"
#include "tests/zem/zemcli.h"

namespace {

class ZemCliUsage : public ZemCli {};

struct Mistake {
    std::vector<std::string> arguments;
    const char* said;
};

TEST_F(ZemCliUsage, EveryMistakeHasASentence) {
    const std::vector<Mistake> mistakes = {
        {{}, "say what to do, as in zem status; see zem --help"},
        {{"statsu"}, "there is no verb 'statsu'; did you mean status?"},
        {{"ls", "media"},
         "there is no verb 'ls': the protocol cannot list files; zem stat NAME tells of one, zem "
         "--help what else there is"},
        {{"nope"}, "there is no verb 'nope'; see zem --help"},
        {{"copy", "x"}, "there is no verb 'copy'; did you mean put or get?"},
        {{"mvv", "x"}, "there is no verb 'mvv'; did you mean mv?"},
        {{"delete", "x"}, "there is no verb 'delete'; did you mean rm?"},
        {{"upload", "x", "y"}, "there is no verb 'upload'; did you mean put or import?"},
        {{"config", "delete"}, "config has no verb 'delete'; see zem config --help"},
        {{"frobnicate"}, "there is no verb 'frobnicate'; see zem --help"},
        {{"help", "statsu"}, "there is no verb 'statsu'; did you mean status?"},
        {{"help", "config", "x"}, "config has no verb 'x'; see zem config --help"},
        {{"help", "--frob"}, "help has no option '--frob'; see zem help --help"},
        {{"config"}, "config needs a verb, as in zem config push; see zem config --help"},
        {{"config", "puhs"}, "config has no verb 'puhs'; did you mean push?"},
        {{"config", "foo"}, "config has no verb 'foo'; see zem config --help"},
        {{"--frob"}, "there is no option '--frob'; see zem --help"},
        {{"put", "--forse", "a", "b"}, "put has no option '--forse'; did you mean --force?"},
        {{"put", "--servr=x", "a", "b"}, "put has no option '--servr'; did you mean --server?"},
        {{"info", "x", "--count", "3"}, "info has no option '--count'; see zem info --help"},
        {{"status", "-qx"}, "status has no option '-x'; see zem status --help"},
        {{"--count", "3", "read", "x"}, "--count belongs behind the verb: zem read ... --count"},
        {{"status", "x"}, "'x' is one argument too many for zem status; see zem status --help"},
        {{"mv", "a", "b", "c"},
         "'c' is one argument too many for zem mv FROM TO; see zem mv --help"},
        {{"df", "a", "b"}, "'b' is one argument too many for zem df [VOLUME]; see zem df --help"},
        {{"info"}, "info needs NAME (File on the server); see zem info --help"},
        {{"mv", "a"}, "mv needs TO (Its new name); see zem mv --help"},
        {{"config", "set", "a"},
         "set needs VALUE (Its new value. frameRate: file, 23.976, 24, 25, 29.97, 30, 50, 59.94 or "
         "60; readAhead: auto or 0 to 64); see zem config set --help"},
        {{"erase", "x"}, "erase needs --from N (First frame to erase); see zem erase --help"},
        {{"erase", "x", "--from", "0"},
         "erase needs --count N (How many frames; 1 to 2147483647); see zem erase --help"},
        {{"completion"},
         "completion needs SHELL (Shell: bash, zsh, fish); see zem completion --help"},
        {{"status", "--timeout"}, "--timeout needs SECONDS behind it; see zem status --help"},
        {{"--id"}, "--id needs ID behind it; see zem --help"},
        {{"status", "--id", "a", "--id", "b"}, "--id is given more than once; give it once"},
        {{"info", "x", "--id", ""},
         "--id: a client ID is 1 to 259 printable characters without outer "
         "blanks; see zem info --help"},
        {{"--id=", "rm", "info", "x"}, "there is no value behind --id=; see zem --help"},
        {{"read", "x", "--output="}, "there is no value behind --output=; see zem --help"},
        {{"--id", "  ", "join"},
         "--id: a client ID is 1 to 259 printable characters without outer "
         "blanks; see zem join --help"},
        {{"status", "--quiet=x"}, "--quiet takes no value; see zem status --help"},
        {{"frames", "x", "--by-name", "--rate", "3"},
         "--by-name and --rate do not go together; see zem frames --help"},
        {{"status", "--color", "blue"},
         "--color: 'blue' is not auto, always or never; see zem status --help"},
        {{"completion", "tcsh"},
         "SHELL: 'tcsh' is not bash, zsh or fish; see zem completion --help"},
        {{"--timeout", "0", "status"},
         "--timeout: '0' is no number from 1 to 86400; see zem status --help"},
        {{"read", "x", "--from", "-1"},
         "--from: '-1' is no number from 0 to 4294967295; see zem read --help"},
        {{"top", "--interval", "1s"},
         "--interval: '1s' is no number from 0.1 to 3600; see zem top --help"},
        {{"\x1b[2J"}, "there is no verb '\\x1b[2J'; see zem --help"},
    };
    for (const Mistake& mistake : mistakes) {
        const Outcome outcome = Run(mistake.arguments);
        EXPECT_EQ(outcome.code, 2) << mistake.said;
        EXPECT_EQ(outcome.err, "zem: " + std::string(mistake.said) + "\n");
        EXPECT_EQ(outcome.out, "");
    }
    EXPECT_TRUE(m_server.Requests().empty()) << "nothing was asked";
}

TEST_F(ZemCliUsage, NumbersAreDecimalWhateverTheirZeros) {
    const auto read = [](const zem::ValueCheck& number, std::string text) {
        const std::string problem = number.problem(text);
        return problem.empty() ? text : "no";
    };
    const zem::ValueCheck whole = zem::WholeNumber(0);
    EXPECT_EQ(read(whole, "010"), "10") << "not eight";
    EXPECT_EQ(read(whole, "0x10"), "16");
    EXPECT_EQ(read(whole, "4294967295"), "4294967295");
    for (const char* text : {"", " 1", "1 ", "+1", "-0", "1.0", "1k", "0x", "0x-1", "4294967296",
                             "18446744073709551616"}) {
        EXPECT_EQ(read(whole, text), "no") << text;
    }
    EXPECT_EQ(read(zem::WholeNumber(1, 40), "0"), "no");
    EXPECT_EQ(read(zem::WholeNumber(1, 40), "40"), "40");
    EXPECT_EQ(read(zem::WholeNumber(1, 40), "41"), "no");
    const zem::ValueCheck real = zem::Number(0.1, 3600);
    for (const char* text : {"0.1", "3600", "3.6e3", "1.", "25"})
        EXPECT_EQ(read(real, text), text);
    for (const char* text : {"", "nan", "inf", "-1", "0.09", "3600.1", "1s"})
        EXPECT_EQ(read(real, text), "no") << text;
}

// What the check made of it is what counts.
TEST_F(ZemCliUsage, AFrameMayBeNamedWithZerosInFront) {
    CFakeMedia::File& file = m_media.files["media/v"];
    file.desc = Le32(0x10038) + Le32(1) + std::string(48, '\0');
    for (uint32_t i = 0; i < 20; ++i)
        file.frames[i] = "frame " + std::to_string(i);
    const Outcome tenth = Run({"read", "media/v", "--from", "010", "--count", "1"});
    EXPECT_EQ(tenth.out, "frame 10") << tenth.err;
    EXPECT_EQ(Run({"read", "media/v", "--from", "0x10", "--count", "01"}).out, "frame 16");
}

}  // namespace
