#include "qelCore/logging/Log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <regex>
#include <set>
#include <thread>
#include <vector>

#include "qelCore/String.h"
#include "qelCore/logging/CaptureSink.h"
#include "qelCore/logging/MessageStream.h"
#include "support/CommaLocale.h"
#include "support/FixedClock.h"
#include "support/TemporaryFolder.h"

namespace qel {
namespace {

using logging::CaptureSink;
using logging::escaped;
using logging::MessageStream;

TEST(MessageStream, LineIsWrittenWhenTheStreamIsDestroyed) {
    CaptureSink log;
    {
        MessageStream stream(3, 2);
        stream << "required file not found: ";
        stream << String("tmpl-d3.min.js");
        EXPECT_TRUE(log.entries().empty());
    }
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_EQ(log.entries()[0].text, "required file not found: tmpl-d3.min.js");
    EXPECT_EQ(log.entries()[0].level, 3);
    EXPECT_EQ(log.entries()[0].channel, 2);
}

TEST(MessageStream, TakesValuesOfEveryKind) {
    CaptureSink log;
    MessageStream(1, 2) << std::string("s") << std::string_view("v") << 'c' << true << false << -1 << 2U
                        << LLONG_MIN << ULLONG_MAX << short{7} << 0.5 << static_cast<const char*>(nullptr);
    EXPECT_EQ(log.texts(),
              std::vector<std::string>{"svctruefalse-12-92233720368547758081844674407370955161570.5(null)"});
}

TEST(MessageStream, NumbersDoNotDependOnTheLocale) {
    const test::CommaLocale locale;
    CaptureSink log;
    MessageStream(1, 2) << 1234567 << ' ' << 1234.5;
    EXPECT_EQ(log.texts(), std::vector<std::string>{"1234567 1234.5"});
}

TEST(MessageStream, NothingStreamedIsAnEmptyLine) {
    CaptureSink log;
    // cppcheck-suppress unusedScopedObject ; its end is what writes the line
    { MessageStream(1, 2); }
    EXPECT_EQ(log.texts(), std::vector<std::string>{""});
}

TEST(MessageStream, LinesOfManyThreadsStayWhole) {
    CaptureSink log;
    constexpr int lines = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < lines; ++i)
                MessageStream(1, 2) << "thread " << t << " line " << i << " end";
        });
    for (std::thread& thread : threads)
        thread.join();
    std::set<std::string> expected;
    for (int t = 0; t < 4; ++t)
        for (int i = 0; i < lines; ++i)
            expected.insert("thread " + std::to_string(t) + " line " + std::to_string(i) + " end");
    const std::vector<std::string> texts = log.texts();
    EXPECT_EQ(texts.size(), expected.size());
    EXPECT_EQ(std::set<std::string>(texts.begin(), texts.end()), expected);
}

TEST(CaptureSink, AnswersByLevelAndText) {
    CaptureSink log;
    MessageStream(1, 2) << "one";
    MessageStream(3, 2) << "two";
    MessageStream(0, 2) << "once more";
    EXPECT_EQ(log.texts(3), std::vector<std::string>{"two"});
    EXPECT_EQ(log.count("on"), 2);
    EXPECT_TRUE(log.contains("two"));
    EXPECT_FALSE(log.contains("three"));
    EXPECT_TRUE(log.waitFor("more"));
    EXPECT_FALSE(log.waitFor("never", 1));
    log.clear();
    EXPECT_TRUE(log.entries().empty());
}

TEST(CaptureSink, WaitsForALineOfAnotherThread) {
    CaptureSink log;
    std::thread writer([] { MessageStream(1, 2) << "at last"; });
    EXPECT_TRUE(log.waitFor("at last"));
    writer.join();
}

TEST(CaptureSink, NestsAndPutsBackWhatWasThere) {
    const int level = logging::getLevel();
    CaptureSink outer;
    {
        CaptureSink inner;
        MessageStream(1, 2) << "inner";
        EXPECT_TRUE(inner.contains("inner"));
    }
    MessageStream(1, 2) << "outer";
    EXPECT_EQ(outer.texts(), std::vector<std::string>{"outer"});
    { CaptureSink once; }
    EXPECT_EQ(logging::getLevel(), logging::levelDebug);
    logging::setLevel(level);
}

TEST(LogLevel, LinesBelowItAreNotWritten) {
    CaptureSink log;
    logging::setLevel(logging::levelWarning);
    MessageStream(1, 2) << "information";
    MessageStream(2, 2) << "warning";
    logging::setLevel(logging::levelOff);
    MessageStream(3, 2) << "error";
    EXPECT_EQ(log.texts(), std::vector<std::string>{"warning"});
}

TEST(LogLevel, NamesGoBothWays) {
    for (int level = logging::levelDebug; level <= logging::levelOff; ++level) {
        int found = -1;
        EXPECT_TRUE(logging::levelFromName(logging::nameOfLevel(level), found));
        EXPECT_EQ(found, level);
    }
    EXPECT_STREQ(logging::nameOfLevel(1), "info");
    EXPECT_STREQ(logging::nameOfLevel(-7), "debug");
    EXPECT_STREQ(logging::nameOfLevel(99), "off");
}

TEST(LogLevel, UnknownNameLeavesTheLevel) {
    int level = 42;
    EXPECT_FALSE(logging::levelFromName("Info", level));
    EXPECT_FALSE(logging::levelFromName("", level));
    EXPECT_EQ(level, 42);
}

