// Completion and man page, from the command table.
#include "command.h"

namespace tavrikctl {
namespace {

std::string joined(const std::vector<std::string> &words, const char *between) {
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : between) + word;
    return text;
}

void collect(std::vector<std::string> &words, const std::vector<Parameter> &parameters) {
    for (const Parameter &parameter : parameters) {
        if (parameter.is_option())
            words.push_back(parameter.name);
        words.insert(words.end(), parameter.choices.begin(), parameter.choices.end());
    }
}

void collect_valued(std::vector<std::string> &options, const std::vector<Parameter> &parameters) {
    for (const Parameter &parameter : parameters)
        if (parameter.is_option() && !parameter.is_switch())
            options.push_back(parameter.name);
}

std::string full_name(const Verb &verb) {
    return verb.name.empty() ? verb.family : verb.family + " " + verb.name;
}

// A dash that is typed is no hyphen, and a backslash begins nothing.
std::string roff(const std::string &text) {
    std::string result;
    for (char c : text)
        result += c == '-' ? "\\-" : c == '\\' ? "\\e" : std::string(1, c);
    return result;
}

std::string bold(const std::string &text) {
    return "\\fB" + roff(text) + "\\fR";
}

std::string roff_name(const Parameter &parameter) {
    const std::string name = parameter.is_option() ? bold(parameter.name) : "\\fI" + roff(parameter.name) + "\\fR";
    if (parameter.words > 1)
        return name + " ...";
    return parameter.value.empty() ? name : name + " \\fI" + roff(parameter.value) + "\\fR";
}

std::string roff_explained(const Parameter &parameter) {
    std::string text = ".TP\n" + roff_name(parameter) + "\n" + roff(parameter.help);
    if (!parameter.choices.empty())
        text += ": " + roff(joined(parameter.choices, " or "));
    if (parameter.is_number() && parameter.most < 1000)
        text += ", " + std::to_string(parameter.least) + " to " + std::to_string(parameter.most);
    if (!parameter.fallback.empty())
        text += "; " + roff(parameter.fallback) + " unless given";
    return text + ".\n";
}

} // namespace

std::string completion(const Table &table) {
    std::vector<std::string> first, options, valued;
    collect(options, table.options);
    collect_valued(valued, table.options);
    std::string branches;
    const auto branch = [&branches](const std::string &path, const std::vector<std::string> &words) {
        branches += "    '" + path + "' | '" + path + " '*) words='" + joined(words, " ") + "' ;;\n";
    };
    for (const Family &family : table.families) {
        first.push_back(family.name);
        std::vector<std::string> verbs;
        for (const Verb &verb : family.verbs) {
            std::vector<std::string> words;
            collect(words, verb.parameters);
            collect_valued(valued, verb.parameters);
            branch(full_name(verb), words);
            if (!verb.name.empty())
                verbs.push_back(verb.name);
        }
        if (!verbs.empty())
            branch(family.name, verbs);
    }
    return "# bash completion for tavrikctl\n"
           "_tavrikctl() {\n"
           "  local path= word words= value=\n"
           "  for word in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
           "    if [ -n \"$value\" ]; then\n"
           "      value=\n"
           "      continue\n"
           "    fi\n"
           "    case $word in\n"
           "    " +
           joined(valued, " | ") +
           ") value=yes ;;\n"
           "    -?*) ;;\n"
           "    *) path+=\"${path:+ }$word\" ;;\n"
           "    esac\n"
           "  done\n"
           "  case $path in\n"
           "    '') words='" +
           joined(first, " ") + "' ;;\n" + branches +
           "  esac\n"
           "  COMPREPLY=()\n"
           "  [ -n \"$value\" ] ||\n"
           "    mapfile -t COMPREPLY < <(compgen -W \"$words " +
           joined(options, " ") +
           "\" -- \"${COMP_WORDS[COMP_CWORD]}\")\n"
           "}\n"
           "complete -F _tavrikctl tavrikctl\n";
}

std::string man_page(const Table &table) {
    std::string synopsis, verbs, options;
    for (const Family &family : table.families)
        for (const Verb &verb : family.verbs) {
            std::string line = bold("tavrikctl " + full_name(verb));
            std::string explained = ".SS " + roff(full_name(verb)) + "\n" + roff(verb.help) + ".\n";
            for (const Parameter &parameter : verb.parameters) {
                line += parameter.required ? " " + roff_name(parameter) : " [" + roff_name(parameter) + "]";
                explained += roff_explained(parameter);
            }
            synopsis += line + "\n.br\n";
            verbs += explained;
        }
    for (const Parameter &option : table.options)
        options += roff_explained(option);
    return ".TH TAVRIKCTL 1\n"
           ".SH NAME\ntavrikctl \\- command line of the Tavrik SDK\n"
           ".SH SYNOPSIS\n.nh\n" +
           synopsis +
           ".hy\n"
           ".SH DESCRIPTION\n"
           "Drives the LTE module that it runs on, through the library that applications use. Every verb takes the "
           "options below as well.\n" +
           verbs + ".SH OPTIONS\n" + options +
           ".SH EXIT STATUS\n0 when the work is done, 1 when it failed, 2 when the command line is wrong, 3 when no "
           "answer came in "
           "time, where that can be told.\n"
           ".SH SEE ALSO\ntavrik\\-sim, which runs a program, this one too, inside a simulated module.\n";
}

} // namespace tavrikctl
