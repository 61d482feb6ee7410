#include "Command.h"

#include <zelCore/Version.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <sstream>

namespace tool {

namespace {

const char* const Summary = "runs models and looks into journals";

/// Breaks the lines of paragraphs at the width, which count as one each.
std::string wrap(const std::string& text, std::size_t indentation, std::size_t width = 78) {
    std::ostringstream result;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.front() == ' ') { // an example stands as it is
            result << std::string(indentation, ' ') << line << '\n';
            continue;
        }
        std::istringstream words(line);
        std::size_t column = 0;
        for (std::string word; words >> word;) {
            if (column != 0 && column + 1 + word.size() > width) {
                result << '\n';
                column = 0;
            }
            if (column == 0) {
                result << std::string(indentation, ' ');
                column = indentation;
            } else {
                result << ' ';
                ++column;
            }
            result << word;
            column += word.size();
        }
        result << '\n';
    }
    return result.str();
}

std::string nameOf(const Option& option) {
    return option.valueName == nullptr ? option.name : std::string(option.name) + " " + option.valueName;
}

/// For a line of the manual: what it would take for a command, or for markup, is escaped.
std::string escape(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        if (c == '\\' || c == '-')
            escaped += '\\';
        if ((c == '.' || c == '\'') && (escaped.empty() || escaped.back() == '\n'))
            escaped += "\\&";
        escaped += c;
    }
    return escaped;
}

/// Paragraphs, with examples as they stand.
std::string paragraphs(const std::string& text) {
    std::ostringstream result;
    std::istringstream lines(text);
    bool isExample = false;
    for (std::string line; std::getline(lines, line);) {
        const bool isIndented = !line.empty() && line.front() == ' ';
        if (isIndented != isExample)
            result << (isIndented ? ".EX\n" : ".EE\n");
        isExample = isIndented;
        result << (line.empty() ? ".PP" : escape(line)) << '\n';
    }
    if (isExample)
        result << ".EE\n";
    return result.str();
}

} // namespace

std::string helpOf(const Command& command) {
    std::ostringstream help;
    help << "usage: zel " << command.name << ' ' << command.usage << "\n\n"
         << wrap(std::string(command.summary) + ".\n\n" + command.text, 0);
    help << "\nOptions:\n";
    for (const Option& option : command.options)
        help << "  " << nameOf(option) << '\n' << wrap(option.help, 6);
    help << "  --help\n      Prints this.\n";
    return help.str();
}

std::string overview() {
    std::ostringstream help;
    help << "usage: zel COMMAND ARGUMENT...\n\nThe tool of zelCore: " << Summary << ".\n\nCommands:\n";
    for (const Command& command : commands())
        help << "  " << command.name << ' ' << command.usage << "\n      " << command.summary << ".\n";
    help << "\nExit codes:\n";
    for (const auto& [code, text] : exitCodes())
        help << "  " << code << (code < 100 ? "    " : "  ") << text << ".\n";
    help << "\n'zel COMMAND --help' tells more of each command; 'zel --version' prints the version.\n";
    return help.str();
}

std::string manualPage() {
    std::ostringstream page;
    page << ".TH ZEL 1 \"\" \"zelCore " << zelCore::zelGetVersion(true) << "\" \"User Commands\"\n"
         << ".SH NAME\nzel \\- " << Summary << "\n.SH SYNOPSIS\n";
    for (const Command& command : commands())
        page << ".B zel " << escape(command.name) << "\n" << escape(command.usage) << "\n.br\n";
    page << ".SH COMMANDS\n";
    for (const Command& command : commands()) {
        page << ".SS zel " << escape(command.name) << ' ' << escape(command.usage) << '\n'
             << escape(command.summary) << ".\n.PP\n"
             << paragraphs(command.text);
        for (const Option& option : command.options)
            page << ".TP\n.B " << escape(nameOf(option)) << '\n' << escape(option.help) << '\n';
    }
    page << ".SH EXIT STATUS\n";
    for (const auto& [code, text] : exitCodes())
        page << ".TP\n" << code << '\n' << text << ".\n";
    return page.str();
}

std::string completion() {
    std::set<std::string> first;
    std::set<std::string> journal;
    std::ostringstream cases;
    for (const Command& command : commands()) {
        const std::string name = command.name;
        const auto blank = name.find(' ');
        first.insert(name.substr(0, blank));
        if (blank != std::string::npos)
            journal.insert(name.substr(blank + 1));
        cases << "        \"" << name << "\") options=\"--help";
        for (const Option& option : command.options)
            cases << ' ' << option.name;
        cases << "\" ;;\n";
    }
    const auto join = [](const std::set<std::string>& words) {
        std::string all;
        for (const std::string& word : words)
            all += (all.empty() ? "" : " ") + word;
        return all;
    };
    return "# Completion of zel for bash; made by 'zel --bash-completion'.\n"
           "_zel() {\n"
           "    local word=${COMP_WORDS[COMP_CWORD]} command=${COMP_WORDS[1]} options=\n"
           "    COMPREPLY=()\n"
           "    if [ \"$COMP_CWORD\" -eq 1 ]; then\n"
           "        COMPREPLY=($(compgen -W \"" +
           join(first) +
           " --help --version\" -- \"$word\"))\n"
           "        return\n"
           "    fi\n"
           "    if [ \"$command\" = journal ]; then\n"
           "        if [ \"$COMP_CWORD\" -eq 2 ]; then\n"
           "            COMPREPLY=($(compgen -W \"" +
           join(journal) +
           "\" -- \"$word\"))\n"
           "            return\n"
           "        fi\n"
           "        command=\"journal ${COMP_WORDS[2]}\"\n"
           "    fi\n"
           "    case \"$command\" in\n" +
           cases.str() +
           "    esac\n"
           "    case \"$word\" in\n"
           "        -*) COMPREPLY=($(compgen -W \"$options\" -- \"$word\")) ;;\n"
           "    esac\n"
           "}\n"
           "complete -o default -F _zel zel\n";
}

} // namespace tool
