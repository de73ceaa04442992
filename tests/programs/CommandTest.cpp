#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
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

/// The commands that a page of help lists.
std::vector<std::string> listedIn(const std::string& help) {
    std::vector<std::string> names;
    std::istringstream lines(help.substr(std::min(help.find("\nCommands:\n"), help.size() - 1) + 1));
    std::string line;
    std::getline(lines, line);
    if (line != "Commands:")
        return names;
    while (std::getline(lines, line) && !line.empty())
        if (line.rfind("  ", 0) == 0 && line[2] != ' ')
            names.push_back(line.substr(2, line.find(' ', 2) - 2));
    return names;
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
    for (const std::string& below : listedIn(result.out)) {
        std::vector<std::string> deeper = command;
        deeper.push_back(below);
        expectGoodHelp(deeper);
    }
}

TEST(Commands, HelpOfEveryCommandFitsEightyColumns) {
    expectGoodHelp({});
}

/// The rows below "Options:" with their continuation lines joined.
std::vector<std::string> optionsIn(const std::string& help) {
    std::vector<std::string> rows;
    std::istringstream lines(help.substr(help.find("\nOptions:\n") + 10));
    for (std::string line; std::getline(lines, line) && !line.empty();) {
        if (line.rfind("  --", 0) == 0)
            rows.push_back(line);
        else
            rows.back() += ' ' + line.substr(line.find_first_not_of(' '));
    }
    return rows;
}

/// Every option that takes a value says at its end what holds without it, a number also its bounds and unit.
void expectDefaults(const std::vector<std::string>& command, std::size_t& values) {
    std::vector<std::string> arguments = command;
    arguments.push_back("--help");
    const std::string help = audit(arguments).out;
    const std::regex withValue("  --[a-z-]+ [^ a-z].*|  --[a-z-]+ [a-z]+\\|.*");
    const std::regex endsWell(".* \\((required|(.*, )?default .+)\\)");
    const std::regex number(".*default -?[0-9]+\\)");
    const std::regex numberEndsWell(".* \\([0-9]+ (to [0-9]+|or more)( [A-Za-z]+)?, default [0-9]+\\)");
    for (const std::string& row : optionsIn(help)) {
        if (!std::regex_match(row, withValue))
            continue;
        ++values;
        EXPECT_TRUE(std::regex_match(row, endsWell)) << arguments.front() << row;
        if (!std::regex_match(row, number))
            continue;
        std::smatch parts;
        EXPECT_TRUE(std::regex_match(row, parts, numberEndsWell)) << arguments.front() << row;
        // The one number that measures nothing.
        EXPECT_TRUE(parts[2].matched || row.rfind("  --seed ", 0) == 0) << arguments.front() << row;
    }
    for (const std::string& below : listedIn(help)) {
        std::vector<std::string> deeper = command;
        deeper.push_back(below);
        expectDefaults(deeper, values);
    }
}

TEST(Commands, HelpNamesTheDefaultOfEveryValueAndTheUnitOfEveryNumber) {
    std::size_t values = 0;
    expectDefaults({}, values);
    EXPECT_GE(values, 70u);
}

TEST(Commands, HelpOfEveryCommandThatTakesTimesShowsTheirForms) {
    for (const char* name : {"export", "download", "lines", "simulate"})
        EXPECT_NE(audit({name, "--help"}).out.find("2026-Q1"), std::string::npos) << name;
}

TEST(Commands, JsonTellsOfFailuresTooOnStandardOutput) {
    test::TemporaryFolder folder;
    const test::ProgramResult missing =
        audit({"store", "info", "--json", "--store", "lmdb:" + (folder / "nowhere")});
    EXPECT_EQ(missing.code, 66);
    EXPECT_EQ(missing.out,
              "{\"error\":\"" + (folder / "nowhere") + ": No such file or directory\",\"exit\":66}\n");
    EXPECT_NE(missing.err.find("No such file or directory"), std::string::npos) << missing.err;
    const test::ProgramResult wrong = audit({"store", "info", "--stor", "x", "--json"});
    EXPECT_EQ(wrong.code, 64);
    EXPECT_EQ(wrong.out, "{\"error\":\"--stor is not an option here, perhaps --store\",\"exit\":64}\n");
    const test::ProgramResult unknown = audit({"stor", "--json"});
    EXPECT_EQ(unknown.out, "{\"error\":\"\\\"stor\\\" is not a command, perhaps store\",\"exit\":64}\n");
    EXPECT_EQ(audit({"stor"}).out, "");
}

/// The exit code of a command for somebody who is not root.
int codeForAnybody(const std::vector<std::string>& arguments) {
    const pid_t child = ::fork();
    if (child == 0) {
        constexpr uid_t nobody = 65534;
        const bool changed = ::geteuid() != 0 || ::setuid(nobody) == 0;
        ::_exit(changed ? runAudit(arguments) : 255);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Commands, InputThatMayNotBeReadIsNotCalledMissing) {
    test::TemporaryFolder folder;
    const std::string file = folder.write("closed", "");
    ASSERT_EQ(::chmod(file.c_str(), 0), 0);
    EXPECT_EQ(codeForAnybody({"queue", "--config", file}), 77);
    EXPECT_EQ(codeForAnybody({"doctor", "--config", file}), 77);
    EXPECT_EQ(audit({"queue", "--config", folder / "nowhere"}).code, 66);
}

TEST(Commands, DatabaseThatDoesNotAnswerIsUnavailable) {
    const std::string database = "postgresql://nobody@127.0.0.1:1/audit?connect_timeout=2";
    const test::ProgramResult result = audit({"store", "info", "--store", database});
    EXPECT_EQ(result.code, 69) << result.err;
    EXPECT_NE(result.err.find("cannot reach the database audit"), std::string::npos) << result.err;
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

/// What a page below docs/man must be: the program's own words. scripts/man-pages writes them anew.
void expectPage(const std::string& name, const std::vector<std::string>& arguments) {
    const test::ProgramResult result = test::run(arguments);
    EXPECT_EQ(result.code, 0) << name << ": " << result.err;
    EXPECT_EQ(test::TemporaryFolder::read(QEL_SOURCE_DIR "/docs/man/" + name), result.out)
        << name << " is not what the program says of itself; scripts/man-pages writes it anew";
}

void expectPages(const std::vector<std::string>& command, std::size_t& pages) {
    std::string name = "qel-audit";
    for (const std::string& word : command)
        name += '-' + word;
    std::vector<std::string> arguments = command;
    arguments.insert(arguments.begin(), program);
    arguments.push_back("--man");
    expectPage(name + ".1", arguments);
    ++pages;
    arguments.back() = "--help";
    for (const std::string& below : listedIn(test::run(arguments).out)) {
        std::vector<std::string> deeper = command;
        deeper.push_back(below);
        expectPages(deeper, pages);
    }
}

TEST(Commands, ManualPagesAreTheProgramsOwnWords) {
    std::size_t pages = 0;
    expectPages({}, pages);
    EXPECT_GT(pages, auditCommands().size());
    expectPage("qel-auditd.8", {QEL_PROGRAMS_DIR "/qel-auditd", "--man"});
    expectPage("qel-auditd.conf.5", {QEL_PROGRAMS_DIR "/qel-auditd", "--man-config"});
    expectPage("qel-audit.conf.5", {program, "--man-config"});
}

}  // namespace
}  // namespace qel::programs
