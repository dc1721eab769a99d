// zem help, zem completion, zem manual: the program's own table for shells and readers. They need
// no server.
#include <CLI/CLI.hpp>

#include "apps/zem/manual.h"
#include "apps/zem/output.h"
#include "apps/zem/usage.h"
#include "apps/zem/verbs.h"

namespace zem {
namespace {

struct Form {
    const char* name;
    std::string (*make)(const std::vector<VerbRow>&);
};

int PrintForm(const CommandLine& line, const char* form, const std::string& text) {
    if (line.json) {
        CJson json;
        PrintLine(json.Open('{').Text("form", form).Text("text", text).Close().Str());
    } else {
        std::fputs(text.c_str(), stdout);
    }
    return kExitOk;
}

void AddHelp(const VerbGroup& group) {
    auto words = std::make_shared<std::vector<std::string>>();
    const CLI::App& program = group.app;
    const CommandLine& line = group.line;
    CLI::App* verb = group.Add("help", "Print help, as --help does", [words, &program, &line] {
        return PrintForm(line, "help", HelpOfVerb(program, *words));
    });
    verb->add_option("VERB", *words, "Verb, such as put or config push (default: the program)");
}

void AddForms(const VerbGroup& group, const char* name, const char* help, const char* what,
              const char* whatHelp, std::vector<Form> forms) {
    auto chosen = std::make_shared<std::string>();
    CLI::App& program = group.app;
    const CommandLine& line = group.line;
    std::vector<std::string> names;
    for (const Form& form : forms)
        names.emplace_back(form.name);
    CLI::App* verb = group.Add(name, help, [chosen, forms, &program, &line] {
        for (const Form& form : forms) {
            if (*chosen == form.name)
                return PrintForm(line, form.name, form.make(VerbTable(program)));
        }
        return static_cast<int>(kExitOk);
    });
    verb->add_option(what, *chosen, whatHelp)->required()->check(OneOf(names));
}

}  // namespace

void AddManualVerbs(CLI::App& app, CommandLine& line) {
    const VerbGroup group{app, line, "This program"};
    AddHelp(group);
    AddForms(group, "completion", "Print what makes a shell complete verbs, options and files",
             "SHELL", "Shell",
             {{"bash", &BashCompletion}, {"zsh", &ZshCompletion}, {"fish", &FishCompletion}});
    AddForms(group, "manual", "Print the manual", "FORM", "Form",
             {{"man", &ManPage}, {"markdown", &ManualMarkdown}});
}

}  // namespace zem
