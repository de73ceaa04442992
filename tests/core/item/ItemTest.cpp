#include "qelCore/Item.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <limits>
#include <string>

#include "qelCore/String.h"
#include "qelCore/logging/CaptureSink.h"

using qel::Item;
using qel::String;

namespace {

std::string hex(const Item& item) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    for (const unsigned char byte : item.bytes()) {
        if (!out.empty())
            out += ' ';
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
    return out;
}

Item integer(long long value) {
    Item out;
    out.addInteger(value);
    return out;
}

Item text(std::string_view value) {
    Item out;
    out.addString(value);
    return out;
}

Item nestedIn(const Item& inner) {
    Item out;
    out.addItem(inner);
    return out;
}

Item plain(std::initializer_list<unsigned char> bytes) {
    Item out;
    out.setPlain(bytes.begin(), bytes.size());
    return out;
}

}  // namespace

TEST(Item, EncodesTheDocumentedExamples) {
    EXPECT_EQ(hex(integer(0)), "18");
    EXPECT_EQ(hex(integer(1)), "19 01");
    EXPECT_EQ(hex(integer(255)), "19 ff");
    EXPECT_EQ(hex(integer(256)), "1a 01 00");
    EXPECT_EQ(hex(integer(-1)), "17 ff");
    EXPECT_EQ(hex(integer(-256)), "17 00");
    EXPECT_EQ(hex(integer(-257)), "16 fe ff");
    EXPECT_EQ(hex(integer(1700000000000000)), "1f 06 0a 24 18 1e 40 00");
    EXPECT_EQ(hex(integer(std::numeric_limits<long long>::max())), "20 7f ff ff ff ff ff ff ff");
    EXPECT_EQ(hex(integer(std::numeric_limits<long long>::min())), "10 80 00 00 00 00 00 00 00");
    EXPECT_EQ(hex(text("")), "28 00");
    EXPECT_EQ(hex(text("ab")), "28 61 62 00");
    EXPECT_EQ(hex(text(std::string_view("a\0\1\2", 4))), "28 61 01 01 01 02 02 00");
    EXPECT_EQ(hex(nestedIn(integer(1))), "38 19 01 00");
    Item bytes;
    bytes.addBytes("\0\xff", 2);
    EXPECT_EQ(hex(bytes), "30 01 01 ff 00");
}

TEST(Item, BooleanIsOnePlainByte) {
    Item item;
    item.addBool(false);
    item.addBool(true);
    EXPECT_EQ(hex(item), "0d 0e");
}

TEST(Item, ReadsBackEveryType) {
    Item inner;
    inner.addInteger(-5);
    Item item;
    item.addString("a;b");
    item.addInteger(1LL << 40);
    item.addBool(true);
    item.addItem(inner);
    item.addBytes("\0x", 2);
    Item::Iterator at(item);
    String string;
    long long number = 0;
    bool flag = false;
    Item sub;
    Item bytes;
    EXPECT_TRUE(at.decodeElementAsString(string));
    EXPECT_TRUE(at.decodeElementAsInteger(number));
    EXPECT_TRUE(at.decodeElementAsBool(flag));
    EXPECT_TRUE(at.decodeElementAsItem(sub));
    EXPECT_TRUE(at.decodeElementAsBytes(bytes));
    EXPECT_TRUE(at.atEnd());
    EXPECT_EQ(string, "a;b");
    EXPECT_EQ(number, 1LL << 40);
    EXPECT_TRUE(flag);
    EXPECT_EQ(sub, inner);
    EXPECT_EQ(bytes.bytes().view(), std::string_view("\0x", 2));
}

TEST(Item, DecodingAnotherTypeConsumesNothing) {
    const Item item = text("x");
    Item::Iterator at(item);
    long long number = 77;
    bool flag = true;
    Item sub;
    EXPECT_FALSE(at.decodeElementAsInteger(number));
    EXPECT_FALSE(at.decodeElementAsBool(flag));
    EXPECT_FALSE(at.decodeElementAsItem(sub));
    EXPECT_FALSE(at.decodeElementAsBytes(sub));
    EXPECT_EQ(number, 77);
    String string;
    EXPECT_TRUE(at.decodeElementAsString(string));
    EXPECT_EQ(string, "x");
}

TEST(Item, NarrowIntegerRefusesWhatDoesNotFit) {
    const Item item = integer(1LL << 31);
    Item::Iterator at(item);
    int narrow = 3;
    EXPECT_FALSE(at.decodeElementAsInteger(narrow));
    EXPECT_EQ(narrow, 3);
    long long wide = 0;
    EXPECT_TRUE(at.decodeElementAsInteger(wide));
    EXPECT_EQ(wide, 1LL << 31);
}

TEST(Item, ConvertsEveryElementToText) {
    Item item;
    item.addString("name");
    item.addInteger(-42);
    item.addBool(true);
    item.addBool(false);
    item.addBytes("\x0f\xa0", 2);
    item.addItem(integer(7));
    Item::Iterator at(item);
    std::string all;
    for (String text; at.convertAsString(text);)
        all += text.str() + "|";
    EXPECT_EQ(all, "name|-42|1|0|0fa0|[7]|");
    EXPECT_TRUE(at.atEnd());
}

TEST(Item, ConvertsWithoutACopyWhereItCan) {
    const Item item = text("verbatim");
    Item::Iterator at(item);
    std::string_view view;
    std::string scratch;
    ASSERT_TRUE(at.convertAsText(view, scratch));
    EXPECT_EQ(view, "verbatim");
    EXPECT_EQ(static_cast<const void*>(view.data()), item.data() + 1);
}

