#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "auditing/AuditExport.h"
#include "qelCore/RpcProvider.h"
#include "qelCore/logging/CaptureSink.h"
#include "support/AuditStore.h"
#include "support/TestRpcContext.h"

namespace qel {
namespace {

using test::AuditStore;
using test::event;
using test::TestRpcContext;

constexpr long long start = 1614949509000000;
constexpr long long end = start + 10;

std::string dataLines(const std::string& file) {
    const std::string text = test::TemporaryFolder::read(file);
    return text.substr(text.find('\n') + 1);
}

/// Arguments and filters of calls.
template <class... Numbers>
Item numbers(Numbers... values) {
    Item made;
    (made.addInteger(values), ...);
    return made;
}
Item downloadArguments(const Item& filter) {
    Item made = event("/home/anna");
    made.addItem(filter);
    return made;
}
Item downloadArguments(const Item& filter, bool both) {
    Item made = downloadArguments(filter);
    made.addBool(both);
    return made;
}

class RemoteCallsTest : public ::testing::Test {
  protected:
    RemoteCallsTest() {
        store_.putCentral(trail_, start, 1, event("u", "d", "InTrail"));
        store_.putCentral(trail_, end, 1, event("u", "d", "InTrailAtEnd"));
        store_.putCentral(interaction_, start, 1, event("u", "d", "InInteraction"));
        AuditExport::registerRpcCalls(&provider_, trail_, interaction_);
    }

    void call(TestRpcContext& context) { provider_.find(context.getName())->handler(context); }

