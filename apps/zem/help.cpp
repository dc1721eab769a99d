// See manual.h: the table, out of the parser, and the form of zem --help and zem VERB --help, which
// is its rows wrapped for a terminal.
#include <CLI/CLI.hpp>

#include <utility>

#include "apps/zem/manual.h"
#include "apps/zem/parser.h"

namespace zem {
namespace {

// What stands in a type's name behind the colon: "{quick,all}", "1 to 40".
void TakeBounds(const std::string& bounds, ArgumentRow& row) {
    const size_t brace = bounds.find('{');
    if (brace != std::string::npos) {
        std::string word;
        for (size_t at = brace + 1; at < bounds.size(); ++at) {
            if (bounds[at] != ',' && bounds[at] != '}')
                word += bounds[at];
            else if (!word.empty())
                row.choices.push_back(std::exchange(word, {}));
        }
        return;
    }
    row.help += "; " + bounds;
}

}  // namespace

ArgumentRow RowOf(const CLI::Option& option) {
    ArgumentRow row;
    row.help = option.get_description();
    row.positional = option.nonpositional() ? false : option.get_positional();
    row.required = option.get_required();
    row.fallback = option.get_default_str();
    row.many = option.get_items_expected_max() > 1;
    for (const std::string& name : option.get_snames())
        row.names.push_back("-" + name);
    for (const std::string& name : option.get_lnames())
        row.names.push_back("--" + name);
    if (row.positional) row.names = {option.get_name(true)};
    if (option.get_type_size() == 0) return row;  // a flag
    const std::string type = option.get_type_name();
    const size_t colon = type.find(':');
    row.type = type.substr(0, colon);
    if (colon != std::string::npos) TakeBounds(type.substr(colon + 1), row);
    if (!option.get_envname().empty()) row.help += "; environment " + option.get_envname();
    return row;
}

namespace {

void AddRows(const CLI::App& app, const std::string& path, const std::string& group,
             std::vector<VerbRow>& table) {
    VerbRow row{path, app.get_description(), group, {}, false};
    for (const CLI::Option* option : app.get_options()) {
        if (option->get_group().empty()) continue;
        row.arguments.push_back(RowOf(*option));
    }
    const auto any = [](const CLI::App*) { return true; };
    const std::vector<const CLI::App*> below = app.get_subcommands(any);
    row.isGroup = !path.empty() && !below.empty();
    table.push_back(std::move(row));
    for (const CLI::App* verb : below) {
        const bool top = path.empty();
        AddRows(*verb, top ? verb->get_name() : path + " " + verb->get_name(),
                top ? verb->get_group() : group, table);
    }
}

constexpr size_t kIndent = 26;
constexpr size_t kWidth = 98;

// "  NAMES   what it does", the second column wrapped at words.
std::string Row(const std::string& names, const std::string& help) {
    std::string text = "  " + names;
    size_t at = text.size();
    if (at + 2 > kIndent) {
        text += "\n";
        at = 0;
    }
    text.append(kIndent - at, ' ');
    at = kIndent;
    for (size_t from = 0; from < help.size();) {
        size_t end = help.find(' ', from);
        if (end == std::string::npos) end = help.size();
        if (at > kIndent && at + 1 + (end - from) > kWidth) {
            text += "\n" + std::string(kIndent, ' ');
            at = kIndent;
        }
        if (at > kIndent) {
            text += ' ';
            ++at;
        }
        text.append(help, from, end - from);
        at += end - from;
        from = end + 1;
    }
    return text + "\n";
}

class CHelpForm : public CLI::Formatter {
public:
    std::string make_option(const CLI::Option* option, bool is_positional) const override {
        ArgumentRow row = RowOf(*option);
        row.positional = is_positional;
        return Row(NamesOf(row), HelpOf(row));
    }
    // The first sentence: the verb's own help has the rest.
    std::string make_subcommand(const CLI::App* verb) const override {
        const std::string help = verb->get_description();
        const auto capital = [&](size_t at) { return help[at] >= 'A' && help[at] <= 'Z'; };
        size_t end = help.find(". ");
        while (end != std::string::npos && end + 2 < help.size() && !capital(end + 2))
            end = help.find(". ", end + 1);
        const bool goesOn = end != std::string::npos && end > 0 && help[end - 1] == '.';
        return Row(verb->get_name(), help.substr(0, goesOn ? end + 1 : end));
    }
    std::string make_usage(const CLI::App* app, std::string name) const override {
        std::string text = "Usage: " + (name.empty() ? app->get_name() : name);
        const bool verbs = !app->get_subcommands([](const CLI::App*) { return true; }).empty();
        for (const CLI::Option* option : app->get_options()) {
            if (option->nonpositional() || !option->get_positional()) continue;
            text += PlaceOf(RowOf(*option));
        }
        return text + (verbs ? " VERB" : "") + " [options]\n";
    }
};

}  // namespace

std::vector<VerbRow> VerbTable(CVerb program) {
    std::vector<VerbRow> table;
    AddRows(program.App(), "", "", table);
    return table;
}

void SetHelpForm(CLI::App& app) {
    app.formatter(std::make_shared<CHelpForm>());
}

}  // namespace zem
