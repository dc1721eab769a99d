// Completions of the shells from the table of verbs. Each script walks the words once: options that
// take a value take the next word, the first other word is the verb.
#include "apps/zem/manual.h"

#include <algorithm>

namespace zem {
namespace {

constexpr const char* kBashHead = R"(# bash completion for zem. Made by: zem completion bash
_zem() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} verb= place=0 word i
    COMPREPLY=()
    # bash cuts words at = and :. What stands behind --option= is the value of the option; an = that
    # stands alone is nothing of ours.
    if [[ $cur == = || $prev == = ]]; then
        [[ $cur == = ]] || prev=${COMP_WORDS[COMP_CWORD-2]}
        [[ $cur != = ]] || cur=
        [[ ${COMP_LINE:0:COMP_POINT} == *[[:space:]]"$prev=$cur" ]] || return
    fi
    for ((i = 1; i < COMP_CWORD; ++i)); do
        word=${COMP_WORDS[i]}
        case $word in
            @VALUED@)
                ((++i))
                [[ ${COMP_WORDS[i]} != = ]] || ((++i))
                while [[ ${COMP_WORDS[i+1]} == : ]]; do ((i += 2)); done
                ;;
            -*) ;;
            *)
                case "${verb:+$verb }$word" in
                    @VERBS@) verb=${verb:+$verb }$word ;;
                    *) ((++place)) ;;
                esac
                ;;
        esac
    done
)";

constexpr const char* kFishHead = R"(# fish completion for zem. Made by: zem completion fish
function __zem_at --description 'Whether the verb so far is the given one'
    set -l verb
    set -l skip 0
    for token in (commandline -opc)[2..-1]
        if test $skip = 1
            set skip 0
            continue
        end
        switch $token
            case @VALUED@
                set skip 1
            case '-*'
            case '*'
                if contains -- (string join ' ' -- $verb $token) @VERBS@
                    set -a verb $token
                end
        end
    end
    set -l so_far (string join ' ' -- $verb)
    test "$so_far" = "$argv"
end
complete -c zem -f
)";

void Replace(std::string& text, const std::string& mark, const std::string& by) {
    const size_t at = text.find(mark);
    if (at != std::string::npos) text.replace(at, mark.size(), by);
}

std::string Joined(const std::vector<std::string>& words, const std::string& between) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : between) + word;
    return text;
}

