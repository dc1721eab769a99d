// See manual.h: the manual page and the reference of docs/zem.md.
#include "apps/zem/manual.h"

#include <algorithm>
#include <array>

#include "apps/generated/version.h"
#include "apps/zem/verbs.h"

namespace zem {
namespace {

// "-o, --output FILE"
std::string NamesOf(const ArgumentRow& row, const std::string& bold, const std::string& italic,
                    const std::string& plain) {
    std::string text;
    for (const std::string& name : row.names)
        text += (text.empty() ? "" : ", ") + (row.positional ? italic : bold) + name + plain;
    if (!row.positional && !row.type.empty()) text += " " + italic + row.type + plain;
    return text;
}

}  // namespace

std::string NamesOf(const ArgumentRow& row) {
    return NamesOf(row, "", "", "");
}

std::string PlaceOf(const ArgumentRow& row) {
    const std::string word = row.names.front() + (row.many ? "..." : "");
    return row.required ? " " + word : " [" + word + "]";
}

std::string HelpOf(const ArgumentRow& row) {
    std::string text = row.help;
    if (!row.choices.empty()) {
        std::string list;
        for (const std::string& choice : row.choices)
            list += (list.empty() ? "" : ", ") + choice;
        // Some helps explain each choice and so name them already.
        if (text.find(row.choices.front() + ":") == std::string::npos) text += ": " + list;
    }
    if (!row.fallback.empty()) text += " (default: " + row.fallback + ")";
    return text;
}

namespace {

std::string Sentence(const std::string& text) {
    return text.ends_with('.') ? text : text + ".";
}

// "put CLIP NAME [options]"
std::string UsageOf(const VerbRow& verb) {
    std::string text = verb.name;
    for (const ArgumentRow& row : verb.arguments) {
        if (row.positional) text += PlaceOf(row);
    }
    return text;
}

// The groups in the order in which their first verbs come.
std::vector<std::string> GroupsOf(const std::vector<VerbRow>& table) {
    std::vector<std::string> groups;
    for (const VerbRow& verb : table) {
        if (verb.name.empty()) continue;
        if (std::find(groups.begin(), groups.end(), verb.group) == groups.end())
            groups.push_back(verb.group);
    }
    return groups;
}

// Text for roff: what it would take for its own is escaped.
std::string Roff(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (c == '\\')
            out += "\\e";
        else if (c == '-')
            out += "\\-";
        else if ((c == '.' || c == '\'') && (out.empty() || out.back() == '\n'))
            out += std::string("\\&") + c;
        else
            out += c;
    }
    return out;
}

std::string RoffNames(const ArgumentRow& row) {
    ArgumentRow escaped = row;
    for (std::string& name : escaped.names)
        name = Roff(name);
    escaped.type = Roff(row.type);
    return NamesOf(escaped, "\\fB", "\\fI", "\\fR");
}

bool IsHelpFlag(const ArgumentRow& row) {
    return row.names.back() == "--help";
}

void AddRoffArguments(const VerbRow& verb, std::string& page) {
    for (const ArgumentRow& row : verb.arguments) {
        // Every verb has these two; the options of all verbs tell of them.
        if (!verb.name.empty() && (IsHelpFlag(row) || row.names.back() == "--json")) continue;
        page += ".TP\n" + RoffNames(row) + "\n" + Roff(Sentence(HelpOf(row))) + "\n";
    }
}

constexpr const char* kManualDate = "2026-11-22";  // of its last change in kind
constexpr const char* kIntroduction =
    "zem speaks to a media server: it brings clips in and out, reads single frames, keeps files in "
    "order, and watches and measures the server. The options of every verb may stand before or "
    "behind it.";
constexpr const char* kNames =
    "NAME is a file below the server's volume root, with slashes: media/clip.v0. FILE and CLIP are "
    "files of this machine.";
constexpr const char* kJsonText =
    "With --json, what a verb found is one JSON object a line on the standard output, and a "
    "failure is an object with the members error, exit_code, hresult and reason, which is a word "
    "for "
    "programs, such as no_such_file, or null. Messages for people go to the standard error as "
    "ever.";
constexpr const char* kEscapes =
    "Text of the server never moves a terminal's cursor: control characters in names are shown as "
    "\\x1b or \\u202e.";

// Sections of manual pages are named so.
std::string InCapitals(std::string text) {
    for (char& letter : text)
        if (letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 32);
    return text;
}

struct EnvironmentRow {
    const char* name;
    const char* meaning;
};
constexpr std::array<EnvironmentRow, 3> kEnvironment = {
    {{"ZEM_SERVER", "Address of the server where --server does not give one"},
     {"NO_COLOR", "Set to anything: no colours"},
     {"ZEM_AV_LOG", "Set to anything: what the FFmpeg libraries say of a clip is shown as well"}}};

struct ExampleRow {
    const char* command;
    const char* meaning;
};
constexpr std::array<ExampleRow, 5> kExamples = {
    {{"zem put clip.mov media/clip", "Every coded frame of the clip, by position"},
     {"zem framemd5 media/clip.v0", "Every frame back: number, size, MD5"},
     {"zem --server http://studio7:8080 top", "Watch a server"},
     {"zem bench --rate 25 --connections 16", "Can it play sixteen streams of 25 frames a second?"},
     {"zem doctor --json", "What is wrong, for a program"}}};

}  // namespace

