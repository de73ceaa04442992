#include "audit/LineText.h"

#include <gtest/gtest.h>

#include "qelCore/Item.h"
#include "qelCore/String.h"

namespace qel::programs {
namespace {

Item keyOf(long long time, long long origin) {
    Item key;
    key.addInteger(time);
    key.addInteger(origin);
    Item line;
    line.addItem(key);
    return line;
}

std::string jsonOf(const Item& line) {
    std::string text;
    appendJsonLine(text, line.bytes());
    return text;
}

TEST(LineText, EveryElementKeepsItsType) {
    Item line = keyOf(1700000000000001, 4294967295);
    line.addString("anna");
    line.addString("pc \"1\"\n");
    line.addString("SeriesOpened");
    line.addString("1.2;3");
    line.addInteger(-7);
    line.addBool(true);
    line.addBytes("\x00\xff", 2);
    Item nested;
    nested.addInteger(1);
    line.addItem(nested);
    EXPECT_EQ(
        jsonOf(line),
        "{\"time\":\"2023-11-14T22:13:20.000001Z\",\"origin\":4294967295,\"user\":\"anna\",\"device\":\"pc "
        "\\\"1\\\"\\n\",\"event\":\"SeriesOpened\",\"params\":[\"1.2;3\",-7,true,\"00ff\",\"[1]\"]}\n");
}

TEST(LineText, WhatIsMissingIsNull) {
    EXPECT_EQ(
        jsonOf(keyOf(0, 0)),
        "{\"time\":\"1970-01-01T00:00:00.000000Z\",\"origin\":0,\"user\":null,\"device\":null,\"event\":null,"
        "\"params\":[]}\n");
}

}  // namespace
}  // namespace qel::programs