// Single quotes for all three shells; no help holds a single quote that fish could not take so.
std::string Quoted(const std::string& text) {
    std::string out = "'";
    for (const char c : text)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

std::vector<std::string> ValuedOptions(const std::vector<VerbRow>& table) {
    std::vector<std::string> names;
    for (const VerbRow& verb : table) {
        for (const ArgumentRow& row : verb.arguments) {
            if (row.positional || row.type.empty()) continue;
            for (const std::string& name : row.names) {
                if (std::find(names.begin(), names.end(), name) == names.end())
                    names.push_back(name);
            }
        }
    }
    return names;
}

std::vector<std::string> VerbNames(const std::vector<VerbRow>& table, const char* quote) {
    std::vector<std::string> names;
    for (const VerbRow& verb : table)
        if (!verb.name.empty()) names.push_back(quote + verb.name + quote);
    return names;
}

// The verbs that may follow `path`, by their last word.
std::vector<const VerbRow*> Below(const std::vector<VerbRow>& table, const std::string& path) {
    std::vector<const VerbRow*> rows;
    const std::string head = path.empty() ? "" : path + " ";
    for (const VerbRow& verb : table) {
        if (verb.name.size() > head.size() && verb.name.starts_with(head) &&
            verb.name.find(' ', head.size()) == std::string::npos) {
            rows.push_back(&verb);
        }
    }
    return rows;
}

std::string LastWord(const std::string& name) {
    return name.substr(name.rfind(' ') + 1);
}

std::vector<std::string> OptionNames(const VerbRow& verb) {
    std::vector<std::string> names;
    for (const ArgumentRow& row : verb.arguments)
        if (!row.positional) names.insert(names.end(), row.names.begin(), row.names.end());
    return names;
}

std::string BashValues(const ArgumentRow& row) {
    if (!row.choices.empty())
        return "COMPREPLY=($(compgen -W " + Quoted(Joined(row.choices, " ")) + " -- \"$cur\"))";
    if (row.IsFile())
        return "compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -f -- \"$cur\")";
    return ":";
}

// One line of a help, without what the shells' tables would take for their own.
std::string ZshText(const std::string& help) {
    std::string out;
    for (const char c : help) {
        if (c == '[' || c == ']' || c == ':' || c == '\\') out += '\\';
        out += c;
    }
    return out;
}

std::string ZshAction(const ArgumentRow& row) {
    if (!row.choices.empty()) return "(" + Joined(row.choices, " ") + ")";
    return row.IsFile() ? "_files" : " ";
}

void AddZshArguments(const VerbRow& verb, const std::string& indent, std::string& text) {
    size_t place = 0;
    for (const ArgumentRow& row : verb.arguments) {
        if (row.positional) {
            const std::string at = row.many ? "*" : std::to_string(++place);
            text += indent + Quoted(at + ":" + row.names.front() + ":" + ZshAction(row)) + " \\\n";
            continue;
        }
        for (const std::string& name : row.names) {
            std::string rule = name;
            if (!row.type.empty()) rule += name.starts_with("--") ? "=" : "+";
            rule += "[" + ZshText(row.help) + "]";
            if (!row.type.empty()) rule += ":" + row.type + ":" + ZshAction(row);
            text += indent + Quoted(rule) + " \\\n";
        }
    }
}

void AddZshVerbs(const std::vector<VerbRow>& table, const VerbRow& above, const std::string& indent,
                 std::string& text) {
    text += indent + "_arguments -C \\\n";
    if (!above.name.empty()) AddZshArguments(table.front(), indent + "    ", text);
    AddZshArguments(above, indent + "    ", text);
    text += indent + "    '1:verb:->verb' \\\n" + indent + "    '*::argument:->argument'\n";
    text += indent + "case $state in\n" + indent + "    verb)\n" + indent + "        verbs=(\n";
    for (const VerbRow* verb : Below(table, above.name)) {
        text += indent + "            " + Quoted(LastWord(verb->name) + ":" + ZshText(verb->help)) +
                "\n";
    }
    text += indent + "        )\n" + indent + "        _describe -t verbs verb verbs\n" + indent +
            "        ;;\n";
    text += indent + "    argument)\n" + indent + "        case $words[1] in\n";
    for (const VerbRow* verb : Below(table, above.name)) {
        text += indent + "            " + LastWord(verb->name) + ")\n";
        if (verb->isGroup) {
            AddZshVerbs(table, *verb, indent + "                ", text);
        } else {
            text += indent + "                _arguments \\\n";
            AddZshArguments(table.front(), indent + "                    ", text);
            AddZshArguments(*verb, indent + "                    ", text);
            text += indent + "                    && return\n";
        }
        text += indent + "                ;;\n";
    }
    text += indent + "        esac\n" + indent + "        ;;\n" + indent + "esac\n";
}

// What a verb has of the program's own options is offered with those, once.
std::vector<VerbRow> WithoutDoubles(std::vector<VerbRow> table) {
    const VerbRow program = table.front();
    for (VerbRow& verb : table) {
        if (verb.name.empty()) continue;
        std::erase_if(verb.arguments, [&](const ArgumentRow& row) {
            return !row.positional &&
                   std::any_of(program.arguments.begin(), program.arguments.end(),
                               [&](const ArgumentRow& own) { return own.names == row.names; });
        });
    }
    return table;
}

}  // namespace

