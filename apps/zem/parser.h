// The verbs of a command line and what they take. Behind it is CLI11, which is headers alone and
// costs each source that includes it ten seconds of compiling (infoverbs.cpp 12.8 with it, 2.4
// without): so only parser.cpp, help.cpp and usage.cpp do, and the verbs say what they take in the
// few words that stand here. Main thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "apps/zem/valuecheck.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace zem {

// What the tables of help, manual and completions say of an argument is its type's name. Those that
// name a file of this machine are completed with files.
inline constexpr const char* kTypeFile = "FILE";

// One option or place of a verb: each call says one thing more of it. A handle, as CVerb is.
class CArgument {
public:
    explicit CArgument(CLI::Option& option) : m_option(&option) {}

    const CArgument& Required() const;
    const CArgument& File() const;  // of this machine
    const CArgument& Check(const ValueCheck& check) const;
    // Help tells what the variable holds now: that is what counts without the option.
    const CArgument& ShowDefault() const;
    // Where it is not given, this variable of the environment counts.
    const CArgument& Environment(const char* name) const;
    const CArgument& Excludes(const CArgument& other) const;

private:
    CLI::Option* m_option;
};

// A verb, or the program itself, above all of them. A handle: the parser keeps what it stands for,
// and writes into the variables that are named here.
class CVerb {
public:
    explicit CVerb(CLI::App& app) : m_app(&app) {}

    // "--name" or "-n,--name" with a value behind it, which help calls `type`.
    CArgument Option(const char* names, const char* type, std::string& value,
                     const char* help) const;
    CArgument Option(const char* names, const char* type, uint32_t& value, const char* help) const;
    CArgument Option(const char* names, const char* type, int32_t& value, const char* help) const;
    CArgument Option(const char* names, const char* type, double& value, const char* help) const;
    // The same without a value.
    CArgument Flag(const char* names, bool& given, const char* help) const;
    // A value by its place, or as many as there are.
    CArgument Place(const char* name, std::string& value, const char* help) const;
    CArgument Place(const char* name, std::vector<std::string>& values, const char* help) const;

    // A verb below this one, which help lists under `group`; `chosen` is called when the line was
    // read and names it.
    CVerb Add(const char* name, const char* help, const char* group,
              std::function<void()> chosen) const;
    // A verb that needs another behind it.
    CVerb AddParent(const char* name, const char* help, const char* group) const;
    // What help says at its end. Verbs take it over from the one above when they are added.
    void SetFooter(const std::string& text) const;

    CLI::App& App() const { return *m_app; }

private:
    CLI::App* m_app;
};

// What became of a command line.
enum class ParseEnd { kRead, kHelp, kVersion, kWrong };

struct ParseResult {
    ParseEnd end = ParseEnd::kRead;
    std::string text;  // the help or the version that was asked for; what is wrong, in a sentence
};

class CParser {
public:
    CParser(const char* name, const char* help);
    ~CParser();
    CParser(const CParser&) = delete;
    CParser& operator=(const CParser&) = delete;

    CVerb Program() const { return CVerb(*m_app); }
    // --version, which prints this text.
    void AddVersion(const std::string& text);
    // `arguments` begin with the program's name.
    ParseResult Parse(std::span<const char* const> arguments);
    // The sentence for a line that was read and named no verb.
    std::string WhatIsMissing() const;

private:
    std::unique_ptr<CLI::App> m_app;
};

}  // namespace zem