    AuditStore store_;
    Item trail_ = test::path("trail");
    Item interaction_ = test::path("interaction");
    RpcProvider provider_;
    logging::CaptureSink log_;
};

TEST_F(RemoteCallsTest, CallsAreOfferedWithTheirPublishedTexts) {
    const auto download = provider_.find("download_audit_report");
    ASSERT_TRUE(download);
    EXPECT_EQ(download->group, "Auditing");
    EXPECT_EQ(download->signature, "(String clientTargetPath, Array filter) : Bool success");
    const std::string blanks21(21, ' ');
    const std::string blanks23(23, ' ');
    EXPECT_EQ(
        download->description.str(),
        "Download event log as cvs.\n\n" + blanks21 +
            "@param filter - item containing the following parameters:\n\n" + blanks23 +
            "filter[0]: UTCDateTime startTime\n\n" + blanks23 + "filter[1]: UTCDateTime endTime\n\n" +
            blanks23 + "filter[2]: Int logType - 0 = audit trail, else = interaction\n\n" + blanks23 +
            "filter[3]: Bool exportBoth - default = false; logType will be ignored and both exported\n" +
            blanks21);
    const auto lines = provider_.find("get_audit_log");
    ASSERT_TRUE(lines);
    EXPECT_EQ(lines->group, "Auditing");
    EXPECT_EQ(lines->signature,
              "(Int logType, UTCDateTime startTimeInclusive, UTCDateTime endTimeExclusive) : Array logLines");
    EXPECT_EQ(lines->description, "Get audit report as array of log lines.");
    EXPECT_EQ(provider_.groupName, nullptr);
}

TEST_F(RemoteCallsTest, HandlersHoldTheirOwnCopiesOfThePaths) {
    RpcProvider provider;
    {
        Item trail = test::path("trail");
        AuditExport::registerRpcCalls(&provider, trail, interaction_);
        trail = test::path("elsewhere");
    }
    TestRpcContext context("get_audit_log", numbers(0, start, end));
    provider.find("get_audit_log")->handler(context);
    EXPECT_EQ(test::items(test::items(context.results().at(0)).at(0)).size(), 1U);
}

TEST_F(RemoteCallsTest, DownloadOfTheInteractionLogArrivesAsConstancyExport) {
    TestRpcContext context("download_audit_report", downloadArguments(numbers(1, start, end)));
    call(context);
    ASSERT_EQ(context.files().size(), 1U);
    EXPECT_EQ(context.modes(), (std::vector<int>{2}));
    EXPECT_EQ(context.files()[0].first, "/home/anna/constancy_export.csv");
    EXPECT_NE(context.files()[0].second.view().find("tembra_audit_report"), std::string::npos);
    EXPECT_NE(dataLines(context.files()[0].second.str()).find(";InInteraction;"), std::string::npos);
}

TEST_F(RemoteCallsTest, DownloadOfTheAuditTrailIncludesItsEnd) {
    TestRpcContext context("download_audit_report", downloadArguments(numbers(0, start, end)));
    call(context);
    ASSERT_EQ(context.files().size(), 1U);
    EXPECT_EQ(context.files()[0].first, "/home/anna/audit_export.csv");
    EXPECT_NE(dataLines(context.files()[0].second.str()).find(";InTrailAtEnd;"), std::string::npos);
}

TEST_F(RemoteCallsTest, AnyOtherLogTypeIsTheInteractionLog) {
    for (const int logType : {2, -1, 77}) {
        TestRpcContext context("download_audit_report", downloadArguments(numbers(logType, start, end)));
        call(context);
        EXPECT_EQ(context.files().at(0).first, "/home/anna/constancy_export.csv");
    }
}

TEST_F(RemoteCallsTest, BothLogsAreSentAuditTrailFirstWhateverTheLogType) {
    for (const int logType : {0, 1}) {
        TestRpcContext context("download_audit_report",
                               downloadArguments(numbers(logType, start, end), true));
        call(context);
        ASSERT_EQ(context.files().size(), 2U);
        EXPECT_EQ(context.files()[0].first, "/home/anna/audit_export.csv");
        EXPECT_EQ(context.files()[1].first, "/home/anna/constancy_export.csv");
        EXPECT_TRUE(context.files()[0].second.view().ends_with("tembra_audit_report/audit_export.csv"));
        EXPECT_TRUE(context.files()[1].second.view().ends_with("tembra_audit_report/constancy_export.csv"));
        EXPECT_NE(dataLines(context.files()[0].second.str()).find(";InTrail;"), std::string::npos);
        EXPECT_NE(dataLines(context.files()[1].second.str()).find(";InInteraction;"), std::string::npos);
    }
}

TEST_F(RemoteCallsTest, ThirdArgumentOfAnotherTypeMeansOneLog) {
    Item arguments = downloadArguments(numbers(0, start, end));
    arguments.addInteger(1);
    TestRpcContext context("download_audit_report", arguments);
    call(context);
    EXPECT_EQ(context.files().size(), 1U);
}

// Each of the three decodes may be the one that fails.
TEST_F(RemoteCallsTest, FilterOfTwoElementsOrLessIsLoggedAndLeavesTheCallOpen) {
    for (const Item& filter : {numbers(start, end), numbers(0, start), numbers(10, 20), numbers(0), Item()}) {
        log_.clear();
        TestRpcContext context("download_audit_report", downloadArguments(filter));
        call(context);
        EXPECT_EQ(log_.texts(logging::levelError),
                  (std::vector<std::string>{"invalid parameters for audit export"}));
        EXPECT_FALSE(context.isFinished());
        EXPECT_TRUE(context.files().empty());
        EXPECT_EQ(context.handlers(), 0U);
    }
}

TEST_F(RemoteCallsTest, LogTypeBeyond32BitsIsAnInvalidFilter) {
    TestRpcContext context("download_audit_report", downloadArguments(numbers(1LL << 32, start, end)));
    call(context);
    EXPECT_TRUE(log_.contains("invalid parameters for audit export"));
    EXPECT_FALSE(context.isFinished());
}

TEST_F(RemoteCallsTest, MissingPathOrFilterIsNotEvenLogged) {
    Item noPath;
    noPath.addInteger(1);
    noPath.addItem(numbers(0, start, end));
    for (const Item& arguments : {Item(), event("/home/anna"), noPath}) {
        TestRpcContext context("download_audit_report", arguments);
        call(context);
        EXPECT_FALSE(context.isFinished());
        EXPECT_EQ(context.handlers(), 0U);
    }
    EXPECT_TRUE(log_.entries().empty());
}

TEST_F(RemoteCallsTest, DownloadStaysOpenUntilItsTransferEnds) {
    TestRpcContext context("download_audit_report", downloadArguments(numbers(0, start, end)));
    call(context);
    EXPECT_TRUE(context.event());
    EXPECT_TRUE(context.event());
    EXPECT_FALSE(context.isFinished());
    context.endTransfer(0, "done");
    EXPECT_FALSE(context.event());
    ASSERT_EQ(context.results().size(), 1U);
    Item success;
    success.addBool(true);
    EXPECT_EQ(context.results()[0], success);
    EXPECT_EQ(context.results()[0].data()[0], 14);
    EXPECT_EQ(context.results()[0].size(), 1U);
}

TEST_F(RemoteCallsTest, NothingIsExportedForACallerWhoHasGone) {
    TestRpcContext context("download_audit_report", downloadArguments(numbers(0, start, end), true));
    context.endTransfer(5, "the connection was lost");
    call(context);
    for (const auto& file : context.files())
        EXPECT_FALSE(std::filesystem::exists(file.second.str())) << file.second.str();
    EXPECT_FALSE(context.event());
    EXPECT_EQ(context.results().size(), 1U);
}

TEST_F(RemoteCallsTest, DownloadIsFinishedBeforeItsLineIsLogged) {
    TestRpcContext context("download_audit_report", downloadArguments(numbers(0, start, end)));
    call(context);
    context.linesNow = [this] { return log_.texts(); };
    context.endTransfer(0, "done");
    context.event();
    const std::string line =
        "[RPC:download_audit_report] Download of audit report finished, code=0, status=done";
    EXPECT_EQ(std::count(context.linesAtResult.begin(), context.linesAtResult.end(), line), 0);
    EXPECT_EQ(log_.texts(logging::levelInformation).back(), line);
}

TEST_F(RemoteCallsTest, FailedTransferFinishesWithoutResultAndIsLoggedAsInformation) {
    TestRpcContext context("download_audit_report", downloadArguments(numbers(0, start, end)));
    call(context);
    context.endTransfer(7, "connection lost");
    EXPECT_FALSE(context.event());
    ASSERT_EQ(context.results().size(), 1U);
    EXPECT_TRUE(context.results()[0].isEmpty());
    EXPECT_EQ(
        log_.texts(logging::levelInformation).back(),
        "[RPC:download_audit_report] Download of audit report finished, code=7, status=connection lost");
    EXPECT_TRUE(log_.texts(logging::levelError).empty());
}

TEST_F(RemoteCallsTest, LinesAreOneElementOfTheResultAndExcludeTheirEnd) {
    TestRpcContext context("get_audit_log", numbers(0, start, end));
    call(context);
    ASSERT_EQ(context.results().size(), 1U);
    Item expected;
    expected.addItem(AuditExport::getLines(trail_, start, end));
    EXPECT_EQ(context.results()[0], expected);
    const std::vector<Item> lines = test::items(test::items(context.results()[0]).at(0));
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(test::texts(lines[0]).back(), "InTrail");
}

TEST_F(RemoteCallsTest, LogTypeOneIsTheInteractionLog) {
    TestRpcContext context("get_audit_log", numbers(1, start, end));
    call(context);
    const std::vector<Item> lines = test::items(test::items(context.results().at(0)).at(0));
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(test::texts(lines[0]).back(), "InInteraction");
}

TEST_F(RemoteCallsTest, LinesOfAnyOtherLogTypeAreRefusedWithAnEmptyResult) {
    for (const int logType : {2, -1}) {
        log_.clear();
        TestRpcContext context("get_audit_log", numbers(logType, start, end));
        call(context);
        EXPECT_EQ(log_.texts(logging::levelError),
                  (std::vector<std::string>{"[RPC:get_audit_log] invalid arguments"}));
        ASSERT_EQ(context.results().size(), 1U);
        EXPECT_TRUE(context.results()[0].isEmpty());
    }
}

TEST_F(RemoteCallsTest, LinesWithoutAllThreeNumbersAreRefused) {
    for (const Item& arguments : {Item(), numbers(0), numbers(0, start), event("0", "1", "2")}) {
        TestRpcContext context("get_audit_log", arguments);
        call(context);
        ASSERT_EQ(context.results().size(), 1U);
        EXPECT_TRUE(context.results()[0].isEmpty());
    }
    EXPECT_EQ(log_.count("[RPC:get_audit_log] invalid arguments"), 4);
}

TEST_F(RemoteCallsTest, EntryAtTheEndIsInTheFileAndNotInTheLines) {
    TestRpcContext download("download_audit_report", downloadArguments(numbers(0, end, end)));
    call(download);
    EXPECT_NE(dataLines(download.files().at(0).second.str()).find(";InTrailAtEnd;"), std::string::npos);
    TestRpcContext lines("get_audit_log", numbers(0, end, end));
    call(lines);
    EXPECT_TRUE(test::items(lines.results().at(0)).at(0).isEmpty());
}

}  // namespace
}  // namespace qel