std::string BashCompletion(const std::vector<VerbRow>& whole) {
    const std::vector<VerbRow> table = WithoutDoubles(whole);
    std::string text = kBashHead;
    Replace(text, "@VALUED@", Joined(ValuedOptions(table), " | "));
    Replace(text, "@VERBS@", Joined(VerbNames(table, "\""), " | "));
    text += "    case \"$verb $prev\" in\n";
    for (size_t i = 1; i <= table.size(); ++i) {
        // The program's own options last: they go with every verb.
        const VerbRow& verb = table[i % table.size()];
        for (const ArgumentRow& row : verb.arguments) {
            if (row.positional || row.type.empty()) continue;
            std::vector<std::string> patterns;
            for (const std::string& name : row.names) {
                patterns.push_back(verb.name.empty() ? "*\" " + name + "\""
                                                     : "\"" + verb.name + " " + name + "\"");
            }
            text += "        " + Joined(patterns, " | ") + ") " + BashValues(row) + "; return ;;\n";
        }
    }
    text += "    esac\n    case \"$cur:$verb\" in\n";
    const std::string common = Joined(OptionNames(table.front()), " ");
    for (const VerbRow& verb : table) {
        const std::string names =
            verb.name.empty() ? common : Joined(OptionNames(verb), " ") + " " + common;
        text += "        -*:" + Quoted(verb.name) + ") COMPREPLY=($(compgen -W " + Quoted(names) +
                " -- \"$cur\")) ;;\n";
    }
    for (const VerbRow& verb : table) {
        if (!verb.isGroup && !verb.name.empty()) continue;
        std::vector<std::string> words;
        for (const VerbRow* each : Below(table, verb.name))
            words.push_back(LastWord(each->name));
        text += "        *:" + Quoted(verb.name) + ") COMPREPLY=($(compgen -W " +
                Quoted(Joined(words, " ")) + " -- \"$cur\")) ;;\n";
    }
    text += "        *)\n            case \"$verb $place\" in\n";
    for (const VerbRow& verb : table) {
        size_t place = 0;
        for (const ArgumentRow& row : verb.arguments) {
            if (!row.positional) continue;
            if (row.IsFile() || !row.choices.empty()) {
                text += "                \"" + verb.name + " " + std::to_string(place) + "\") " +
                        BashValues(row) + " ;;\n";
            }
            ++place;
        }
    }
    return text + "            esac\n            ;;\n    esac\n}\ncomplete -F _zem zem\n";
}

std::string ZshCompletion(const std::vector<VerbRow>& whole) {
    const std::vector<VerbRow> table = WithoutDoubles(whole);
    std::string text =
        "#compdef zem\n# zsh completion for zem. Made by: zem completion zsh\n_zem() {\n"
        "    local context state state_descr line\n    local -a verbs\n    typeset -A opt_args\n";
    AddZshVerbs(table, table.front(), "    ", text);
    return text +
           "}\nif [[ ${funcstack[1]} == _zem ]]; then\n    _zem \"$@\"\nelse\n"
           "    compdef _zem zem\nfi\n";
}

std::string FishCompletion(const std::vector<VerbRow>& whole) {
    const std::vector<VerbRow> table = WithoutDoubles(whole);
    std::string text = kFishHead;
    Replace(text, "@VALUED@", Joined(ValuedOptions(table), " "));
    Replace(text, "@VERBS@", Joined(VerbNames(table, "'"), " "));
    for (const VerbRow& verb : table) {
        const std::string at = verb.name.empty() ? "" : " -n " + Quoted("__zem_at " + verb.name);
        for (const ArgumentRow& row : verb.arguments) {
            std::string rule = "complete -c zem" + at;
            if (row.positional) {
                if (row.IsFile())
                    text += rule + " -F\n";
                else if (!row.choices.empty())
                    text += rule + " -a " + Quoted(Joined(row.choices, " ")) + "\n";
                continue;
            }
            for (const std::string& name : row.names)
                rule += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
            if (!row.type.empty()) rule += row.IsFile() ? " -r -F" : " -x";
            if (!row.choices.empty()) rule += " -a " + Quoted(Joined(row.choices, " "));
            text += rule + " -d " + Quoted(row.help) + "\n";
        }
        if (!verb.isGroup && !verb.name.empty()) continue;
        for (const VerbRow* below : Below(table, verb.name)) {
            text += "complete -c zem -n " +
                    Quoted(verb.name.empty() ? "__zem_at" : "__zem_at " + verb.name) + " -a " +
                    Quoted(LastWord(below->name)) + " -d " + Quoted(below->help) + "\n";
        }
    }
    return text;
}

}  // namespace zem