bool ArgumentRow::IsFile() const {
    return type == kTypeFile;
}

std::string ManPage(const std::vector<VerbRow>& table) {
    std::string page = ".\\\" Made by: zem manual man\n.TH ZEM 1 \"" + std::string(kManualDate) +
                       "\" \"zem " + std::string(kZemVersion) + "\" \"User Commands\"\n";
    page += ".SH NAME\nzem \\- files and frames of a media server\n";
    page += ".SH SYNOPSIS\n.B zem\n.RI [ options ]\n.I verb\n.RI [ arguments ]\n";
    page += ".SH DESCRIPTION\n" + Roff(kIntroduction) + "\n.PP\n" + Roff(kNames) + "\n.PP\n" +
            Roff(kEscapes) + "\n";
    page += ".SH OPTIONS OF EVERY VERB\n";
    AddRoffArguments(table.front(), page);
    for (const std::string& group : GroupsOf(table)) {
        page += ".SH \"" + Roff(InCapitals(group)) + "\"\n";
        for (const VerbRow& verb : table) {
            if (verb.name.empty() || verb.isGroup || verb.group != group) continue;
            page += ".SS \"zem " + Roff(UsageOf(verb)) + "\"\n" + Roff(Sentence(verb.help)) + "\n";
            AddRoffArguments(verb, page);
        }
    }
    page += ".SH JSON\n" + Roff(kJsonText) + "\n";
    page += ".SH EXIT STATUS\n";
    for (const ExitMeaning& exit : ExitMeanings())
        page += ".TP\n.B " + std::to_string(exit.code) + "\n" + Roff(exit.meaning) + ".\n";
    page += ".SH ENVIRONMENT\n";
    for (const EnvironmentRow& row : kEnvironment)
        page += ".TP\n.B " + std::string(row.name) + "\n" + Roff(row.meaning) + ".\n";
    page += ".SH EXAMPLES\n";
    for (const ExampleRow& row : kExamples)
        page += ".TP\n.B " + Roff(row.command) + "\n" + Roff(row.meaning) + "\n";
    return page + ".SH SEE ALSO\n.BR zemfsck (1),\n.BR zemhost (8)\n";
}

std::string ManualMarkdown(const std::vector<VerbRow>& table) {
    std::string page;
    const auto arguments = [&page](const VerbRow& verb) {
        bool any = false;
        for (const ArgumentRow& row : verb.arguments) {
            if (!verb.name.empty() && (IsHelpFlag(row) || row.names.back() == "--json")) continue;
            page += (any ? "" : "\n") + std::string("- ") + NamesOf(row, "`", "`", "`") + ": " +
                    HelpOf(row) + "\n";
            any = true;
        }
    };
    page += "### Options of every verb\n";
    arguments(table.front());
    for (const std::string& group : GroupsOf(table)) {
        page += "\n### " + group + "\n";
        for (const VerbRow& verb : table) {
            if (verb.name.empty() || verb.isGroup || verb.group != group) continue;
            page += "\n**`zem " + UsageOf(verb) + "`**: " + Sentence(verb.help) + "\n";
            arguments(verb);
        }
    }
    page += "\n### Exit codes\n\n| code | means |\n|---|---|\n";
    for (const ExitMeaning& exit : ExitMeanings())
        page += "| " + std::to_string(exit.code) + " | " + exit.meaning + " |\n";
    return page;
}

}  // namespace zem
