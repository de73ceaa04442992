#include "auditing/AuditExport.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/fsuid.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "export/CsvFile.h"
#include "export/LogRange.h"
#include "qelCore/ItemStore.h"
#include "qelCore/logging/CaptureSink.h"
#include "support/AuditStore.h"
#include "support/TemporaryFolder.h"

namespace qel {
namespace {

using test::AuditStore;
using test::event;
using test::TemporaryFolder;

const std::string header = "Time;User;Device;Event;Param0;Param1;Param2;Param3;Param4;Param5;Param6;Param7\n";

// 2021-03-05T13:05:09Z, 14:05:09 in Germany.
constexpr long long march = 1614949509000000;
constexpr long long earliest = std::numeric_limits<long long>::min();
constexpr long long latest = std::numeric_limits<long long>::max();

/// Files of this process may not grow beyond while it lives.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) : handler_(signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit{bytes, before_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &before_);
        signal(SIGXFSZ, handler_);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

  private:
    void (*handler_)(int);
    rlimit before_{};
};

class AuditExportTest : public ::testing::Test {
  protected:
    void record(long long time, const Item& value, unsigned origin = 7) {
        store_.putCentral(log_, time, origin, value);
    }

    std::string exported(long long from, long long to) {
        AuditExport::exportCSV(file().c_str(), log_, from, to);
        return TemporaryFolder::read(file());
    }

    /// The first field behind the time of each line that the export writes.
    std::string users(long long from, long long to) {
        std::string found;
        std::istringstream lines(exported(from, to).substr(header.size()));
        for (std::string line; std::getline(lines, line);)
            found += line.substr(line.find(';') + 1, line.find(';', line.find(';') + 1) - line.find(';') - 1);
        return found;
    }

    /// The same of the lines that getLines returns.
    std::string lineUsers(long long from, long long to) {
        std::string found;
        for (const Item& line : test::items(AuditExport::getLines(log_, from, to)))
            found += test::texts(line).at(1);
        return found;
    }

    std::string file() const { return folder_ / "log.csv"; }

