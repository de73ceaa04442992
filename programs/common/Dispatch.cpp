#include <exception>
#include <new>

#include "common/CommandLine.h"
#include "common/Failure.h"
#include "common/Nearest.h"

namespace qel::programs {
namespace {

const Command* findCommand(const std::vector<Command>& commands, const std::string& name) {
    for (const Command& command : commands)
        if (name == command.name)
            return &command;
    return nullptr;
}

int runGuarded(const Command& command, CommandLine& line) {
    try {
        return command.run(line);
    } catch (const Failure& failure) {
        return line.failure(failure.code(), failure.what());
    } catch (const std::bad_alloc&) {
        return line.failure(exitTemporary, "out of memory");
    } catch (const std::exception& error) {
        return line.failure(exitInputOutput, error.what());
    }
}

int unknownCommand(const CommandLine& line, const std::vector<Command>& commands, const std::string& name) {
    std::vector<std::string> names;
    names.reserve(commands.size());
    for (const Command& command : commands)
        names.emplace_back(command.name);
    const std::string nearest = nearestOf(name, names);
    return line.usageError('"' + name + "\" is not a command" +
                           (nearest.empty() ? "" : ", perhaps " + nearest));
}

/// The page of the table itself.
int showTable(CommandLine& line, const std::vector<Command>& commands) {
    for (const Command& command : commands)
        line.entry(command.name, command.summary);
    line.describe("'" + line.name() + " COMMAND --help' describes one command.");
    if (const auto code = line.parse())
        return *code;
    return line.usageError("a command is missing");
}

}  // namespace

int dispatch(const std::string& program, const std::string& summary, const std::vector<Command>& commands,
             const std::vector<std::string>& arguments) {
    if (arguments.empty() || arguments.front().rfind('-', 0) == 0) {
        CommandLine line(program, summary, arguments);
        return showTable(line, commands);
    }
    const Command* command = findCommand(commands, arguments.front());
    if (!command)
        return unknownCommand(CommandLine(program, summary, arguments), commands, arguments.front());
    CommandLine line(program + ' ' + command->name, command->summary,
                     {arguments.begin() + 1, arguments.end()});
    return runGuarded(*command, line);
}

}  // namespace qel::programs