TEST(LogEscape, PlainTextStaysAsItIs) {
    EXPECT_EQ(escaped(""), "");
    EXPECT_EQ(escaped("plain \\ \"text\""), "plain \\ \"text\"");
    EXPECT_EQ(escaped("M\xC3\xBCller \xE2\x82\xAC \xF0\x9F\x98\x80"),
              "M\xC3\xBCller \xE2\x82\xAC \xF0\x9F\x98\x80");
}

TEST(LogEscape, ControlCharactersBecomeVisible) {
    EXPECT_EQ(escaped("a\r\nb\tc"), "a\\r\\nb\\tc");
    EXPECT_EQ(escaped("\x1b[31mred\x7f"), "\\x1b[31mred\\x7f");
    EXPECT_EQ(escaped(std::string_view("\0\x01", 2)), "\\x00\\x01");
    EXPECT_EQ(escaped("\xC2\x85\xC2\x9B"), "\\u0085\\u009b");
}

TEST(LogEscape, LineSeparatorsAndDirectionMarksBecomeVisible) {
    EXPECT_EQ(escaped("\xE2\x80\xA8\xE2\x80\xA9"), "\\u2028\\u2029");
    EXPECT_EQ(escaped("\xE2\x80\xAE\xE2\x80\x8F\xE2\x81\xA6\xE2\x81\xA9\xD8\x9C"),
              "\\u202e\\u200f\\u2066\\u2069\\u061c");
}

TEST(LogEscape, BytesThatAreNoUtf8BecomeVisible) {
    EXPECT_EQ(escaped("\xFF"), "\\xff");
    EXPECT_EQ(escaped("\xC3"), "\\xc3");
    EXPECT_EQ(escaped("\xC3("), "\\xc3(");
    EXPECT_EQ(escaped("\xC0\x8A"), "\\xc0\\x8a");
    EXPECT_EQ(escaped("\xE0\x80\x8A"), "\\xe0\\x80\\x8a");
    EXPECT_EQ(escaped("\xED\xA0\x80"), "\\xed\\xa0\\x80");
    EXPECT_EQ(escaped("\xF4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
    EXPECT_EQ(escaped("\x85"), "\\x85");
}

TEST(LogEscape, LineInTheLogIsOneLine) {
    CaptureSink log;
    MessageStream(1, 2) << "status="
                        << "done\n2026-01-01T00:00:00.000000Z [error] forged";
    EXPECT_EQ(log.texts(),
              std::vector<std::string>{"status=done\\n2026-01-01T00:00:00.000000Z [error] forged"});
}

/// Standard error of this process goes to a file while it lives.
class CapturedStandardError {
  public:
    CapturedStandardError() : kept_(::dup(STDERR_FILENO)) {
        const int file = ::open((folder_ / "err").c_str(), O_WRONLY | O_CREAT, 0600);
        ::dup2(file, STDERR_FILENO);
        ::close(file);
    }
    ~CapturedStandardError() {
        ::dup2(kept_, STDERR_FILENO);
        ::close(kept_);
    }
    CapturedStandardError(const CapturedStandardError&) = delete;
    CapturedStandardError& operator=(const CapturedStandardError&) = delete;

    std::string text() const {
        String content;
        content.loadFromFile((folder_ / "err").c_str());
        return content.str();
    }

  private:
    test::TemporaryFolder folder_;
    int kept_;
};

class StandardError : public testing::Test {
  protected:
    std::string written(logging::Form form, int level, const char* text) {
        const CapturedStandardError error;
        const auto before = logging::setSink(logging::standardErrorSink(form));
        MessageStream(level, 2) << text;
        logging::setSink(before);
        return error.text();
    }
};

TEST_F(StandardError, TextFormHasTimeInUtcAndLevel) {
    const test::FixedClock clock(1772352000000001);
    EXPECT_EQ(written(logging::Form::text, 3, "the text"), "2026-03-01T08:00:00.000001Z [error] the text\n");
    EXPECT_EQ(written(logging::Form::text, 1, "%v {} %d"), "2026-03-01T08:00:00.000001Z [info] %v {} %d\n");
}

TEST_F(StandardError, JournalFormHasThePriority) {
    EXPECT_EQ(written(logging::Form::journal, 3, "e"), "<3>e\n");
    EXPECT_EQ(written(logging::Form::journal, 2, "w"), "<4>w\n");
    EXPECT_EQ(written(logging::Form::journal, 1, "i\n<0>forged"), "<6>i\\n<0>forged\n");
}

TEST_F(StandardError, NoSinkPutsOutNothing) {
    const CapturedStandardError error;
    const auto before = logging::setSink(nullptr);
    MessageStream(3, 2) << "lost";
    logging::setSink(before);
    EXPECT_EQ(error.text(), "");
}

class LoggingSink : public logging::Sink {
  public:
    void write(const logging::Line& line) override {
        ++lines;
        MessageStream(3, 2) << "about " << line.text;
    }
    int lines = 0;
};

TEST(Sink, OneThatLogsItselfDoesNotHang) {
    const auto sink = std::make_shared<LoggingSink>();
    const auto before = logging::setSink(sink);
    MessageStream(3, 2) << "x";
    EXPECT_EQ(logging::getSink(), sink);
    logging::setSink(before);
    EXPECT_EQ(sink->lines, 1);
}

class ThrowingSink : public logging::Sink {
  public:
    void write(const logging::Line&) override { throw std::runtime_error("disk full"); }
};

TEST(Sink, OneThatThrowsLosesTheLineOnly) {
    const auto before = logging::setSink(std::make_shared<ThrowingSink>());
    MessageStream(3, 2) << "x";
    MessageStream(3, 2) << "y";
    logging::setSink(before);
    CaptureSink log;
    MessageStream(3, 2) << "z";
    EXPECT_TRUE(log.contains("z"));
}

}  // namespace
}  // namespace qel