TEST(Item, PrintsOnePrintableLine) {
    Item item;
    item.addString("a\n\"b\\\x1b[31m \xc3\xbc \xff");
    item.addInteger(12);
    item.addItem(nestedIn(text("")));
    item.addBool(true);
    item.addBytes("\0\xff", 2);
    EXPECT_EQ(item.asString(), "[\"a\\n\\\"b\\\\\\x1b[31m \xc3\xbc \\xff\",12,[[\"\"]],true,0x00ff]");
    EXPECT_EQ(Item().asString(), "[]");
    EXPECT_EQ(plain({0x18, 0x19}).asString(), "[0,<malformed: 1 bytes>]");
}

TEST(Item, CopiesAreIndependent) {
    Item a = text("a text that is too long to lie within the item itself, surely, by some margin");
    Item b = a;
    b.addInteger(1);
    EXPECT_NE(a, b);
    Item c = std::move(b);
    EXPECT_TRUE(b.isEmpty());
    EXPECT_EQ(c.trail(), integer(1));
    Item& self = a;
    a = self;
    EXPECT_EQ(a.size(),
              text("a text that is too long to lie within the item itself, surely, by some margin").size());
    a = integer(9);
    EXPECT_EQ(a, integer(9));
}

TEST(Item, TakesItselfAsArgument) {
    Item item = text("x");
    item.addItem(item);
    EXPECT_EQ(item.asString(), "[\"x\",[\"x\"]]");
    for (int i = 0; i < 6; ++i)
        item.concatItem(item);
    EXPECT_EQ(item.size(), 64U * 8U);
    EXPECT_TRUE(item.isWellFormed());
    Item slice = text("abcdefgh");
    slice.setPlain(slice.data() + 1, 3);
    EXPECT_EQ(slice.bytes().view(), "abc");
}

TEST(Item, TrailIsTheLastElementOnly) {
    Item key = text("log");
    key.addInteger(5);
    EXPECT_EQ(key.trail(), integer(5));
    Item joined = text("p");
    joined.concatItem(key);
    EXPECT_EQ(joined.trail(), integer(5));
    Item copied;
    copied.setPlain(key.bytes());
    EXPECT_EQ(copied.trail(), integer(5));
    EXPECT_TRUE(Item().trail().isEmpty());
    long long number = 0;
    EXPECT_TRUE(key.trail().decodeElementAsInteger(number));
    EXPECT_EQ(number, 5);
}

TEST(Item, NestedItemsSortBehindTextsAndIntegers) {
    EXPECT_LT(Item::compare(integer(std::numeric_limits<long long>::max()), text("")), 0);
    EXPECT_LT(Item::compare(text("\xff\xff"), nestedIn(Item())), 0);
    EXPECT_LT(Item::compare(integer(std::numeric_limits<long long>::max()), nestedIn(Item())), 0);
}

TEST(Item, PathThatBeginsLikeAnotherIsNoPrefixOfIt) {
    const Item a = text("a");
    const Item ab = text("ab");
    const Item zero = text(std::string_view("a\0", 2));
    EXPECT_NE(ab.bytes().view().substr(0, a.size()), a.bytes().view());
    EXPECT_NE(zero.bytes().view().substr(0, a.size()), a.bytes().view());
}

TEST(Item, MalformedBytesAreRefused) {
    const auto malformed = [](std::initializer_list<unsigned char> bytes) {
        const Item item = plain(bytes);
        Item::Iterator at(item);
        while (at.skip()) {
        }
        return !item.isWellFormed();
    };
    EXPECT_TRUE(malformed({0x00}));
    EXPECT_TRUE(malformed({0x0c}));
    EXPECT_TRUE(malformed({0xff}));
    EXPECT_TRUE(malformed({0x19}));
    EXPECT_TRUE(malformed({0x19, 0x00}));        // zero has a code of its own
    EXPECT_TRUE(malformed({0x1a, 0x00, 0x01}));  // longer than needed
    EXPECT_TRUE(malformed({0x16, 0xff, 0xff}));  // longer than needed
    EXPECT_TRUE(malformed({0x20, 0x80, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(malformed({0x10, 0x7f, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(malformed({0x28, 'a'}));               // no end
    EXPECT_TRUE(malformed({0x28, 0x01, 0x03, 0x00}));  // no such escape
    EXPECT_TRUE(malformed({0x28, 0x01, 0x00}));
    EXPECT_TRUE(malformed({0x38, 0x18}));
    EXPECT_TRUE(malformed({0x38, 0x19, 0x00}));
}

TEST(Item, DepthAndLengthAreBounded) {
    Item item;
    for (int depth = 0; depth < Item::maxDepth; ++depth) {
        ASSERT_TRUE(item.isWellFormed());
        item = nestedIn(item);
    }
    EXPECT_TRUE(item.isWellFormed());
    EXPECT_FALSE(Item::isWellFormed(item.bytes(), item.size() - 1));
    Item deep;
    const std::string opening(100000, '\x38');
    deep.setPlain(reinterpret_cast<const unsigned char*>(opening.data()), opening.size());
    EXPECT_FALSE(deep.isWellFormed());
    EXPECT_FALSE(Item::Iterator(deep).skip());
    EXPECT_NE(deep.asString(), "");
}

TEST(Item, AddingMalformedBytesHarmsNothingAroundThem) {
    qel::logging::CaptureSink log;
    Item item = text("before");
    item.addItem(plain({0x00, 0x28}));
    item.addString("after");
    EXPECT_TRUE(item.isWellFormed());
    EXPECT_EQ(item.asString(), "[\"before\",0x0028,\"after\"]");
    EXPECT_TRUE(log.contains("does not decode"));
}
