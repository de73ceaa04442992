#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "common/EventLine.h"
#include "common/Times.h"
#include "qelCore/String.h"
#include "support/Program.h"
#include "support/TemporaryFolder.h"

namespace qel::programs {
namespace {

test::ProgramResult simulate(const std::string& out, const std::string& seed = "3") {
    return test::run({QEL_PROGRAMS_DIR "/qel-audit", "simulate", "--users", "12", "--workstations", "5",
                      "--days", "40", "--seed", seed, "--from", "2026-03-01", "--out", out});
}

/// All files below a folder with their content.
std::map<std::string, std::string> contentOf(const std::string& folder) {
    std::map<std::string, std::string> content;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
            content[std::filesystem::relative(entry.path(), folder).string()] =
                test::TemporaryFolder::read(entry.path().string());
    return content;
}

class SimulateTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        folder_ = new test::TemporaryFolder;
        result_ = simulate(*folder_ / "site");
        content_ = contentOf(*folder_ / "site");
    }
    static void TearDownTestSuite() { delete folder_; }

    static std::vector<std::string> identities() {
        std::vector<std::string> lines;
        std::istringstream text(content_["identities.txt"]);
        for (std::string line; std::getline(text, line);)
            lines.push_back(line);
        return lines;
    }

    inline static test::TemporaryFolder* folder_ = nullptr;
    inline static test::ProgramResult result_;
    inline static std::map<std::string, std::string> content_;
};

TEST_F(SimulateTest, EveryIdentityHasItsFolderWithBothLogs) {
    ASSERT_EQ(result_.code, 0) << result_.err;
    ASSERT_GE(identities().size(), 12u);
    std::set<std::string> expected{"identities.txt", "groups.txt"};
    for (const std::string& line : identities()) {
        const std::size_t separator = line.find(';');
        ASSERT_NE(separator, std::string::npos) << line;
        const std::string folder = line.substr(0, separator) + '@' + line.substr(separator + 1);
        expected.insert(folder + "/interaction.jsonl");
        expected.insert(folder + "/audit.jsonl");
    }
    std::set<std::string> found;
    for (const auto& [name, text] : content_)
        found.insert(name);
    EXPECT_EQ(found, expected);
}

TEST_F(SimulateTest, WeblinkRecipientsAreAmongTheIdentities) {
    int guests = 0;
    for (const std::string& line : identities())
        guests += line.rfind("invite-", 0) == 0;
    EXPECT_GE(guests, 1);
}

TEST_F(SimulateTest, EveryLineIsAReplayLineInOrderOfTimeWithinTheDays) {
    TimeSpan first;
    TimeSpan last;
    std::string error;
    parseTime("2026-03-01", first, error);
    parseTime("2026-04-09", last, error);
    Item event;
    for (const auto& [name, text] : content_) {
        if (name.find(".jsonl") == std::string::npos)
            continue;
        std::istringstream lines(text);
        std::int64_t before = first.first;
        for (std::string line; std::getline(lines, line);) {
            const std::int64_t time = readReplayLine(line, event);
            EXPECT_GE(time, before) << name << ": " << line;
            EXPECT_LE(time, last.last) << name << ": " << line;
            before = time;
        }
    }
}

TEST_F(SimulateTest, EveryEventThatAReportReadsOccurs) {
    std::map<std::string, int> counts;
    Item event;
    for (const auto& [name, text] : content_) {
        if (name.find(".jsonl") == std::string::npos)
            continue;
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            readReplayLine(line, event);
            String word;
            event.decodeElementAsString(word);
            ++counts[(name.find("interaction") != std::string::npos ? "interaction " : "audit ") +
                     word.str()];
        }
    }
    for (const char* needed :
         {"interaction SeriesOpened", "interaction ViewPreviousSeries", "interaction ViewNextSeries",
          "interaction ApplicationPacsSearch", "interaction QRRetrieve", "interaction ChatSendMessage",
          "interaction PDConfirmDone", "interaction PDReviewAssignPhotos", "interaction PDReviewOpenView",
          "interaction PDTaggingUsed", "audit DataAccess", "audit DataShare", "audit DailyConstancyCheck",
          "audit ConstancyLuxMeter", "audit ConstancySpeedTest"})
        EXPECT_GT(counts[needed], 0) << needed;
    // Reading is the work; sharing and documentation happen beside it.
    EXPECT_GT(counts["audit DataAccess"], 10 * counts["audit DataShare"]);
    EXPECT_GT(counts["interaction ViewNextSeries"], counts["interaction ViewPreviousSeries"]);
}

TEST_F(SimulateTest, WeekendsAreQuieterThanWeekdays) {
    std::size_t sundays = 0;
    std::size_t mondays = 0;
    for (const auto& [name, text] : content_) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            sundays += line.find("2026-03-08T") != std::string::npos;
            mondays += line.find("2026-03-09T") != std::string::npos;
        }
    }
    EXPECT_GT(mondays, 3 * sundays);
}

TEST_F(SimulateTest, SameSeedMakesTheSameSiteAndAnotherSeedAnother) {
    ASSERT_EQ(simulate(*folder_ / "again").code, 0);
    EXPECT_EQ(contentOf(*folder_ / "again"), content_);
    ASSERT_EQ(simulate(*folder_ / "other", "4").code, 0);
    EXPECT_NE(contentOf(*folder_ / "other"), content_);
}

TEST_F(SimulateTest, FolderThatCannotBeMadeIsReported) {
    const std::string file = folder_->write("occupied", "");
    const test::ProgramResult result = simulate(file);
    EXPECT_EQ(result.code, 73);
    EXPECT_NE(result.err.find(file), std::string::npos) << result.err;
}

}  // namespace
}  // namespace qel::programs
