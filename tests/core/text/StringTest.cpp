#include "qelCore/String.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <sstream>
#include <unordered_set>

namespace qel {
namespace {

Vector<String> pieces(std::initializer_list<const char*> texts) {
    return Vector<String>(texts.begin(), texts.end());
}

TEST(String, ConvertsToACString) {
    const String text = "viewer";
    const char* raw = text;
    EXPECT_STREQ(raw, "viewer");
    EXPECT_EQ(std::strlen(text), 6U);
}

TEST(String, NullPointerMakesAnEmptyText) {
    EXPECT_TRUE(String(static_cast<const char*>(nullptr)).empty());
    String text = "a";
    text += static_cast<const char*>(nullptr);
    EXPECT_EQ(text, "a");
}

TEST(String, KeepsZeroBytes) {
    const String text(std::string_view("a\0b", 3));
    EXPECT_EQ(text.size(), 3U);
    EXPECT_EQ(text.view(), std::string_view("a\0b", 3));
    EXPECT_NE(text, String("a"));
}

TEST(String, JoinsTextsOfEveryKind) {
    String text = "a";
    text += "b";
    text += String("c");
    text += std::string("d");
    text += std::string_view("e");
    text += 'f';
    EXPECT_EQ(text, "abcdef");
    // cppcheck-suppress literalWithCharPtrCompare ; it is a String, which compares its text
    EXPECT_EQ(String("dir") + "/page.html", "dir/page.html");
    EXPECT_EQ("dir" + String("/") + String("x") + 'y' + std::string("z"), "dir/xyz");
}

TEST(String, AppendingATextToItself) {
    String text = "ab";
    text += text;
    EXPECT_EQ(text, "abab");
}

TEST(String, ComparesWithTextsOfEveryKind) {
    const String text = "abc";
    // cppcheck-suppress knownConditionTrueFalse ; both orders are operators of their own
    EXPECT_TRUE(text == "abc" && "abc" == text && text == std::string("abc") &&
                text == std::string_view("abc"));
    EXPECT_TRUE(text != "abd" && text < "abd" && text < String("abcd") && "abb" < text &&
                text >= std::string("abc"));
}

TEST(String, OrderIsThatOfUnsignedBytes) {
    EXPECT_LT(String("z"), String("\xC3\xA4"));
    EXPECT_LT(String("a"), String("a\xFF"));
    EXPECT_LT(String(), String("\x01"));
    std::map<String, int> ordered{{"\xFF", 3}, {"", 0}, {"A", 1}, {"a", 2}};
    int position = 0;
    for (const auto& [text, expected] : ordered)
        EXPECT_EQ(expected, position++);
}

TEST(String, HashesLikeItCompares) {
    std::unordered_set<String> texts{"a", "b", "a"};
    EXPECT_EQ(texts.size(), 2U);
    EXPECT_TRUE(texts.contains("b"));
}

TEST(String, IndexReadsAByte) {
    const String text = "xyz";
    EXPECT_EQ(text[0], 'x');
    EXPECT_EQ(text[std::size_t{2}], 'z');
    EXPECT_EQ(text[1L], 'y');
}

TEST(String, StreamsAsText) {
    std::ostringstream out;
    out << String(std::string_view("a\0b", 3));
    EXPECT_EQ(out.str(), std::string("a\0b", 3));
}

TEST(StringReplaceAll, ReplacesEveryOccurrence) {
    String text = "[[T]] and [[T]]";
    text.replace_all("[[T]]", "title");
    EXPECT_EQ(text, "title and title");
}

TEST(StringReplaceAll, ContinuesBehindWhatItInserted) {
    String text = "x";
    EXPECT_EQ(text.replace_all("x", "xx"), "xx");
    EXPECT_EQ(text.replace_all("x", "[x]"), "[x][x]");
}

TEST(StringReplaceAll, TakesNonOverlappingOccurrencesFromTheLeft) {
    String text = "aaa";
    EXPECT_EQ(text.replace_all("aa", "b"), "ba");
}

TEST(StringReplaceAll, ShrinksToNothing) {
    String text = ";;;";
    EXPECT_EQ(text.replace_all(";", ""), "");
}

TEST(StringReplaceAll, EmptyPatternChangesNothing) {
    String text = "abc";
    EXPECT_EQ(text.replace_all("", "x"), "abc");
}

TEST(StringReplaceAll, MayReplaceByItsOwnText) {
    String text = "ab";
    text.replace_all("b", text);
    EXPECT_EQ(text, "aab");
}

TEST(StringSplit, KeepsEveryEmptyPiece) {
    EXPECT_EQ(String(";a;;b;").split(';'), pieces({"", "a", "", "b", ""}));
}

TEST(StringSplit, EmptyTextGivesOneEmptyPiece) {
    EXPECT_EQ(String().split(';'), pieces({""}));
    EXPECT_EQ(String(";").split(';'), pieces({"", ""}));
}

TEST(StringSplit, ExportedLineKeepsItsTwelveFields) {
    EXPECT_EQ(String("03/07/2021 14:05:09;u;d;Login;;;;;;;;").split(';').size(), 12U);
}

TEST(StringSplit, LineFeedsLeaveCarriageReturns) {
    EXPECT_EQ(String("a\r\nb\r\n").split('\n'), pieces({"a\r", "b\r", ""}));
}

TEST(StringTrim, RemovesBlanksTabsAndLineEndsAtBothEnds) {
    EXPECT_EQ(String(" \t\r\n a b\t\n c \r\n").trim_spaces_newlines(), "a b\t\n c");
}

TEST(StringTrim, LeavesOtherWhiteSpace) {
    EXPECT_EQ(String("\v\fa\xC2\xA0").trim_spaces_newlines(), "\v\fa\xC2\xA0");
}

TEST(StringTrim, ReturnsACopy) {
    const String text = " a ";
    EXPECT_EQ(text.trim_spaces_newlines(), "a");
    EXPECT_EQ(text, " a ");
    EXPECT_EQ(String(" \r\n\t").trim_spaces_newlines(), "");
    EXPECT_EQ(String().trim_spaces_newlines(), "");
}

TEST(StringBeginsWith, IsCaseSensitiveAndAPrefixOnly) {
    EXPECT_TRUE(String("invite-4711").begins_with("invite-"));
    EXPECT_TRUE(String("invite-").begins_with("invite-"));
    EXPECT_TRUE(String("a").begins_with(""));
    EXPECT_FALSE(String("Invite-x").begins_with("invite-"));
    EXPECT_FALSE(String("my-invite-x").begins_with("invite-"));
    EXPECT_FALSE(String("inv").begins_with("invite-"));
}

}  // namespace
}  // namespace qel
