#include "converter/PlainUsageReport.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "converter/ReportFixture.h"
#include "qelCore/logging/CaptureSink.h"

namespace qel::test {
namespace {

/// The clock stands still, so that two pages made one after the other carry the same date.
class StandingClock : public Clock {
  public:
    UTCDateTime now() override { return 1'600'000'000'000'000; }
};

/// Makes logs of pieces that break rules: names that join to equal keys, dashes at both ends, zero bytes, quotes,
/// template marks, bytes that are no text, dates of every kind.
class Mischief {
  public:
    explicit Mischief(unsigned seed) : random_(seed) {}

    std::string log(bool audit) {
        std::string text = chance(90) ? "Time;User;Device;Event\r\n" : "";
        const int lines = below(300);
        for (int i = 0; i < lines; ++i)
            text += chance(97) ? line(audit) : garbage();
        return text;
    }

    List<String> groups(const std::string& user) {
        Mischief own(static_cast<unsigned>(std::hash<std::string>()(user)));
        List<String> names;
        for (int i = own.below(4); i > 0; --i)
            names.push_back(
                own.pick({"g", "g-1", "a", "No group", "", std::string("g\0x", 3), "a-a", "\"<g>"}));
        return names;
    }

  private:
    int below(int bound) { return std::uniform_int_distribution<int>(0, bound - 1)(random_); }
    bool chance(int percent) { return below(100) < percent; }
    std::string pick(const std::vector<std::string>& choices) {
        return choices[static_cast<std::size_t>(below(static_cast<int>(choices.size())))];
    }

    std::string user() {
        return pick({"a",
                     "a-1",
                     "a-",
                     "a--5",
                     "-",
                     "1",
                     "invite-1",
                     "invite-2",
                     "Weblink",
                     "",
                     "anna",
                     "Anna",
                     "an\xc3\xa4",
                     "\xff\xfe",
                     "\"</script>",
                     "[[[[DATA]]]]",
                     "%s%n",
                     "__proto__",
                     std::string("a\0b", 3),
                     std::string("\0", 1),
                     "a-1-2"});
    }
    std::string identifier() {
        return pick({"1.2.3", "1.2.4", "x", "2-x", "-x", "x-", "-", "--", "", "5-x", "-5-x", "05-x",
                     "2147483648-x", std::string("x\0y", 3),
                     "1.2.840.113619.2.55.3.604688119.969.1268071029.320",
                     "1.2.840.113619.2.55.3.604688119.969.1268071029.321", "3-2021-x", "%d", "\\\""});
    }
    std::string time() {
        return pick({"1", "3", "03", "12", "13", "0"}) + "/" +
               pick({"1", "2", "5", "05", "-5", "-1", "31", "99"}) + "/" +
               pick({"2020", "2021", "2021", "2021", "1899", "2100"}) +
               pick({" 10:00:00", " 1:2", "", "  7", "x"});
    }
    std::string line(bool audit) {
        const std::string event =
            audit
                ? pick({"DataAccess;" + identifier() + ";" + identifier(), "DataAccess;" + identifier(),
                        "DataShare;" + identifier() + ";x;" + pick({"contact", "weblink", "sendto", "AET"})})
                : pick({"SeriesOpened", "ViewNextSeries", "QRRetrieve;" + pick({"Series", "Study", "x"}),
                        "ChatSendMessage;r;" + pick({"Series", "Text", "x"}), "PDConfirmDone",
                        "PDTaggingUsed",
                        "PDReviewAssignPhotos;" + pick({"1", " 7", "x", "-3", "99999", "+2", "\t4", "00012"}),
                        "PDReviewOpenView", "ApplicationPacsSearch", ""});
        return time() + ";" + user() + ";WS;" + event + pick({"", ";", ";;;"}) +
               pick({"\r\n", "\n", " \r\n"});
    }
    std::string garbage() {
        std::string bytes;
        for (int i = below(60); i > 0; --i)
            bytes += static_cast<char>(below(256));
        return bytes + "\n";
    }

    std::mt19937 random_;
};

class PlainReference : public ::testing::Test {
  protected:
    PlainReference() { System::setClock(std::make_shared<StandingClock>()); }
    ~PlainReference() override { System::setClock(nullptr); }

