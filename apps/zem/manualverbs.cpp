// zem help, zem completion, zem manual: the program's own table for shells and readers. They need
// no server.
#include "apps/zem/manual.h"
#include "apps/zem/output.h"
#include "apps/zem/usage.h"
#include "apps/zem/valuecheck.h"
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
    const CVerb verb = group.Add("help", "Print help, as --help does",
                                 [words, program = group.above, &line = group.line] {
                                     return PrintForm(line, "help", HelpOfVerb(program, *words));
                                 });
    verb.Place("VERB", *words, "Verb, such as put or config push (default: the program)");
}

void AddForms(const VerbGroup& group, const char* name, const char* help, const char* what,
              const char* whatHelp, std::vector<Form> forms) {
    auto chosen = std::make_shared<std::string>();
    std::vector<std::string> names;
    for (const Form& form : forms)
        names.emplace_back(form.name);
    const CVerb verb =
        group.Add(name, help, [chosen, forms, program = group.above, &line = group.line] {
            for (const Form& form : forms) {
                if (*chosen == form.name)
                    return PrintForm(line, form.name, form.make(VerbTable(program)));
            }
            return static_cast<int>(kExitOk);
        });
    verb.Place(what, *chosen, whatHelp).Required().Check(OneOf(names));
}

}  // namespace

void AddManualVerbs(CVerb program, CommandLine& line) {
    const VerbGroup group{program, line, "This program"};
    AddHelp(group);
    AddForms(group, "completion", "Print what makes a shell complete verbs, options and files",
             "SHELL", "Shell",
             {{"bash", &BashCompletion}, {"zsh", &ZshCompletion}, {"fish", &FishCompletion}});
    AddForms(group, "manual", "Print the manual", "FORM", "Form",
             {{"man", &ManPage}, {"markdown", &ManualMarkdown}});
}

}  // namespace zem
