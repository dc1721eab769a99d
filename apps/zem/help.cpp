// The form of zem --help and zem VERB --help: the rows of the manual, wrapped for a terminal.
#include <CLI/CLI.hpp>

#include "apps/zem/manual.h"

namespace zem {
namespace {

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

void SetHelpForm(CLI::App& app) {
    app.formatter(std::make_shared<CHelpForm>());
}

}  // namespace zem
