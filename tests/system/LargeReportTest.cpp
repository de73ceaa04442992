#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include "support/Program.h"
#include "support/TemporaryFolder.h"

namespace qel {
namespace {

constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20;

/// The long form goes past every size that 31 or 32 bits can hold.
std::uint64_t sizeWanted() {
    return std::getenv("QEL_LONG_TESTS") != nullptr ? 4200 * mebibyte : 40 * mebibyte;
}

struct LargeLog {
    std::string file;
    std::uint64_t lines = 0;
};

/// Lines of one kind, and at the end, beyond all the rest, one of another.
LargeLog writeLog(const test::TemporaryFolder& folder) {
    LargeLog log{folder / "interaction.csv", 0};
    const std::string line = "03/07/2021 10:00:00;anna;WS-12;SeriesOpened;1.2.840.113619.2.55.3.6040." +
                             std::string(180, '7') + ";;;;;;;\n";
    std::string block;
    std::uint64_t linesInBlock = 0;
    for (; block.size() < mebibyte; ++linesInBlock)
        block += line;
    std::ofstream out(log.file, std::ios::binary);
    out << "Time;User;Device;Event;Param0;Param1;Param2;Param3;Param4;Param5;Param6;Param7\n";
    for (std::uint64_t written = 0; written < sizeWanted(); written += block.size()) {
        out << block;
        log.lines += linesInBlock;
    }
    out << "04/08/2021 10:00:00;bert;WS-13;Login;;;;;;;;\n";
    return log;
}

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

TEST(LargeReportTest, EveryLineOfALargeLogCounts) {
    const test::TemporaryFolder folder;
    const LargeLog log = writeLog(folder);
    const std::string audit = folder.write("audit.csv", "");
    const test::ProgramResult result =
        test::run({QEL_BINARY_DIR "/bin/qel-audit", "report", "usage", "--interaction", log.file, "--audit",
                   audit, "--out", folder / "out", "--json"});
    ASSERT_EQ(result.code, 0) << result.err;
    EXPECT_TRUE(holds(result.out, "\"lines\":" + std::to_string(log.lines + 2))) << result.out;
    const std::string page = test::TemporaryFolder::read(folder / "out/usage_report.html");
    EXPECT_TRUE(
        holds(page, "{ xLabel: \"March 2021\", \"Series\": " + std::to_string(log.lines) + ".000000}"));
    EXPECT_TRUE(holds(page, "{ xLabel: \"bert\", \"Days active\": 1.000000}")) << "the last line counts";
}

}  // namespace qel
