#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/ExitCode.h"
#include "common/Times.h"

namespace qel::programs {

/// One command's options: declared once, then parsed, printed as help and as man page from the same
/// declaration. The variables handed in hold the defaults and must outlive `parse`. Used by one thread.
class CommandLine {
  public:
    /// `name` is the whole command ("qel-audit store info"), `summary` the line of the table of commands.
    CommandLine(std::string name, std::string summary, std::vector<std::string> arguments);
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    const std::string& name() const;
    const std::vector<std::string>& arguments() const;

    /// Section of the manual that the page belongs to: 1 for commands, 8 for daemons.
    void manualSection(int section);
    /// A paragraph of the help and the man page below the summary.
    void describe(const std::string& paragraph);
    /// A line that can be typed as it stands.
    void example(const std::string& line);
    /// Lines of a table below the description: a word and what it does (the commands of a group).
    void entry(const std::string& word, const std::string& meaning);

    /// `otherwise` says what holds without the option; the help names it as the default.
    void text(const char* option, const char* placeholder, std::string& value, const std::string& help,
              const std::string& otherwise);
    void requiredText(const char* option, const char* placeholder, std::string& value,
                      const std::string& help);
    /// Without `otherwise` the default is the value handed in.
    void choice(const char* option, std::string& value, const std::vector<std::string>& choices,
                const std::string& help, const std::string& otherwise = {});
    void requiredChoice(const char* option, std::string& value, const std::vector<std::string>& choices,
                        const std::string& help);
    /// Both bounds included; the help names them, the unit ("days"; empty for a mere number) and the default.
    void number(const char* option, const char* placeholder, const char* unit, std::int64_t& value,
                std::int64_t lowest, std::int64_t highest, const std::string& help);
    void time(const char* option, std::optional<TimeSpan>& value, const std::string& help,
              const std::string& otherwise);
    void requiredTime(const char* option, std::optional<TimeSpan>& value, const std::string& help);
    void flag(const char* option, bool& value, const std::string& help);
    /// Arguments without an option, in the order of declaration; `rest` takes all that follow.
    void position(const char* placeholder, std::string& value, const std::string& help);
    void rest(const char* placeholder, std::vector<std::string>& value, const std::string& help);

    /// Nothing when the command shall run; otherwise its exit code: 0 after --help, --version or --man,
    /// 64 after a usage error, with a sentence on standard error that suggests the right option.
    std::optional<int> parse();

    /// A usage error found after parsing ("--replay needs --from").
    int usageError(const std::string& sentence) const;

    /// How a command ends that could not do its work: the sentence on standard error, with --json also as an object on
    /// standard output. Returns `code`.
    int failure(ExitCode code, const std::string& sentence) const;

    bool quiet() const;
    bool json() const;

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

/// One row of a table of commands.
struct Command {
    const char* name;
    const char* summary;
    int (*run)(CommandLine& line);
};

/// Finds the command that the first argument names and runs it; prints the table for --help, suggests the
/// nearest name for a wrong one. A Failure that leaves the command becomes its sentence on standard error and
/// its code.
int dispatch(const std::string& program, const std::string& summary, const std::vector<Command>& commands,
             const std::vector<std::string>& arguments);

}  // namespace qel::programs
