// See usage.h.
#include "apps/zem/usage.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <string_view>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/manual.h"
#include "apps/zem/parser.h"

namespace zem {
namespace {

// The verb that was named last, or the program itself.
const CLI::App& VerbOf(const CLI::App& app) {
    const CLI::App* verb = &app;
    while (!verb->get_subcommands().empty())
        verb = verb->get_subcommands().back();
    return *verb;
}

// "zem config push"
std::string PathOf(const CLI::App& verb) {
    const CLI::App* const above = verb.get_parent();
    return (above == nullptr ? "" : PathOf(*above) + " ") + verb.get_name();
}

std::vector<std::string> VerbsBelow(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* verb : app.get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(verb->get_name());
    return names;
}

// An option's place in the table, by any of its names: the verb's own, then those of all verbs.
const CLI::Option* OptionNamed(const CLI::App& verb, const std::string& name) {
    for (const CLI::App* app = &verb; app != nullptr; app = app->get_parent()) {
        for (const CLI::Option* option : app->get_options())
            if (option->check_name(name)) return option;
    }
    return nullptr;
}

// How many letters must be put in, taken out, changed or swapped with their neighbour to make one
// word of the other.
size_t Distance(const std::string& from, const std::string& to) {
    std::vector<std::vector<size_t>> rows(from.size() + 1, std::vector<size_t>(to.size() + 1));
    for (size_t i = 0; i <= from.size(); ++i) {
        for (size_t j = 0; j <= to.size(); ++j) {
            if (i == 0 || j == 0) {
                rows[i][j] = i + j;
                continue;
            }
            const size_t changed = rows[i - 1][j - 1] + (from[i - 1] != to[j - 1] ? 1 : 0);
            rows[i][j] = std::min({changed, rows[i - 1][j] + 1, rows[i][j - 1] + 1});
            if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1])
                rows[i][j] = std::min(rows[i][j], rows[i - 2][j - 2] + 1);
        }
    }
    return rows.back().back();
}

// "; did you mean status?", or nothing when nothing is near.
std::string Guess(const std::string& word, const std::vector<std::string>& known) {
    const std::string* nearest = nullptr;
    // Of a short word one letter may be wrong: with two it could be any other.
    size_t least = word.size() < 5 ? 2 : 3;
    for (const std::string& one : known) {
        const size_t distance = Distance(word, one);
        if (distance >= least) continue;
        least = distance;
        nearest = &one;
    }
    return nearest == nullptr ? "" : "; did you mean " + *nearest + "?";
}

std::string See(const CLI::App& verb) {
    return "; see " + PathOf(verb) + " --help";
}

// "put has ", of the program "there is ".
std::string Has(const CLI::App& verb) {
    return verb.get_parent() == nullptr ? "there is " : verb.get_name() + " has ";
}

std::string OfUnknownOption(const CLI::App& verb, const std::string& word) {
    const std::string name = word.substr(0, word.find('='));
    if (OptionNamed(verb, name) != nullptr)
        return name + " belongs behind the verb: " + PathOf(verb) + " ... " + name;
    std::vector<std::string> known;
    for (const CLI::App* app = &verb; app != nullptr; app = app->get_parent()) {
        for (const CLI::Option* option : app->get_options()) {
            for (const std::string& one : option->get_lnames())
                known.push_back("--" + one);
        }
    }
    const std::string guess = Guess(name, known);
    return Has(verb) + "no option '" + name + "'" + (guess.empty() ? See(verb) : guess);
}

// What other programs call our verbs.
struct OtherName {
    std::string_view word;
    const char* verb;
};
constexpr std::array<OtherName, 13> kOtherNames = {{{"delete", "rm"},
                                                    {"del", "rm"},
                                                    {"remove", "rm"},
                                                    {"unlink", "rm"},
                                                    {"upload", "put or import"},
                                                    {"download", "get or export"},
                                                    {"fetch", "get or export"},
                                                    {"move", "mv"},
                                                    {"rename", "mv"},
                                                    {"cat", "read"},
                                                    {"md", "mkdir"},
                                                    {"copy", "put or get"},
                                                    {"cp", "put or get"}}};

