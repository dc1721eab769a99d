// The verbs of the program zem. Each Add… function puts one group of verbs into the command line;
// the one that the user chose is CommandLine::verb. A verb talks to people on stdout and stderr and
// reports failure by CZemError or its exit code. Main thread.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>

#include "apps/zem/client/zemclient.h"
#include "apps/zem/parser.h"

namespace zem {

enum ExitCode : int {
    kExitOk = 0,
    kExitFailed = 1,
    kExitUsage = 2,
    kExitUnreachable = 3,
    kExitBadReply = 4,
    kExitLocalFile = 5,
    kExitInterrupted = 130,
};

// What stands before the verb, and the verb that was chosen.
struct CommandLine {
    std::string server = "http://127.0.0.1:8080";
    std::string clientId;  // empty: one is made up
    uint32_t channel = 0;
    int timeout_s = 60;
    int keepAlive_s = 15;
    bool stay = false;
    bool quiet = false;
    bool json = false;
    std::string colour = "auto";
    std::function<int()> verb;

    ConnectionOptions Connection() const;
    // For verbs that change or end what a client has on the server: they are pointless under a
    // made-up ID.
    void RequireId(const char* verb_name) const;
};

// The group of verbs under which help and manual list them.
struct VerbGroup {
    CVerb above;
    CommandLine& line;
    const char* title;

    // Adds a verb; `run` is called once the line is parsed. --json is every verb's.
    CVerb Add(const char* name, const char* help, std::function<int()> run) const;
    // The same for one with options of its own, which it keeps.
    template <class Options>
    CVerb Add(const char* name, const char* help, const std::shared_ptr<Options>& options,
              int (*run)(const CommandLine&, const Options&)) const {
        return Add(name, help, [options, &line = line, run] { return run(line, *options); });
    }
};

// The file of the server that a verb is about and, where it is about one, the stream.
void AddFileName(CVerb verb, std::string& name, std::string* stream = nullptr);

void PrintLine(const std::string& text);

// What every verb that only does something tells a program, and nothing without --json:
// {"verb":"mv","done":true,"name":"media/a","to":"media/b"}.
struct DoneWith {
    const char* key;
    const std::string& value;
};
void PrintDone(const CommandLine& line, const char* verb, std::initializer_list<DoneWith> with);

void AddPutVerbs(CVerb program, CommandLine& line);     // put import
void AddExportVerb(CVerb program, CommandLine& line);   // export
void AddFrameVerbs(CVerb program, CommandLine& line);   // framemd5 read frames
void AddInfoVerbs(CVerb program, CommandLine& line);    // info marks df stat
void AddFileVerbs(CVerb program, CommandLine& line);    // rm mv mkdir erase flush, and the next
void AddStripeVerb(CVerb program, CommandLine& line);   // stripe
void AddPageVerbs(CVerb program, CommandLine& line);    // status clients get
void AddTopVerb(CVerb program, CommandLine& line);      // top
void AddBenchVerb(CVerb program, CommandLine& line);    // bench
void AddDoctorVerb(CVerb program, CommandLine& line);   // doctor
void AddClientVerbs(CVerb program, CommandLine& line);  // join leave keepalive realtime config
void AddManualVerbs(CVerb program, CommandLine& line);  // help completion manual

// The exit codes and what they mean: help, manual and docs/zem.md have them from here.
struct ExitMeaning {
    ExitCode code;
    const char* meaning;
};
std::span<const ExitMeaning> ExitMeanings();

// The whole program but for its main: parses, runs, turns every failure into a line on stderr and
// an exit code.
int RunZem(int argc, const char* const* argv);

}  // namespace zem
