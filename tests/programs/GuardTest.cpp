#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>

#include "common/LogGuard.h"
#include "common/TextGuard.h"

namespace qel::programs {
namespace {

using namespace std::string_literals;

const std::string sign = "\u2060";

TEST(TextGuard, HarmlessTextsStayAsTheyAre) {
    for (const std::string& text :
         {"anna.schmidt"s, "Müller-Lüdenscheidt"s, "1.2.840.113619"s, "李"s, ""s, "a b'c"s, "[[["s,
          "\U0001F600"s, "caf\u00e9 \u2013 x"s, "\xff\xfe broken"s, "constructor"s})
        EXPECT_EQ(cleanText(text), text);
}

TEST(TextGuard, EveryDangerousCharacterIsReplaced) {
    for (const char* text :
         {"\"",     "<",      ">",      "&",      "`",      "\\",     "\n",     "\r",     "\t",     "\x1b",
          "\x7f",   "\u0080", "\u0085", "\u009f", "\u061c", "\u200e", "\u200f", "\u2028", "\u2029", "\u202a",
          "\u202b", "\u202c", "\u202d", "\u202e", "\u2066", "\u2067", "\u2068", "\u2069"}) {
        const std::string cleaned = cleanText("a"s + text + "b");
        EXPECT_EQ(cleaned.find(*text == '\xe2' ? text : std::string(text) + "b"), std::string::npos)
            << cleaned;
        EXPECT_NE(cleaned.find(sign), std::string::npos);
        EXPECT_EQ(originalText(cleaned), "a"s + text + "b");
    }
    EXPECT_EQ(originalText(cleanText("a" + sign + "b")), "a" + sign + "b");
    EXPECT_EQ(cleanText("\0"s), "\u2400" + sign);
    EXPECT_EQ(originalText(cleanText("a\0b"s)), "a\0b"s);
}

TEST(TextGuard, FourBracketsInARowAreBrokenUp) {
    EXPECT_EQ(cleanText("[[[[DATA]]]]").find("[[[["), std::string::npos);
    EXPECT_EQ(cleanText("[[[[[[[[[").find("[[[["), std::string::npos);
    EXPECT_EQ(originalText(cleanText("[[[[[[[[[")), "[[[[[[[[[");
    EXPECT_EQ(cleanText("[[[a["), "[[[a[");
}

TEST(TextGuard, NamesThatAScriptObjectKnowsAreMarked) {
    EXPECT_EQ(cleanText("__proto__"), "__proto__" + sign);
    EXPECT_EQ(cleanText("xLabel"), "xLabel" + sign);
    EXPECT_EQ(originalText(cleanText("__proto__")), "__proto__");
    EXPECT_EQ(cleanText("x__proto__"), "x__proto__");
}

TEST(TextGuard, OverlongAndBrokenBytesAreNoCharacters) {
    for (const std::string& text :
         {"\xc0\xbc"s, "\xe0\x80\xbc"s, "\xe2\x80"s, "\xe2"s, "\xc2"s, "\xed\xa0\x80"s})
        EXPECT_EQ(originalText(cleanText(text)), text);
    EXPECT_EQ(cleanText("\xe2\x80\""), "\xe2\x80\u201d" + sign);
}

TEST(TextGuard, DifferentTextsStayDifferentAndCanBeHadBack) {
    std::mt19937 random(1);
    const std::string pieces[] = {"a",      "\"",   "\u201d", sign,     "<",      "\u2039",    "[",
                                  "\uff3b", "\\",   "\u2216", "\n",     "\u240a", "__proto__", "xLabel",
                                  "\xff",   "\xe2", "\u2028", "\u2422", "0"};
    std::set<std::string> originals, cleaned;
    for (int i = 0; i < 20000; ++i) {
        std::string text;
        for (auto n = random() % 6; n > 0; --n)
            text += pieces[random() % std::size(pieces)];
        const std::string harmless = cleanText(text);
        EXPECT_EQ(originalText(harmless), text);
        originals.insert(text);
        cleaned.insert(harmless);
    }
    EXPECT_EQ(originals.size(), cleaned.size());
}

/// A log read in pieces of every size must be judged alike.
bool foundInPieces(const std::string& text, std::size_t piece) {
    DangerScan scan;
    for (std::size_t at = 0; at < text.size(); at += piece)
        scan.look(std::string_view(text).substr(at, piece));
    return scan.foundDanger();
}

TEST(DangerScan, FindsDangerWhereverItStands) {
    const std::string line = "03/07/2021 10:00:00;anna;WS1;SeriesOpened;1.2.840;;;;;;;\r\n";
    std::string log;
    for (int i = 0; i < 40; ++i)
        log += line;
    for (const char* danger :
         {"\"", "<", "\\", "\t", "\x7f", "\u2028", "\u0085", "\u061c", "[[", "__", "xL", "\rx"})
        for (std::size_t at = 0; at < log.size(); at += 37) {
            std::string hostile = log;
            hostile.insert(at, danger);
            for (const std::size_t piece : {1U, 7U, 512U, 100000U})
                EXPECT_TRUE(foundInPieces(hostile, piece))
                    << danger << " at " << at << " in pieces of " << piece;
        }
    for (const std::size_t piece : {1U, 7U, 512U, 513U, 100000U})
        EXPECT_FALSE(foundInPieces(log, piece));
    EXPECT_FALSE(foundInPieces("a\r", 1));
}

TEST(DangerScan, CountsLines) {
    std::string text;
    for (int i = 0; i < 3000; ++i)
        text += std::string(static_cast<std::size_t>(i % 90), 'x') + (i % 7 ? "\n" : "\n\n");
    DangerScan whole, pieces;
    whole.look(text);
    for (std::size_t at = 0; at < text.size(); at += 100)
        pieces.look(std::string_view(text).substr(at, 100));
    EXPECT_EQ(whole.lines(), 3000u + 429u);
    EXPECT_EQ(pieces.lines(), whole.lines());
}

class LogGuardTest : public ::testing::Test {
  protected:
    std::string clean(const std::string& text) {
        String log(text);
        guard_.cleanLog(log, "audit log");
        return log.str();
    }
    LogGuard guard_;
};

TEST_F(LogGuardTest, KeepsCleanLinesAndWhatSurroundsAllLines) {
    EXPECT_EQ(clean("h\r\n3/7/2021 1:1:1;a\"b;WS;E;x\r\n\r\nlast"),
              "h\n3/7/2021 1:1:1;a\u201d" + sign + "b;WS;E;x\n\nlast");
    EXPECT_EQ(guard_.changedTexts(), 1u);
    EXPECT_EQ(guard_.account(), "1 in the audit log (line 2)");
}

TEST_F(LogGuardTest, WhiteSpaceThatReadersSkipBecomesBlanks) {
    EXPECT_EQ(clean("3/7/2021\t1:\v1:1;a\tb;WS;PDReviewAssignPhotos;\t3\t"),
              "3/7/2021 1: 1:1;a\u2409" + sign + "b;WS;PDReviewAssignPhotos; 3");
}

TEST_F(LogGuardTest, BackslashesCountOncePerName) {
    for (int i = 0; i < 5; ++i)
        clean("3/7/2021 1:1:1;CLINIC\\anna;WS;E\n3/7/2021 1:1:1;CLINIC\\bert;WS;E\n");
    EXPECT_EQ(guard_.changedTexts(), 2u);
}

TEST_F(LogGuardTest, OtherCharactersCountEveryTime) {
    clean("t;a\\<;WS;E\nt;a\\<;WS;E\n");
    EXPECT_EQ(guard_.changedTexts(), 2u);
    EXPECT_EQ(guard_.account(), "2 in the audit log (first lines 1, 2)");
}

TEST_F(LogGuardTest, ShowsTheFirstFewLinesOnly) {
    std::string log;
    for (int i = 0; i < 100; ++i)
        log += "t;<;<;<\n";
    clean(log);
    EXPECT_EQ(guard_.account(), "300 in the audit log (first lines 1, 2, 3, 4, 5)");
    guard_.cleanText("<", "group names");
    EXPECT_EQ(guard_.account(), "300 in the audit log (first lines 1, 2, 3, 4, 5), 1 in the group names");
}

TEST_F(LogGuardTest, OnlyUsersCanCarryReservedNames) {
    EXPECT_EQ(clean("t;__proto__;xLabel;E;xLabel"), "t;__proto__" + sign + ";xLabel;E;xLabel");
}

}  // namespace
}  // namespace qel::programs
