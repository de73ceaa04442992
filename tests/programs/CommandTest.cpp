#include <gtest/gtest.h>

#include <sstream>

#include "audit/Commands.h"
#include "support/Program.h"
#include "support/TemporaryFolder.h"

namespace qel::programs {
namespace {

const std::string program = QEL_PROGRAMS_DIR "/qel-audit";

test::ProgramResult audit(std::vector<std::string> arguments, const std::string& input = {}) {
    arguments.insert(arguments.begin(), program);
    return test::run(arguments, input);
}

/// Columns of a line of UTF-8.
std::size_t columnsOf(const std::string& line) {
    std::size_t columns = 0;
    for (const char c : line)
        columns += (c & 0xC0) != 0x80;
    return columns;
}

void expectGoodHelp(const std::vector<std::string>& command) {
    std::vector<std::string> arguments = command;
    arguments.push_back("--help");
    const test::ProgramResult result = audit(arguments);
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out.rfind("Usage: qel-audit", 0), 0u) << result.out;
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);)
        EXPECT_LE(columnsOf(line), 80u) << line;
    for (const char* common : {"--json", "--quiet", "--help", "--version"})
        EXPECT_NE(result.out.find(common), std::string::npos) << common;
}

TEST(Commands, HelpOfEveryCommandFitsEightyColumns) {
    expectGoodHelp({});
    for (const Command& command : auditCommands())
        expectGoodHelp({command.name});
}

TEST(Commands, VersionIsPrintedByTheProgramAndByEveryCommand) {
    EXPECT_EQ(audit({"--version"}).out.rfind("qel-audit ", 0), 0u);
    for (const Command& command : auditCommands())
        EXPECT_EQ(audit({command.name, "--version"}).code, 0) << command.name;
}

TEST(Commands, TableHelpNamesEveryCommand) {
    const std::string help = audit({"--help"}).out;
    for (const Command& command : auditCommands())
        EXPECT_NE(help.find(std::string("  ") + command.name), std::string::npos) << command.name;
}

TEST(Commands, UnknownCommandSuggestsTheNearestOne) {
    const test::ProgramResult result = audit({"simulte"});
    EXPECT_EQ(result.code, 64);
    EXPECT_EQ(result.err,
              "qel-audit: \"simulte\" is not a command, perhaps simulate\nTry 'qel-audit --help'.\n");
}

TEST(Commands, NoCommandAtAllIsAUsageError) {
    EXPECT_EQ(audit({}).code, 64);
}

TEST(Commands, WrongOptionSuggestsTheRightOne) {
    const test::ProgramResult result = audit({"simulate", "--user", "3", "--out", "x"});
    EXPECT_EQ(result.code, 64);
    EXPECT_NE(result.err.find("--user is not an option here, perhaps --users"), std::string::npos)
        << result.err;
}

TEST(Commands, MissingRequiredOptionIsNamed) {
    const test::ProgramResult result = audit({"simulate"});
    EXPECT_EQ(result.code, 64);
    EXPECT_NE(result.err.find("--out is required"), std::string::npos) << result.err;
}

TEST(Commands, NumbersOutOfRangeAreUsageErrors) {
    for (const char* wrong : {"0", "-1", "many", "1.5", "99999999999999999999", ""}) {
        const test::ProgramResult result = audit({"simulate", "--out", "x", "--days", wrong});
        EXPECT_EQ(result.code, 64) << wrong;
        EXPECT_NE(result.err.find("expected a whole number from 1 to 36500"), std::string::npos)
            << result.err;
    }
}

TEST(Commands, WrongTimesAreUsageErrorsThatShowTheForms) {
    const test::ProgramResult result = audit({"simulate", "--out", "x", "--from", "yesterday"});
    EXPECT_EQ(result.code, 64);
    EXPECT_NE(result.err.find("\"yesterday\" is not a time"), std::string::npos) << result.err;
}

}  // namespace
}  // namespace qel::programs
