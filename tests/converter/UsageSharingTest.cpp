#include "converter/ReportFixture.h"
#include "converter/UsageReport.h"

namespace qel::test {
namespace {

using SharingCharts = ReportTest;

const std::string series = "Series shared per month";
const std::string studies = "Studies shared per month";
const std::string photos = "Assigned photos per photodoc per month";

TEST_F(SharingCharts, OnlyTheLowerCaseTargetWordsCount) {
    for (const char* target : {"contact", "weblink", "sendto", "Weblink", "AET", "Contact", ""})
        audit("3/7/2021", "anna", "DataShare;1.2;x;" + std::string(target));
    report();
    EXPECT_EQ(keys(series), "[\"Contact\",\"Weblink\",\"AET\"]");
    EXPECT_EQ(chart(series), "March 2021: 1 1 1");
    EXPECT_EQ(keys(studies), keys(series));
}

TEST_F(SharingCharts, AShareWithLessThanThreeParametersIsIgnored) {
    audit("3/7/2021", "anna", "DataShare;contact;contact");
    report();
    EXPECT_EQ(chartsShown(), 0);
}

TEST_F(SharingCharts, AStudyCountsOnceAMonthAndTarget) {
    audit("3/7/2021", "anna", "DataShare;1.2;x;contact");
    audit("3/9/2021", "bert", "DataShare;1.2;y;contact");
    report();
    EXPECT_EQ(chart(series), "March 2021: 2 0 0");
    EXPECT_EQ(chart(studies), "March 2021: 1 0 0");
    audit("3/9/2021", "bert", "DataShare;1.2;y;weblink");
    audit("4/9/2021", "bert", "DataShare;1.2;y;weblink");
    report();
    EXPECT_EQ(chart(studies), "March 2021: 1 1 0 | April 2021: 0 1 0");
}

TEST_F(SharingCharts, ChatMessagesAreMessagesOrShares) {
    for (const char* sent : {"Series", "Study", "Audio", "Photo", "Text", "Text", "text", "", "Other"})
        interaction("3/7/2021", "anna", "ChatSendMessage;room;" + std::string(sent));
    interaction("3/7/2021", "anna", "ChatSendMessage;Series");
    interaction("3/7/2021", "anna", "ChatSendMessage");
    report();
    EXPECT_EQ(keys("Chat messages written per month"), "[\"Messages\",\"Shares\"]");
    EXPECT_EQ(chart("Chat messages written per month"), "March 2021: 4 2");
}

TEST_F(SharingCharts, PhotodocsCountPerMonthAndUser) {
    for (const char* user : {"zoe", "anna", "zoe", "invite-1", "invite-2"})
        interaction("3/7/2021", user, "PDConfirmDone");
    report();
    EXPECT_EQ(chart("Photodocs performed per month"), "March 2021: 5");
    EXPECT_EQ(keys("Photodocs performed per user per month"), "[\"zoe\",\"anna\",\"Weblink\"]");
    EXPECT_EQ(chart("Photodocs performed per user per month"), "March 2021: 2 1 2");
}

TEST_F(SharingCharts, AssignedPhotosGrowTheLabelsUpToTheLargestCount) {
    interaction("3/7/2021", "anna", "PDReviewAssignPhotos;3");
    report(true);
    EXPECT_EQ(keys(photos), "[\"0\",\"1\",\"2\",\"3\"]");
    EXPECT_EQ(chart(photos), "March 2021: 0 0 0 1");
    interaction("3/7/2021", "anna", "PDReviewAssignPhotos;0");
    report(true);
    EXPECT_EQ(keys(photos), "[\"0\",\"1\",\"2\",\"3\"]");
    EXPECT_EQ(chart(photos), "March 2021: 1 0 0 1");
}

TEST_F(SharingCharts, PhotoCountsAreReadAsAStreamReadsThem) {
    for (const char* count : {"abc", "", " 2", "010", "+1", "2x", "0x7", "1.9"})
        interaction("3/7/2021", "anna", "PDReviewAssignPhotos;" + std::string(count) + ";");
    interaction("3/7/2021", "anna", "PDReviewAssignPhotos");
    report(true);
    EXPECT_EQ(chart(photos), "March 2021: 3 2 2 0 0 0 0 0 0 0 1");
}

TEST_F(SharingCharts, NegativePhotoCountsAreDropped) {
    interaction("3/7/2021", "anna", "PDReviewAssignPhotos;-1");
    interaction("3/7/2021", "anna", "PDReviewAssignPhotos;-2000000000");
    interaction("3/7/2021", "anna", "PDReviewAssignPhotos;-99999999999");
    report(true);
    EXPECT_FALSE(isShown(photos));
}

TEST_F(SharingCharts, TheLargestPhotoCountTakenIsTenThousand) {
    interaction("3/7/2021", "anna", "PDReviewAssignPhotos;10000");
    for (const char* count : {"10001", "2147483647", "2147483648", "99999999999999999999"})
        interaction("3/7/2021", "anna", "PDReviewAssignPhotos;" + std::string(count));
    report(true);
    EXPECT_EQ(keys(photos).size(),
              std::string("[]").size() + 10000 + 2 * 10001 + 10 + 2 * 90 + 3 * 900 + 4 * 9000 + 5);
    EXPECT_EQ(log_.count("number of assigned photos not counted"), 4);
}

TEST_F(SharingCharts, ManyDroppedPhotoCountsAreSummedUpInOneLine) {
    for (int i = 0; i < 20; ++i)
        interaction("3/7/2021", "anna", "PDReviewAssignPhotos;99999");
    report(true);
    EXPECT_EQ(log_.count("number of assigned photos not counted"), 5);
    EXPECT_EQ(log_.count("numbers of assigned photos not counted in all: 20"), 1);
}

TEST_F(SharingCharts, WithoutDetailsTheDetailEventsLeaveNoTrace) {
    for (const char* event : {"PDReviewAssignPhotos;3", "PDReviewAssignPhotos;99999", "PDReviewOpenView",
                              "PDTaggingUsed", "PDConfirmDone"})
        interaction("3/7/2021", "anna", event);
    report(false);
    EXPECT_FALSE(isShown(photos));
    EXPECT_EQ(log_.count("assigned photos"), 0);
    EXPECT_TRUE(isShown("Photodocs performed per month"));
    report(true);
    EXPECT_EQ(chart("Photodoc tagging used per month"), "March 2021: 1");
    EXPECT_EQ(chart("Photodoc photos viewed per month"), "March 2021: 1");
}

TEST_F(SharingCharts, WithoutDetailsNothingOfThemIsCounted) {
    for (const char* event : {"PDReviewAssignPhotos;3", "PDReviewOpenView", "PDTaggingUsed", "PDConfirmDone"})
        interaction("3/7/2021", "anna", event);
    const std::string text = header + interaction_;
    for (const bool details : {false, true}) {
        UsageCounts counts = countUsage(
            text, "", [](const String&) { return List<String>(); }, details);
        EXPECT_EQ(counts.photoCountTexts.size(), details ? 4U : 0U);
        for (EventByMonth* counter : {&counts.photosAssigned, &counts.taggingUsed, &counts.photosViewed}) {
            counter->generate(1);
            EXPECT_EQ(counter->chartRowLabels().size(), details ? 1U : 0U);
        }
        counts.photodocs.generate(1);
        EXPECT_EQ(counts.photodocs.chartRowLabels().size(), 1U);
    }
}

TEST_F(SharingCharts, MonthsWithoutARowAreAbsentPerChart) {
    interaction("1/7/2021", "anna", "SeriesOpened");
    interaction("3/7/2021", "anna", "SeriesOpened");
    interaction("2/7/2021", "anna", "PDConfirmDone");
    report();
    EXPECT_EQ(chart("Series viewed per month"), "January 2021: 1 | March 2021: 1");
    EXPECT_EQ(chart("Photodocs performed per month"), "February 2021: 1");
}

}  // namespace
}  // namespace qel::test
