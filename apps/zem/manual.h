// The table of verbs and options as the parser has it, in the forms that other programs read:
// completions of shells, the manual. There is no second table. Pure functions; main thread.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace zem {

class CVerb;

struct ArgumentRow {
    std::vector<std::string> names;  // "-o", "--output"; of a positional its name alone
    std::string type;                // empty: a flag
    std::vector<std::string> choices;
    std::string help;
    std::string fallback;  // what holds without it; empty: help tells, or nothing
    bool positional = false;
    bool required = false;
    bool many = false;
    bool IsFile() const;  // of this machine
};

struct VerbRow {
    std::string name;  // "config push"; of the program itself empty
    std::string help;
    std::string group;
    std::vector<ArgumentRow> arguments;
    bool isGroup = false;  // it has verbs below and does nothing itself
};

ArgumentRow RowOf(const CLI::Option& option);
std::string NamesOf(const ArgumentRow& row);  // "-o, --output FILE"
std::string PlaceOf(
    const ArgumentRow& row);  // in a usage line, of a positional: " NAME...", " [NAME]"
std::string HelpOf(const ArgumentRow& row);  // with choices and what holds without it

// Makes zem --help and zem VERB --help from the same rows.
void SetHelpForm(CLI::App& app);

// The program itself first, then its verbs in the order of help, those below a verb behind it.
std::vector<VerbRow> VerbTable(CVerb program);

std::string BashCompletion(const std::vector<VerbRow>& table);
std::string ZshCompletion(const std::vector<VerbRow>& table);
std::string FishCompletion(const std::vector<VerbRow>& table);
std::string ManPage(const std::vector<VerbRow>& table);         // section 1
std::string ManualMarkdown(const std::vector<VerbRow>& table);  // the reference in docs/zem.md

}  // namespace zem