    TemporaryFolder folder_;
    AuditStore store_;
    Item log_ = test::path("central");
};

TEST_F(AuditExportTest, LineHoldsGermanTimeThenElementsFilledUpToEleven) {
    record(march, event("anna", "viewer 1", "SeriesOpened"));
    EXPECT_EQ(exported(march, march), header + "03/05/2021 14:05:09;anna;viewer 1;SeriesOpened;;;;;;;;\n");
}

TEST_F(AuditExportTest, ValueOfThreeElementsEndsInEightSemicolons) {
    record(march, event("a", "b", "c"));
    const std::string text = exported(march, march);
    EXPECT_TRUE(text.ends_with(";c;;;;;;;;\n"));
    EXPECT_FALSE(text.ends_with(";;;;;;;;;\n"));
}

TEST_F(AuditExportTest, ValueOfTwelveElementsIsWrittenWhole) {
    record(march, event("1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12"));
    EXPECT_TRUE(exported(march, march).ends_with(";1;2;3;4;5;6;7;8;9;10;11;12\n"));
}

TEST_F(AuditExportTest, ValueOfElevenElementsGetsNoFurtherSemicolon) {
    record(march, event("1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11"));
    EXPECT_TRUE(exported(march, march).ends_with(";10;11\n"));
}

TEST_F(AuditExportTest, SemicolonsAndLineBreaksAreWrittenRaw) {
    record(march, event("a;b", "c\nd", "\"e\""));
    EXPECT_TRUE(exported(march, march).ends_with(" 14:05:09;a;b;c\nd;\"e\";;;;;;;;\n"));
}

TEST_F(AuditExportTest, IntegersAreDecimalAndBooleansOneOrZero) {
    Item value = event("u", "d", "e");
    value.addInteger(-12345678901234);
    value.addBool(true);
    value.addBool(false);
    record(march, value);
    EXPECT_TRUE(exported(march, march).ends_with(";e;-12345678901234;1;0;;;;;\n"));
}

TEST_F(AuditExportTest, SummerTimeIsTwoHoursAheadOfUtc) {
    record(1625140800000000, event("a", "b", "c"));  // 2021-07-01T12:00:00Z
    EXPECT_TRUE(exported(earliest, latest).starts_with(header + "07/01/2021 14:00:00;a;"));
}

TEST_F(AuditExportTest, LinesComeInTheOrderOfTheirTimesThenOrigins) {
    record(30, event("d", "", ""));
    record(20, event("c", "", ""), 9);
    record(20, event("b", "", ""), 4);
    record(10, event("a", "", ""));
    EXPECT_EQ(users(10, 30), "abcd");
    EXPECT_EQ(lineUsers(10, 31), "abcd");
}

TEST_F(AuditExportTest, StartAfterEndGivesTheHeaderOnly) {
    record(10, event("a", "", ""));
    EXPECT_EQ(exported(11, 9), header);
    EXPECT_EQ(exported(10, 9), header);
    EXPECT_EQ(exported(latest, earliest), header);
    EXPECT_TRUE(AuditExport::getLines(log_, 11, 9).isEmpty());
    EXPECT_TRUE(AuditExport::getLines(log_, 10, 9).isEmpty());
    EXPECT_TRUE(AuditExport::getLines(log_, 10, earliest).isEmpty());
    EXPECT_TRUE(AuditExport::getLines(log_, latest, earliest).isEmpty());
}

TEST_F(AuditExportTest, EndIsIncludedInTheFileAndExcludedFromTheLines) {
    record(10, event("a", "", ""), 0);
    record(10, event("b", "", ""), 4294967295U);
    record(20, event("c", "", ""), 0);
    record(20, event("d", "", ""), 4294967295U);
    EXPECT_EQ(users(10, 20), "abcd");
    EXPECT_EQ(lineUsers(10, 20), "ab");
    EXPECT_EQ(users(11, 19), "");
    EXPECT_EQ(users(20, 20), "cd");
    EXPECT_EQ(lineUsers(20, 20), "");
    EXPECT_EQ(lineUsers(20, 21), "cd");
}

TEST_F(AuditExportTest, BoundsAtTheEndsOfTimeReachTheFirstAndLastEntry) {
    record(earliest, event("a", "", ""), 0);
    record(0, event("b", "", ""));
    record(latest, event("c", "", ""), 4294967295U);
    EXPECT_EQ(users(earliest, latest), "abc");
    EXPECT_EQ(lineUsers(earliest, latest), "ab");
    EXPECT_EQ(users(earliest, earliest), "a");
    EXPECT_EQ(users(latest, latest), "c");
}

TEST_F(AuditExportTest, NeighbouringLogsStayOut) {
    store_.putCentral(test::path("centra"), 10, 1, event("x", "", ""));
    store_.putCentral(test::path("central2"), 10, 1, event("y", "", ""));
    store_.put(log_, 10, event("queued", "", ""));
    record(10, event("a", "", ""));
    EXPECT_EQ(users(earliest, latest), "a");
    EXPECT_EQ(lineUsers(earliest, latest), "a");
}

TEST_F(AuditExportTest, ExistingFileIsReplaced) {
    folder_.write("log.csv", std::string(10000, 'x'));
    EXPECT_EQ(exported(1, 2), header);
}

TEST_F(AuditExportTest, OfAnEmptyLogPathTheFileHoldsWhatLiesThereAndTheLinesNothing) {
    record(10, event("a", "", ""));
    log_ = Item();
    EXPECT_EQ(exported(earliest, latest), header) << "what lies deeper belongs to others";
    EXPECT_EQ(AuditExport::countLines(log_, earliest, latest), 0U);
    record(20, event("b", "", ""));
    record(21, event("c", "", ""));
    EXPECT_EQ(users(20, 20), "b");
    EXPECT_EQ(users(earliest, latest), "bc");
    EXPECT_EQ(AuditExport::countLines(log_, earliest, latest), 2U);
    EXPECT_TRUE(AuditExport::getLines(log_, earliest, latest).isEmpty());
}

TEST_F(AuditExportTest, FileThatCannotBeOpenedIsNotNoticed) {
    record(10, event("a", "", ""));
    logging::CaptureSink log;
    const std::string missing = folder_ / "missing/log.csv";
    EXPECT_NO_THROW(AuditExport::exportCSV(missing.c_str(), log_, earliest, latest));
    EXPECT_NO_THROW(AuditExport::exportCSV(folder_.path().c_str(), log_, earliest, latest));
    EXPECT_EQ(log.texts(logging::levelInformation).front(), "Starting export to " + missing);
    EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST_F(AuditExportTest, ExportThatNobodyWaitsForIsGivenUpAndLeavesNoFile) {
    WriteBatch batch;
    for (long long time = 0; time < 10000; ++time)
        record(time, event("a", "", ""));
    batch.commit();
    int asked = 0;
    writeCsvFile(file().c_str(), log_, earliest, latest, [&] { return ++asked < 3; });
    EXPECT_EQ(asked, 3);
    EXPECT_FALSE(std::filesystem::exists(file()));
    asked = -10;
    writeCsvFile(file().c_str(), log_, earliest, latest, [&] { return ++asked < 3; });
    EXPECT_EQ(TemporaryFolder::read(file()), exported(earliest, latest));
}

TEST_F(AuditExportTest, FullDiskIsLoggedAndTheCallerIsNotTold) {
    record(10, event("a", "", ""));
    logging::CaptureSink log;
    EXPECT_NO_THROW(AuditExport::exportCSV("/dev/full", log_, earliest, latest));
    EXPECT_EQ(log.texts(logging::levelError).back(),
              "The export to /dev/full was given up: No space left on device");
}

// It could be removed: that is a right to the folder.
TEST_F(AuditExportTest, FileThatCouldNotEvenBeOpenedStays) {
    namespace fs = std::filesystem;
    record(10, event("a", "", ""));
    std::ofstream(file()) << "somebody's";
    fs::permissions(file(), fs::perms::owner_read | fs::perms::others_read);
    fs::permissions(folder_.path(), fs::perms::all);
    logging::CaptureSink log;
    // Root may open everything: this thread opens it as nobody then.
    constexpr uid_t nobody = 65534;
    const int before = setfsuid(nobody);
    AuditExport::exportCSV(file().c_str(), log_, earliest, latest);
    setfsuid(static_cast<uid_t>(before));
    EXPECT_EQ(TemporaryFolder::read(file()), "somebody's");
    EXPECT_TRUE(log.contains("was given up: Permission denied"));
}

TEST_F(AuditExportTest, FileThatCouldNotBeWrittenToItsEndIsRemoved) {
    WriteBatch batch;
    for (long long time = 0; time < 1000; ++time)
        record(time, event("a", "", ""));
    batch.commit();
    logging::CaptureSink log;
    const FileSizeLimit limit(4096);
    AuditExport::exportCSV(file().c_str(), log_, earliest, latest);
    EXPECT_FALSE(std::filesystem::exists(file()));
    EXPECT_TRUE(log.contains("was given up: File too large"));
}

TEST_F(AuditExportTest, LinesOfAnyLengthComeInTheirOrder) {
    std::string expected = header;
    WriteBatch batch;
    for (long long time = 0; time < 1000; ++time) {
        const std::string user(time % 100 == 50 ? 40000 : 20, static_cast<char>('a' + time % 26));
        record(march + time * 1000000, event(user, "", ""));
        expected += user + '\n';
    }
    batch.commit();
    std::string found = header;
    std::istringstream lines(exported(earliest, latest).substr(header.size()));
    for (std::string line; std::getline(lines, line);)
        found += line.substr(20, line.find(';', 20) - 20) + '\n';
    EXPECT_EQ(found, expected);
}

TEST_F(AuditExportTest, EntryWithoutValueIsALineInTheFileAndNoneInTheLines) {
    // Such a place exists only through what lies below it.
    Item below = test::centralKey(log_, march, 3);
    below.addString("below");
    below.store(event("deeper"));
    EXPECT_EQ(exported(earliest, latest), header + "03/05/2021 14:05:09;;;;;;;;;;;\n");
    EXPECT_TRUE(AuditExport::getLines(log_, earliest, latest).isEmpty());
}

TEST_F(AuditExportTest, LineHoldsItsKeyThenItsValueWithTheTimeAsInteger) {
    record(march, event("anna", "viewer", "E"), 4294967295U);
    const std::vector<Item> lines = test::items(AuditExport::getLines(log_, march, march + 1));
    ASSERT_EQ(lines.size(), 1U);
    Item key;
    key.addInteger(march);
    key.addInteger(4294967295);
    Item expected;
    expected.addItem(key);
    expected.concatItem(event("anna", "viewer", "E"));
    EXPECT_EQ(lines[0], expected);
}

TEST_F(AuditExportTest, ManyEntriesAreExportedEachOnceInOrder) {
    for (int i = 0; i < 20000; ++i)
        record(1000 + i, event(std::to_string(i), "d", "e"));
    store_.flush();
    std::istringstream lines(exported(1000, 30000));
    std::string line;
    std::getline(lines, line);
    int count = 0;
    while (std::getline(lines, line)) {
        ASSERT_NE(line.find(";" + std::to_string(count) + ";d;e;"), std::string::npos) << line;
        ++count;
    }
    EXPECT_EQ(count, 20000);
}

TEST_F(AuditExportTest, LineOfGetLinesBecomesTheTextOfTheFile) {
    Item value = event("anna", "pc", "E", "a;b");
    value.addInteger(5);
    record(march, value);
    record(march + 1, event("u", "d", "e", "1", "2", "3", "4", "5", "6", "7", "8", "9"));
    std::string text = std::string(AuditExport::csvHeader()) + "\n";
    for (const Item& line : test::items(AuditExport::getLines(log_, earliest, latest)))
        AuditExport::appendCsvLine(text, line);
    EXPECT_EQ(text, exported(earliest, latest));
}

TEST_F(AuditExportTest, CountIsTheNumberOfLinesOfTheFile) {
    for (int i = 10; i <= 20; ++i)
        record(i, event("a", "b", "c"));
    EXPECT_EQ(AuditExport::countLines(log_, 12, 18), 7U);
    EXPECT_EQ(AuditExport::countLines(log_, 18, 12), 0U);
    EXPECT_EQ(AuditExport::countLines(Item(), earliest, latest), 0U);
}

TEST_F(AuditExportTest, LongWalkPinsNoPartOfAStoreInUse) {
    for (int i = 0; i < 3000; ++i)
        record(i, event("a", "b", "c"));
    store_.flush();
    LogRange range = LogRange::including(log_, 0, 100000);
    int seen = 0;
    while (range.next()) {
        if (++seen % 100 != 0)
            continue;
        test::path("other").store(event(std::to_string(seen)));
        store_.flush();
        test::path("other").fetch();
        EXPECT_LE(store_.store().space().oldestReaderLag, 2U) << "after " << seen << " entries";
    }
    EXPECT_EQ(seen, 3000);
}

TEST(AuditExport, HasItsClassName) {
    EXPECT_STREQ(AuditExport::getStaticClassName(), "AuditExport");
}

}  // namespace
}  // namespace qel
