#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/Program.h"
#include "support/TemporaryFolder.h"

namespace qel::programs {
namespace {

using test::ProgramResult;
using test::TemporaryFolder;

const std::string program = QEL_PROGRAMS_DIR "/qel-audit";
const std::string header = "Time;User;Device;Event;Param0;Param1;Param2;Param3;Param4;Param5;Param6;Param7\n";

class ReportCommand : public ::testing::Test {
  protected:
    ReportCommand() {
        interaction(header + "03/07/2021 10:00:00;anna;WS1;SeriesOpened;;;;;;;;\n");
        audit(header + "03/08/2021 10:00:00;bert;WS1;DataAccess;1.2;1.3;;;;;;\n");
    }

    void interaction(const std::string& text) { interaction_ = folder_.write("interaction.csv", text); }
    void audit(const std::string& text) { audit_ = folder_.write("audit.csv", text); }

    ProgramResult report(const std::string& kind, const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments = {
            program, "report", kind, "--interaction", interaction_, "--audit", audit_, "--out", out()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return test::run(arguments);
    }
    std::string out() const { return folder_ / "out"; }
    std::string page(const std::string& kind = "usage") const {
        return TemporaryFolder::read(out() + "/" + kind + "_report.html");
    }
    bool pageHolds(const std::string& text) const { return page().find(text) != std::string::npos; }

    TemporaryFolder folder_;
    std::string interaction_;
    std::string audit_;
};

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(ReportCommand, WritesThePageAndItsThreeFiles) {
    const ProgramResult result = report("usage", {"--server", "pacs.example"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_TRUE(holds(result.err, out() + "/usage_report.html"));
    EXPECT_TRUE(pageHolds("pacs.example"));
    EXPECT_TRUE(pageHolds("<h2>Series viewed per month</h2>"));
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(out())) {
        EXPECT_GT(entry.file_size(), 0u) << entry.path();
        ++files;
    }
    EXPECT_EQ(files, 4) << "nothing of the work is left behind";
}

TEST_F(ReportCommand, SaysWhatItDidAsJson) {
    const ProgramResult result = report("usage", {"--json", "--quiet"});
    EXPECT_EQ(result.err, "");
    EXPECT_TRUE(holds(result.out, "\"page\":\"" + out() + "/usage_report.html\"")) << result.out;
    EXPECT_TRUE(holds(result.out, "\"lines\":4"));
    EXPECT_TRUE(holds(result.out, "\"replaced\":0"));
}

TEST_F(ReportCommand, WithoutBoundsLabelsTheSpanOfTheDatedLines) {
    interaction(header +
                "x;anna;WS1;E\n03/09/2021 10:00:00;anna;WS1;E\n03/11/2021 10:00:00;anna;WS1;E\nlast\n");
    audit(header + "03/08/2021 10:00:00;anna;WS1;E\n");
    EXPECT_EQ(report("usage").code, 0);
    EXPECT_TRUE(pageHolds("08 Mar 2021 09:00 - 11 Mar 2021 09:00"));
}

TEST_F(ReportCommand, BoundsLabelAndLinesOutsideAreCountedAndMentioned) {
    const ProgramResult result = report("usage", {"--from", "2021-03-08", "--to", "2021-03"});
    EXPECT_EQ(result.code, 0);
    EXPECT_TRUE(pageHolds("07 Mar 2021 23:00 - 31 Mar 2021 21:59"));
    EXPECT_TRUE(holds(result.err, "1 lines lie outside")) << result.err;
    EXPECT_TRUE(pageHolds("<h2>Series viewed per month</h2>"));
}

TEST_F(ReportCommand, GroupsComeFromAFile) {
    const std::string groups =
        folder_.write("groups.txt", "anna;radiology;;surgery\r\n\r\nanna;other\nbert\nmissing;x\n");
    EXPECT_EQ(report("usage", {"--groups", groups}).code, 0);
    EXPECT_TRUE(pageHolds("var keys = [\"radiology\",\"surgery\"];"));
    EXPECT_FALSE(pageHolds("Series and Studies viewed per group"));
    EXPECT_EQ(report("usage", {"--groups", folder_ / "none"}).code, 66);
}

TEST_F(ReportCommand, GroupsComeFromTheSystem) {
    interaction(header + "03/07/2021 10:00:00;root;WS1;E\n03/07/2021 10:00:00;nobody-at-all;WS1;E\n");
    EXPECT_EQ(report("usage", {"--groups", "system"}).code, 0);
    EXPECT_TRUE(pageHolds("var keys = [\"root\"")) << page();
    EXPECT_TRUE(pageHolds("\"No group\"]"));
}

TEST_F(ReportCommand, MissingInputIs66) {
    interaction_ = folder_ / "missing.csv";
    const ProgramResult result = report("usage");
    EXPECT_EQ(result.code, 66);
    EXPECT_TRUE(holds(result.err, "missing.csv: No such file or directory"));
    EXPECT_FALSE(std::filesystem::exists(out()));
}

TEST_F(ReportCommand, AFolderIs66WithTheReason) {
    audit_ = folder_.path();
    const ProgramResult result = report("teleradiology");
    EXPECT_EQ(result.code, 66);
    EXPECT_TRUE(holds(result.err, "Is a directory"));
}

TEST_F(ReportCommand, ADeviceThatNeverEndsIs65) {
    interaction_ = "/dev/zero";
    const ProgramResult result = report("usage");
    EXPECT_EQ(result.code, 65);
    EXPECT_TRUE(holds(result.err, "/dev/zero: is no file, and gives more than 1024 MiB")) << result.err;
    EXPECT_FALSE(std::filesystem::exists(out() + "/usage_report.html"));
    interaction("");
    const ProgramResult groups = report("usage", {"--groups", "/dev/zero"});
    EXPECT_EQ(groups.code, 65);
    EXPECT_TRUE(holds(groups.err, "/dev/zero: is larger than 64 MiB")) << groups.err;
}

TEST_F(ReportCommand, AFileLargerThanTheMemoryIs66BeforeItIsRead) {
    std::filesystem::resize_file(audit_, std::uintmax_t{8} << 40);
    const ProgramResult result = report("teleradiology");
    EXPECT_EQ(result.code, 66);
    EXPECT_TRUE(holds(result.err, "holds 8796093022208 bytes, more than there is memory for")) << result.err;
}

TEST_F(ReportCommand, ALogMayComeFromAPipe) {
    const ProgramResult result = test::run({"/bin/bash", "-c",
                                            "exec " + program + " report usage --interaction <(cat " +
                                                interaction_ + ") --audit " + audit_ + " --out " + out()});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_TRUE(pageHolds("<h2>Series viewed per month</h2>"));
}

TEST_F(ReportCommand, AnUnreadableFileIs66WithTheReason) {
    // A symbolic link to itself cannot be opened by anybody, root included.
    std::filesystem::create_symlink("loop", folder_ / "loop");
    audit_ = folder_ / "loop";
    const ProgramResult result = report("usage");
    EXPECT_EQ(result.code, 66);
    EXPECT_TRUE(holds(result.err, "Too many levels of symbolic links"));
}

TEST_F(ReportCommand, AnyReadableFileGivesAReportAndAWarning) {
    struct Case {
        std::string text;
        std::string warning;
    };
    std::string binary;
    for (int i = 0; i < 5000; ++i)
        binary += static_cast<char>(i * 7 + i / 256);
    for (const Case& each :
         {Case{"", "is empty"}, Case{header, "holds no event"},
          Case{"03/07/2021 10:00:00;anna;WS1;E\n", "not the header"}, Case{binary, "not the header"}}) {
        interaction(each.text);
        const ProgramResult result = report("usage");
        EXPECT_EQ(result.code, 0) << each.warning;
        EXPECT_TRUE(holds(result.err, each.warning)) << result.err;
        EXPECT_EQ(page().substr(page().size() - 9), "</body>\n\n");
    }
}

TEST_F(ReportCommand, AByteOrderMarkBeforeTheHeaderIsNoFault) {
    interaction("\xef\xbb\xbf" + header + "03/07/2021 10:00:00;anna;WS1;SeriesOpened\r\n");
    EXPECT_FALSE(holds(report("usage").err, "header"));
}

TEST_F(ReportCommand, TheGuardTellsWhatItReplacedAndWhere) {
    interaction(header + "03/07/2021 10:00:00;<script>;WS1;E\n03/07/2021 10:00:00;anna;\";E\n");
    const ProgramResult result = report("usage");
    EXPECT_EQ(result.code, 0);
    EXPECT_TRUE(holds(result.err, "in 2 texts: 2 in the interaction log (first lines 2, 3)")) << result.err;
    EXPECT_FALSE(pageHolds("<script>\""));
    EXPECT_EQ(report("usage", {"--strict"}).code, 1);
}

TEST_F(ReportCommand, RawLeavesTextsAsTheyAreAndNeverChangesTheExitCode) {
    interaction(header + "03/07/2021 10:00:00;a<b>;WS1;E\n");
    const ProgramResult result = report("usage", {"--raw", "--strict", "--server", "<i>x</i>"});
    EXPECT_EQ(result.code, 0);
    EXPECT_FALSE(holds(result.err, "replaced"));
    EXPECT_TRUE(pageHolds("\"a<b>\""));
    EXPECT_TRUE(pageHolds("<i>x</i>"));
}

TEST_F(ReportCommand, GroupsAreLookedUpByTheOriginalNameAndCleanedThemselves) {
    interaction(header + "03/07/2021 10:00:00;CLINIC\\anna;WS1;E\n03/07/2021 10:00:00;__proto__;WS1;E\n");
    const std::string groups = folder_.write("groups.txt", "CLINIC\\anna;r<d\n__proto__;xLabel\n");
    const ProgramResult result = report("usage", {"--groups", groups});
    EXPECT_TRUE(pageHolds("[\"r\u2039\u2060d\",\"xLabel\u2060\"]")) << result.err;
    EXPECT_TRUE(holds(result.err, "2 in the group names"));
}

TEST_F(ReportCommand, SwappedLogsAreNoticed) {
    interaction(header + "03/07/2021 10:00:00;anna;WS1;ConstancyLuxMeter;412;2;;;;;;\n");
    audit("");
    const ProgramResult result = report("teleradiology");
    EXPECT_EQ(result.code, 0);
    EXPECT_TRUE(holds(result.err, "look swapped"));
}

TEST_F(ReportCommand, TeleradiologyNeedsAReadableInteractionLog) {
    interaction("");
    audit(header + "07/07/2021 10:00:00;anna;WS1;ConstancyLuxMeter;412;2;;;;;;\n");
    EXPECT_EQ(report("teleradiology").code, 0);
    EXPECT_TRUE(holds(page("teleradiology"), "\"Lux\":\"412\""));
    interaction_ = folder_ / "missing";
    EXPECT_EQ(report("teleradiology").code, 66);
}

TEST_F(ReportCommand, AnOutputFolderThatCannotBeIs73) {
    folder_.write("file", "");
    const ProgramResult result = test::run({program, "report", "usage", "--interaction", interaction_,
                                            "--audit", audit_, "--out", folder_ / "file/out"});
    EXPECT_EQ(result.code, 73) << result.err;
    EXPECT_TRUE(holds(result.err, "file/out"));
}

TEST_F(ReportCommand, APageThatCannotBeWrittenWholeIsNeverCalledDone) {
    EXPECT_EQ(report("usage", {"--server", "older"}).code, 0);
    const std::string older = page();
    // No file may grow beyond 4 KiB: the page's first bytes find room, its end does not.
    const ProgramResult result =
        test::run({"/bin/sh", "-c", "trap '' XFSZ; ulimit -f 8; exec \"$@\"", "sh", program, "report",
                   "usage", "--interaction", interaction_, "--audit", audit_, "--out", out()});
    EXPECT_EQ(result.code, 74) << result.err;
    EXPECT_TRUE(holds(result.err, "usage_report.html: ")) << result.err;
    EXPECT_EQ(page(), older);
    EXPECT_EQ(
        std::distance(std::filesystem::directory_iterator(out()), std::filesystem::directory_iterator()), 4);
}

TEST_F(ReportCommand, OlderResultsAreReplacedWhole) {
    EXPECT_EQ(report("usage", {"--server", "older"}).code, 0);
    EXPECT_EQ(report("usage", {"--server", "newer"}).code, 0);
    EXPECT_TRUE(pageHolds("newer"));
    EXPECT_FALSE(pageHolds("older"));
}

TEST_F(ReportCommand, UsageErrorsAre64) {
    EXPECT_EQ(test::run({program, "report"}).code, 64);
    EXPECT_EQ(test::run({program, "report", "usag"}).code, 64);
    EXPECT_EQ(test::run({program, "report", "usage"}).code, 64);
    EXPECT_EQ(report("usage", {"--from", "yesterday"}).code, 64);
}

}  // namespace
}  // namespace qel::programs