// A word that nothing takes.
std::string OfExtra(const CLI::App& verb, const std::string& word) {
    if (word.size() > 1 && word.front() == '-') return OfUnknownOption(verb, word);
    const std::vector<std::string> verbs = VerbsBelow(verb);
    if (!verbs.empty()) {
        if (word == "ls" || word == "dir" || word == "list") {
            return "there is no verb '" + word +
                   "': the protocol cannot list files; zem stat NAME tells of one, zem --help " +
                   "what else there is";
        }
        for (const OtherName& other : kOtherNames) {
            if (verb.get_parent() == nullptr && word == other.word)
                return "there is no verb '" + word + "'; did you mean " + other.verb + "?";
        }
        const std::string guess = Guess(word, verbs);
        return Has(verb) + "no verb '" + word + "'" + (guess.empty() ? See(verb) : guess);
    }
    std::string usage = PathOf(verb);
    for (const CLI::Option* option : verb.get_options())
        if (option->get_positional()) usage += PlaceOf(RowOf(*option));
    return "'" + word + "' is one argument too many for " + usage + See(verb);
}

std::string OfMissing(const CLI::App& verb) {
    for (const CLI::Option* option : verb.get_options()) {
        if (!option->get_required() || option->count() != 0) continue;
        const ArgumentRow row = RowOf(*option);
        return verb.get_name() + " needs " + (row.positional ? row.names.front() : NamesOf(row)) +
               " (" + HelpOf(row) + ")" + See(verb);
    }
    if (verb.get_parent() == nullptr) return "say what to do, as in zem status" + See(verb);
    return verb.get_name() + " needs a verb, as in " + PathOf(verb) + " " +
           VerbsBelow(verb).front() + See(verb);
}

// The option that the parser names in what it says.
const CLI::Option* OptionIn(const CLI::App& verb, const std::string& said) {
    for (const std::string& word : CLI::detail::split(said, ' ')) {
        const CLI::Option* const option = OptionNamed(verb, word.substr(0, word.find(':')));
        if (option != nullptr) return option;
    }
    return nullptr;
}

std::string OfValue(const CLI::App& verb, const CLI::Option& option) {
    const ArgumentRow row = RowOf(option);
    if (row.type.empty()) return row.names.back() + " takes no value" + See(verb);
    if (option.count() > 1) return row.names.back() + " is given more than once; give it once";
    return row.names.back() + " needs " + row.type + " behind it" + See(verb);
}

}  // namespace

std::string HelpOfVerb(CVerb program, const std::vector<std::string>& words) {
    const CLI::App* verb = &program.App();
    for (const std::string& word : words) {
        const CLI::App* below = nullptr;
        for (const CLI::App* one : verb->get_subcommands([](const CLI::App*) { return true; }))
            if (one->get_name() == word) below = one;
        if (below == nullptr) throw CZemError(ErrorKind::kUsage, Printable(OfExtra(*verb, word)));
        verb = below;
    }
    // Not the verb's own help(): it is that of the verb which was parsed, this one.
    return verb->get_formatter()->make_help(verb, PathOf(*verb), CLI::AppFormatMode::Normal);
}

std::string UsageText(const CLI::App& app, const CLI::ParseError& error) {
    const CLI::App& verb = VerbOf(app);
    const std::string said = error.what();
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr)
        return OfExtra(verb, app.remaining(true).front());
    if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) return OfMissing(verb);
    // Ours, from the checks above.
    if (dynamic_cast<const CLI::ValidationError*>(&error) != nullptr) return said + See(verb);
    const std::string excludes = " excludes ";
    const size_t at = said.find(excludes);
    if (dynamic_cast<const CLI::ExcludesError*>(&error) != nullptr && at != std::string::npos) {
        return said.substr(0, at) + " and " + said.substr(at + excludes.size()) +
               " do not go together" + See(verb);
    }
    const CLI::Option* const option = OptionIn(verb, said);
    if (option != nullptr) return OfValue(verb, *option);
    return said + See(verb);
}

}  // namespace zem
