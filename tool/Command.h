#pragma once

#include <initializer_list>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// @file
/// What the commands of the tool are, and how their arguments come to them. Help, manual page and completion
/// are made from the same texts.

namespace tool {

/// What a command ends with.
enum ExitCode : int {
    Done = 0,
    Differs =
        1, ///< it was done, and the answer is not the good one: faults, a difference, frames that are gone
    WrongUsage = 2,
    Failed = 3,
    BySignal = 128 ///< and the number of the signal
};

/// Told with the usage of the command.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Option {
    const char* name;      ///< with its dashes
    const char* valueName; ///< what the help calls its value; null for one without
    const char* help;
};

class Arguments {
public:
    /// @throws UsageError
    Arguments(const std::vector<Option>& options, const std::vector<std::string>& words);

    [[nodiscard]] const std::vector<std::string>& positional() const { return m_positional; }
    [[nodiscard]] bool has(const std::string& option) const { return m_values.contains(option); }
    /// The last one told; the default without one.
    [[nodiscard]] std::string get(const std::string& option, const std::string& byDefault = {}) const;
    [[nodiscard]] std::vector<std::string> getAll(const std::string& option) const;
    /// @throws UsageError
    [[nodiscard]] unsigned long number(const std::string& option, unsigned long byDefault) const;
    /// Finite and not below 0.
    [[nodiscard]] double real(const std::string& option, double byDefault) const;

private:
    std::vector<std::string> m_positional;
    std::map<std::string, std::vector<std::string>> m_values;
};

struct Command {
    const char* name;  ///< such as "journal info"
    const char* usage; ///< the arguments behind it
    const char* summary;
    const char* text; ///< paragraphs
    std::vector<Option> options;
    int leastArguments;
    int mostArguments; ///< -1 for any number
    int (*run)(const Arguments& arguments);
};

/// All of them, in the order of the manual.
[[nodiscard]] const std::vector<Command>& commands();

/// The texts of all exit codes.
[[nodiscard]] const std::vector<std::pair<int, const char*>>& exitCodes();

// Each of these returns an exit code.
int printInfo(const Arguments& arguments);
int listFrames(const Arguments& arguments);
int showFrame(const Arguments& arguments);
int verify(const Arguments& arguments);
int recordStream(const Arguments& arguments);
int recover(const Arguments& arguments);
int cut(const Arguments& arguments);
int exportSeries(const Arguments& arguments);
int diff(const Arguments& arguments);
int printArchiveInfo(const Arguments& arguments);
int showArchive(const Arguments& arguments);
int convertArchive(const Arguments& arguments);
int printTree(const Arguments& arguments);
int runModel(const Arguments& arguments);
int serveJournals(const Arguments& arguments);

/// What --help prints of a command.
[[nodiscard]] std::string helpOf(const Command& command);
/// What --help prints without a command.
[[nodiscard]] std::string overview();
/// The manual page, in the language of man(7).
[[nodiscard]] std::string manualPage();
/// The script for bash.
[[nodiscard]] std::string completion();

/// A number that is all of the text.
/// @throws UsageError that begins with the name
[[nodiscard]] unsigned long parseNumber(const std::string& name, const std::string& text);
[[nodiscard]] double parseReal(const std::string& name, const std::string& text);
/// As few digits as tell it apart from all others.
[[nodiscard]] std::string toText(double number);
/// A text of a file, without what a terminal would obey: control characters but for those that are kept.
[[nodiscard]] std::string printable(const std::string& text, const std::string& kept = {});
/// Throws if what was printed has not arrived: a full disk, or a closed pipe.
void flushOutput();

} // namespace tool