    void expectSamePage(AuditCSVtoHtmlReportConverter& converter, bool details) {
        converter.performUsageReport(folder_.path().c_str(), 1, 2, "server", details);
        EXPECT_EQ(TemporaryFolder::read(folder_ / "usage_report.html"),
                  plainUsagePage(converter, converter, 1, 2, "server", details));
    }

    TemporaryFolder folder_;
    logging::CaptureSink log_;
};

TEST_F(PlainReference, PagesAreTheSameByteForByteOnMischievousLogs) {
    for (unsigned seed = 0; seed < 300 && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        Mischief mischief(seed);
        AuditCSVtoHtmlReportConverter converter;
        converter.connect([&](const String& user) { return mischief.groups(user.str()); });
        const std::string interaction = mischief.log(false);
        converter.setLogs(interaction, mischief.log(true));
        expectSamePage(converter, seed % 2 == 0);
    }
}

TEST_F(PlainReference, PagesAreTheSameWithManyNames) {
    // Enough to make every table of numbers grow several times.
    std::string interaction = "h\n", audit = "h\n";
    for (int i = 0; i < 3000; ++i) {
        const std::string day =
            std::to_string(i % 12 + 1) + "/" + std::to_string(i % 31 + 1) + "/2021 1:1:1;";
        interaction += day + "user" + std::to_string(i * 7919 % 500) + ";W;PDConfirmDone\n";
        audit += day + "user" + std::to_string(i * 7919 % 500) + ";W;DataAccess;1.2." +
                 std::to_string(i % 700) + ";1.3." + std::to_string(i % 1900) + (i % 50 == 0 ? "-x" : "") +
                 "\n";
    }
    AuditCSVtoHtmlReportConverter converter;
    converter.connect([](const String& user) {
        return List<String>{"group" + std::to_string(user.size()), "g-" + user.str().substr(0, 5)};
    });
    converter.setLogs(interaction, audit);
    expectSamePage(converter, true);
}

/// A log whose keys begin to meet only after many that do not.
class LateMeetings : public PlainReference {
  protected:
    void access(const std::string& user, int day, const std::string& identifiers) {
        audit_ += "3/" + std::to_string(day) + "/2021 1:1:1;" + user + ";W;DataAccess;" + identifiers + "\n";
    }
    void manyThatDoNotMeet() {
        for (int i = 0; i < 700; ++i)
            access(i % 3 == 0   ? "a"
                   : i % 3 == 1 ? "a-1"
                                : "c",
                   i % 28 + 1, "s" + std::to_string(i % 40) + ";" + std::to_string(i % 90));
    }
    void expectSamePage() {
        AuditCSVtoHtmlReportConverter converter;
        converter.connect([](const String& user) {
            return user == "c"     ? List<String>{"a-b", "all"}
                   : user == "b-c" ? List<String>{"all", "a"}
                                   : List<String>{"all"};
        });
        converter.setLogs("", audit_);
        PlainReference::expectSamePage(converter, false);
    }

    std::string audit_ = "h\n";
};

TEST_F(LateMeetings, OfIdentifiersWithDashes) {
    manyThatDoNotMeet();
    for (int i = 0; i < 90; ++i) {
        access("a", 1, "1-s" + std::to_string(i) + ";2-" + std::to_string(i));
        access("a-1", 2, "t;" + std::to_string(i));
        access("a", i % 28 + 1, "s" + std::to_string(i) + ";" + std::to_string(i));
    }
    expectSamePage();
}

TEST_F(LateMeetings, OfGroupsAndUsers) {
    manyThatDoNotMeet();
    for (int i = 0; i < 200; ++i)
        access("b-c", i % 28 + 1, "s" + std::to_string(i % 40) + ";" + std::to_string(i % 90));
    manyThatDoNotMeet();
    expectSamePage();
}

TEST_F(LateMeetings, OfNegativeDays) {
    manyThatDoNotMeet();
    access("a-", 5, "s1;1");
    access("a", -5, "s1;1");
    access("a", -1, ";");
    access("a--1-", -1, ";");
    expectSamePage();
}

TEST_F(LateMeetings, WithinOneBatch) {
    for (int i = 0; i < 30; ++i)
        access("a-1", 2, "t;" + std::to_string(i % 7));
    access("a", 1, "t;2-3");
    for (int i = 0; i < 30; ++i)
        access("a-1", 2, "u;" + std::to_string(i % 9));
    access("a", 1, "t;2-8");
    expectSamePage();
}

}  // namespace
}  // namespace qel::test
