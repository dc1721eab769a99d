// Command line of zem: the options of every verb, the exit codes, and how failures are told.
// Main thread only.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

#include "apps/generated/version.h"
#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/localfile.h"
#include "apps/zem/output.h"
#include "apps/zem/parser.h"
#include "apps/zem/terminal.h"
#include "apps/zem/valuecheck.h"
#include "apps/zem/verbs.h"

namespace zem {
namespace {

constexpr std::array<ExitMeaning, 7> kExitMeanings = {{
    {kExitOk, "done"},
    {kExitFailed, "the server refused, what was asked for is not there, or it did not happen"},
    {kExitUsage, "wrong usage"},
    {kExitUnreachable, "the server cannot be reached, or the connection broke"},
    {kExitBadReply, "the answer is not one of a media server"},
    {kExitLocalFile, "a file of this machine cannot be read or written"},
    {kExitInterrupted, "stopped by a signal, or nobody reads the output any more"},
}};

std::string Footer() {
    std::string text =
        "NAME is a file below the server's volume root, with slashes: media/clip.v0\n"
        "\n"
        "Exit codes:\n";
    for (const ExitMeaning& exit : kExitMeanings) {
        std::array<char, 120> line{};
        std::snprintf(line.data(), line.size(), "  %-4d %s\n", exit.code, exit.meaning);
        text += line.data();
    }
    return text;
}

int ExitCodeOf(ErrorKind kind) {
    switch (kind) {
        case ErrorKind::kRefused:
            return kExitFailed;
        case ErrorKind::kUsage:
            return kExitUsage;
        case ErrorKind::kUnreachable:
            return kExitUnreachable;
        case ErrorKind::kBadReply:
            return kExitBadReply;
        case ErrorKind::kLocalFile:
            return kExitLocalFile;
        case ErrorKind::kInterrupted:
            return kExitInterrupted;
    }
    return kExitFailed;
}

}  // namespace

std::span<const ExitMeaning> ExitMeanings() {
    return kExitMeanings;
}

ConnectionOptions CommandLine::Connection() const {
    ConnectionOptions options;
    options.server = server;
    options.clientId = clientId.empty() ? DefaultClientId() : clientId;
    options.userAgent = std::string("zem (zem/") + kZemVersion + ")";
    options.stallTimeout_s = timeout_s;
    return options;
}

void CommandLine::RequireId(const char* verb_name) const {
    if (clientId.empty()) {
        throw CZemError(ErrorKind::kUsage,
                        std::string(verb_name) + " concerns one client: say which with --id ID");
    }
}

void PrintLine(const std::string& text) {
    std::printf("%s\n", text.c_str());
}

void PrintDone(const CommandLine& line, const char* verb, std::initializer_list<DoneWith> with) {
    if (!line.json) return;
    CJson json;
    json.Open('{').Text("verb", verb).Bool("done", true);
    for (const DoneWith& one : with)
        json.Text(one.key, one.value);
    PrintLine(json.Close().Str());
}

void AddFileName(CVerb verb, std::string& name, std::string* stream) {
    verb.Place("NAME", name, "File on the server").Required();
    if (stream == nullptr) return;
    verb.Option("--stream", "STREAM", *stream, "Stream of a file with several: v0, a1, tc");
}

CVerb VerbGroup::Add(const char* name, const char* help, std::function<int()> run) const {
    CommandLine& target = line;
    const CVerb verb =
        above.Add(name, help, title, [&target, run = std::move(run)] { target.verb = run; });
    verb.Flag("--json", line.json, "Output as JSON, one object a line");
    return verb;
}

namespace {

// Here already: a blank one would be taken for none, and the verb would act as some other client.
std::string WhyNoClientId(const std::string& id) {
    try {
        CheckClientId(id);
        return {};
    } catch (const CZemError& error) {
        return error.what();
    }
}

void AddGlobalOptions(CVerb app, CommandLine& line) {
    app.Option("--server", "URL", line.server, "Address of the server, http://HOST:PORT")
        .Environment("ZEM_SERVER")
        .ShowDefault();
    app.Option("--id", "ID", line.clientId,
               "Client ID (default: one that no other client has); a verb acts as that client and "
               "leaves at the end, see --stay")
        .Check({&WhyNoClientId, ""});
    app.Option("--channel", "N", line.channel, "Channel to join; 255 joins none")
        .Check(WholeNumber(0))
        .ShowDefault();
    app.Option("--timeout", "SECONDS", line.timeout_s,
               "Seconds without a byte after which a transfer is given up")
        .Check(WholeNumber(1, 86400))
        .ShowDefault();
    app.Option("--keep-alive", "SECONDS", line.keepAlive_s,
               "Seconds between signs of life while a verb waits, for a pipe for example")
        .Check(WholeNumber(1, 40))
        .ShowDefault();
    app.Flag("--stay", line.stay,
             "Do not leave at the end: the client stays joined until zem leave, or until it "
             "was silent for 50 seconds");
    app.Flag("-q,--quiet", line.quiet, "No progress line, no summary");
    app.Flag("--json", line.json, "Output as JSON, one object a line; failures too");
    app.Option("--color", "WHEN", line.colour,
               "auto: colours on a terminal, unless NO_COLOR is set; always; never")
        .Check(OneOf({"auto", "always", "never"}))
        .ShowDefault();
}

void AddAll(CParser& parser, CommandLine& line) {
    const CVerb program = parser.Program();
    AddGlobalOptions(program, line);
    parser.AddVersion(std::string("zem ") + kZemVersion);
    // The verbs' own, which they take over from here.
    program.SetFooter("Options of every verb, exit codes: zem --help\n");
    AddPutVerbs(program, line);
    AddExportVerb(program, line);
    AddFrameVerbs(program, line);
    AddInfoVerbs(program, line);
    AddFileVerbs(program, line);
    AddPageVerbs(program, line);
    AddTopVerb(program, line);
    AddBenchVerb(program, line);
    AddDoctorVerb(program, line);
    AddClientVerbs(program, line);
    AddManualVerbs(program, line);
    program.SetFooter(Footer());
}

void SayError(const char* text) {
    std::fprintf(stderr, "%s %s\n", Painted(Stream::kErr, Colour::kRed, "zem:").c_str(), text);
}

// The failure on stderr, and for a program that reads JSON on stdout, too.
int ReportFailure(const CommandLine& line, int code, const char* text, int32_t hr = 0,
                  const char* reason = nullptr) {
    std::fflush(stdout);
    SayError(text);
    if (!line.json) return code;
    CJson json;
    json.Open('{').Text("error", text).Number("exit_code", code);
    if (hr != 0)
        json.Text("hresult", HresultText(hr).substr(0, 10));
    else
        json.Null("hresult");
    if (reason != nullptr)
        json.Text("reason", reason);
    else
        json.Null("reason");
    PrintLine(json.Close().Str());
    std::fflush(stdout);
    return code;
}

// The parser may have ended before it came to the option.
bool AsksForJson(std::span<const char* const> arguments) {
    return std::any_of(arguments.begin(), arguments.end(),
                       [](std::string_view one) { return one == "--json"; });
}

// "--id=", as a script writes it whose variable is empty: the parser would take the next word.
std::string_view WithoutValue(std::span<const char* const> arguments) {
    for (const std::string_view one : arguments) {
        if (one == "--") break;
        if (one.starts_with("--") && one.find('=') == one.size() - 1) return one;
    }
    return {};
}

int PrintVersionJson() {
    CJson json;
    PrintLine(json.Open('{').Text("program", "zem").Text("version", kZemVersion).Close().Str());
    return kExitOk;
}

ColourMode ColourModeOf(const std::string& word) {
    if (word == "always") return ColourMode::kAlways;
    return word == "never" ? ColourMode::kNever : ColourMode::kAuto;
}

}  // namespace

int RunZem(int argc, const char* const* argv) {
    // What is opened would else take the place of a stream that the caller has closed.
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(stream, F_GETFD) < 0) open("/dev/null", O_RDONLY);
    CommandLine line;
    CParser parser("zem", "zem: files and frames of a media server");
    AddAll(parser, line);
    const std::span<const char* const> arguments(argv, static_cast<size_t>(argc));
    const std::string_view open = WithoutValue(arguments);
    if (!open.empty()) {
        line.json = AsksForJson(arguments);
        const std::string text = "there is no value behind " + Printable(open) + "; see zem --help";
        return ReportFailure(line, kExitUsage, text.c_str());
    }
    ParseResult parsed = parser.Parse(arguments);
    if (parsed.end == ParseEnd::kRead) {
        SetColourMode(ColourModeOf(line.colour));
        // Asked for here, not of the parser: an unknown word is then what is told of.
        if (!line.verb) parsed = {ParseEnd::kWrong, parser.WhatIsMissing()};
    }
    if (parsed.end != ParseEnd::kRead) {
        line.json = AsksForJson(arguments);
        if (parsed.end == ParseEnd::kWrong)
            return ReportFailure(line, kExitUsage, Printable(parsed.text).c_str());
        line.verb = [&]() -> int {
            if (parsed.end == ParseEnd::kVersion && line.json) return PrintVersionJson();
            std::fputs(parsed.text.c_str(), stdout);
            return kExitOk;
        };
    }
    try {
        CatchStopSignals();
        const int code = line.verb();
        FlushStdout();
        return code;
    } catch (const CZemError& error) {
        std::string text = error.what();
        const std::string_view reason = error.Reason() ? error.Reason() : "";
        if (error.Kind() == ErrorKind::kUnreachable || reason == kReasonOtherServer)
            text += "; zem doctor tells why";
        if (error.Kind() == ErrorKind::kInterrupted && OutputClosed())
            text += "; nobody reads the output any more";
        return ReportFailure(line, ExitCodeOf(error.Kind()), text.c_str(), error.Hr(),
                             error.Reason());
    } catch (const std::exception& error) {
        return ReportFailure(line, kExitFailed, error.what());
    }
}

}  // namespace zem
