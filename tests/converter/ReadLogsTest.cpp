#include <gtest/gtest.h>

#include "converter/ReportFixture.h"
#include "qelCore/Resources.h"

namespace qel::test {
namespace {

using Lines = Vector<String>;

class ReadLogs : public ::testing::Test {
  protected:
    std::string file(const std::string& name, const std::string& text) { return folder_.write(name, text); }

    TemporaryFolder folder_;
    logging::CaptureSink log_;
    AuditCSVtoHtmlReportConverter converter_;
};

TEST_F(ReadLogs, FreshConverterHasNoLinesAndNoGroups) {
    EXPECT_TRUE(converter_.interactionLogLines().empty());
    EXPECT_TRUE(converter_.auditLogLines().empty());
    EXPECT_FALSE(converter_.isConnected());
    EXPECT_STREQ(AuditCSVtoHtmlReportConverter::getStaticClassName(), "AuditCSVtoHtmlReportConverter");
    EXPECT_FALSE(std::is_copy_constructible_v<AuditCSVtoHtmlReportConverter>);
}

TEST_F(ReadLogs, DropsTheFirstLineAndKeepsCarriageReturnsAndTheLastPiece) {
    converter_.readLogs(file("i", "header\r\na;b\r\n\r\n").c_str(), file("a", "x\ny").c_str());
    EXPECT_EQ(converter_.interactionLogLines(), (Lines{"a;b\r", "\r", ""}));
    EXPECT_EQ(converter_.auditLogLines(), Lines{"y"});
}

TEST_F(ReadLogs, AHeaderAloneLeavesAtMostAnEmptyPiece) {
    converter_.readLogs(file("i", "Time;User;Device;Event\r\n").c_str(), file("a", "header").c_str());
    EXPECT_EQ(converter_.interactionLogLines(), Lines{""});
    EXPECT_TRUE(converter_.auditLogLines().empty());
    converter_.readLogs(file("i", "").c_str(), file("a", "").c_str());
    EXPECT_TRUE(converter_.interactionLogLines().empty());
}

TEST_F(ReadLogs, SaysWhereTheLogsCameFrom) {
    const std::string interaction = file("i", ""), audit = file("a", "");
    converter_.readLogs(interaction.c_str(), audit.c_str());
    EXPECT_EQ(log_.texts(1), (std::vector<std::string>{"interaction log loaded from: " + interaction,
                                                       "audit log loaded from: " + audit}));
}

TEST_F(ReadLogs, AMissingInteractionLogChangesNothing) {
    converter_.readLogs(file("i", "h\n1").c_str(), file("a", "h\n2").c_str());
    log_.clear();
    converter_.readLogs((folder_ / "missing").c_str(), file("b", "h\n3").c_str());
    EXPECT_EQ(converter_.interactionLogLines(), Lines{"1"});
    EXPECT_EQ(converter_.auditLogLines(), Lines{"2"});
    EXPECT_EQ(log_.texts(), std::vector<std::string>{"could not load csv file"});
    EXPECT_EQ(log_.texts(3).size(), 1u);
}

TEST_F(ReadLogs, AMissingAuditLogKeepsTheOldAuditLinesWithoutAMessage) {
    converter_.readLogs(file("i", "h\n1").c_str(), file("a", "h\n2").c_str());
    log_.clear();
    const std::string next = file("j", "h\n3");
    converter_.readLogs(next.c_str(), (folder_ / "missing").c_str());
    EXPECT_EQ(converter_.interactionLogLines(), Lines{"3"});
    EXPECT_EQ(converter_.auditLogLines(), Lines{"2"});
    EXPECT_EQ(log_.texts(), std::vector<std::string>{"interaction log loaded from: " + next});
}

TEST_F(ReadLogs, AFolderIsNoLog) {
    converter_.readLogs(folder_.path().c_str(), folder_.path().c_str());
    EXPECT_EQ(log_.texts(3), std::vector<std::string>{"could not load csv file"});
}

TEST_F(ReadLogs, TextsOfTheHostReplaceWhatWasRead) {
    converter_.setLogs("h\n1", "h\n2\n3");
    EXPECT_EQ(converter_.interactionLogLines(), Lines{"1"});
    EXPECT_EQ(converter_.auditLogLines(), (Lines{"2", "3"}));
}

class ResourceFiles : public ReadLogs {
  protected:
    ~ResourceFiles() override { resources::clear(); }
    void offer(const char* name, std::string_view bytes) { resources::set(name, ConstByteSpan(bytes)); }
};

TEST_F(ResourceFiles, AllThreeAppearWithTheirBytesInPlaceOfOlderFiles) {
    offer("tmpl-d3.min.js", "script");
    offer("tmpl-zorvik-icon.png", std::string_view("\x89\0PNG", 5));
    offer("tmpl-zorvik-slogan.png", std::string_view("\x89\0\r\nPNG\0", 8));
    for (const char* name : {"d3.min.js", "zorvik-icon.png", "zorvik-slogan.png"})
        folder_.write(name, "something older and longer");
    converter_.getHTMLRessourceFiles(folder_.path().c_str());
    EXPECT_EQ(TemporaryFolder::read(folder_ / "d3.min.js"), "script");
    EXPECT_EQ(TemporaryFolder::read(folder_ / "zorvik-icon.png"), std::string("\x89\0PNG", 5));
    EXPECT_EQ(TemporaryFolder::read(folder_ / "zorvik-slogan.png"), std::string("\x89\0\r\nPNG\0", 8));
    EXPECT_TRUE(log_.texts().empty());
}

TEST_F(ResourceFiles, AnEmptyOneGivesAnEmptyFile) {
    offer("tmpl-d3.min.js", "");
    folder_.write("d3.min.js", "older");
    converter_.getHTMLRessourceFiles(folder_.path().c_str());
    EXPECT_EQ(std::filesystem::file_size(folder_ / "d3.min.js"), 0U);
}

TEST_F(ResourceFiles, WithNoneThreeMessagesAppearInTheOrderOfTheTable) {
    converter_.getHTMLRessourceFiles(folder_.path().c_str());
    EXPECT_EQ(log_.texts(3), (std::vector<std::string>{"required file not found: tmpl-d3.min.js",
                                                       "required file not found: tmpl-zorvik-icon.png",
                                                       "required file not found: tmpl-zorvik-slogan.png"}));
    EXPECT_TRUE(std::filesystem::is_empty(folder_.path()));
}

TEST_F(ResourceFiles, AMissingOneCostsOnlyItsFile) {
    offer("tmpl-d3.min.js", "script");
    offer("tmpl-zorvik-slogan.png", "slogan");
    converter_.getHTMLRessourceFiles((folder_.path() + "/").c_str());
    EXPECT_TRUE(std::filesystem::exists(folder_ / "d3.min.js"));
    EXPECT_FALSE(std::filesystem::exists(folder_ / "zorvik-icon.png"));
    EXPECT_TRUE(std::filesystem::exists(folder_ / "zorvik-slogan.png"));
}

TEST_F(ResourceFiles, AFailedWriteGoesUnreported) {
    offer("tmpl-d3.min.js", "script");
    offer("tmpl-zorvik-icon.png", "icon");
    offer("tmpl-zorvik-slogan.png", "slogan");
    converter_.getHTMLRessourceFiles((folder_ / "no/such/folder").c_str());
    EXPECT_TRUE(log_.texts().empty());
}

}  // namespace
}  // namespace qel::test
