#include <cstdio>
#include <exception>
#include <new>

#include "common/CommandLine.h"
#include "common/Failure.h"
#include "common/HelpText.h"
#include "common/Nearest.h"
#include "qelCore/logging/Log.h"

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
        std::fprintf(stderr, "%s: %s\n", line.name().c_str(), logging::escaped(failure.what()).c_str());
        return failure.code();
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "%s: out of memory\n", line.name().c_str());
        return exitTemporary;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", line.name().c_str(), logging::escaped(error.what()).c_str());
        return exitInputOutput;
    }
}

int unknownCommand(const std::string& program, const std::vector<Command>& commands,
                   const std::string& name) {
    std::vector<std::string> names;
    for (const Command& command : commands)
        names.emplace_back(command.name);
    const std::string nearest = nearestOf(name, names);
    std::fprintf(stderr, "%s: \"%s\" is not a command%s\nTry '%s --help'.\n", program.c_str(), name.c_str(),
                 nearest.empty() ? "" : (", perhaps " + nearest).c_str(), program.c_str());
    return exitUsage;
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
        return unknownCommand(program, commands, arguments.front());
    CommandLine line(program + ' ' + command->name, command->summary,
                     {arguments.begin() + 1, arguments.end()});
    return runGuarded(*command, line);
}

}  // namespace qel::programs
