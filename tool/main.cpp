// The tool of the library: the words of the command line lead to a command, which ends with an exit code.
#include "Command.h"

#include <zel/Notify.h>
#include <zelCore/Version.h>
#include <zelCore/zelCore.h>

#include <algorithm>
#include <iostream>

namespace {

using tool::Command;

/// The command that the first words name, which are taken off.
const Command* takeCommand(std::vector<std::string>& words) {
    for (const std::size_t count : {2U, 1U}) {
        if (words.size() < count)
            continue;
        const std::string name = count == 2 ? words[0] + " " + words[1] : words[0];
        const auto command = std::find_if(tool::commands().begin(),
                                          tool::commands().end(),
                                          [&name](const Command& each) { return each.name == name; });
        if (command == tool::commands().end())
            continue;
        words.erase(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(count));
        return &*command;
    }
    return nullptr;
}

int run(const Command& command, const std::vector<std::string>& words) {
    const auto end = std::find(words.begin(), words.end(), "--");
    if (std::find(words.begin(), end, "--help") != end) {
        std::cout << tool::helpOf(command);
        return tool::Done;
    }
    const tool::Arguments arguments(command.options, words);
    const auto count = static_cast<int>(arguments.positional().size());
    if (count < command.leastArguments)
        throw tool::UsageError("an argument lacks");
    if (command.mostArguments >= 0 && count > command.mostArguments)
        throw tool::UsageError("'" + arguments.positional()[static_cast<std::size_t>(command.mostArguments)] +
                               "' is one argument too many");
    return command.run(arguments);
}

int runTool(std::vector<std::string> words) {
    if (words.empty()) {
        std::cerr << tool::overview();
        return tool::WrongUsage;
    }
    if (words[0] == "--help" || words[0] == "-h")
        std::cout << tool::overview();
    else if (words[0] == "--version")
        std::cout << "zel " << zelCore::zelGetVersion(true) << '\n';
    else if (words[0] == "--man-page")
        std::cout << tool::manualPage();
    else if (words[0] == "--bash-completion")
        std::cout << tool::completion();
    else {
        const bool isFamily = words[0] == "journal" || words[0] == "archive";
        const std::string name = isFamily && words.size() > 1 ? words[0] + " " + words[1] : words[0];
        const Command* command = takeCommand(words);
        if (command == nullptr && isFamily && words.size() == 1) {
            std::cerr << "zel: the command '" << name << "' needs a second word; see zel --help\n";
            return tool::WrongUsage;
        }
        if (command == nullptr) {
            std::cerr << "zel: there is no command '" << name << "'; see zel --help\n";
            return tool::WrongUsage;
        }
        try {
            return run(*command, words);
        } catch (const tool::UsageError& error) {
            std::cerr << "zel " << command->name << ": " << error.what() << "\nusage: zel " << command->name
                      << ' ' << command->usage << '\n';
            return tool::WrongUsage;
        }
    }
    return tool::Done;
}

} // namespace

int main(int argc, char** argv) {
    zelCore::init();
    // What the library has to say of files is told in the words of the command.
    zel::Notify::instance()->setNotifyLevel(zel::Notify::Error);
    int result = tool::Failed;
    try {
        result = runTool({argv + 1, argv + argc});
        tool::flushOutput();
    } catch (const std::exception& error) {
        std::cerr << "zel: " << tool::printable(error.what(), "\n\t") << '\n';
        result = tool::Failed;
    }
    zelCore::shutdown();
    return result;
}
