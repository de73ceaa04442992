#include "qelCore/Resources.h"

#include <gtest/gtest.h>

#include "qelCore/Buffer.h"

namespace qel {
namespace {

constexpr unsigned char script[] = {'d', '3', 0, 0xFF};

class Resources : public testing::Test {
  protected:
    ~Resources() override { resources::clear(); }
};

TEST_F(Resources, TableBeginsEmpty) {
    EXPECT_TRUE(resources::find("tmpl-d3.min.js").isNull());
    Buffer buffer;
    EXPECT_FALSE(buffer.loadFromResource("tmpl-d3.min.js", false));
    EXPECT_TRUE(buffer.getConstByteSpan().isNull());
}

TEST_F(Resources, BufferHoldsTheExactBytes) {
    resources::set("script", {script, sizeof script});
    Buffer buffer;
    ASSERT_TRUE(buffer.loadFromResource("script", false));
    EXPECT_EQ(buffer.getConstByteSpan().view(), ConstByteSpan(script, sizeof script).view());
    EXPECT_NE(buffer.getConstByteSpan().data(), script);
}

TEST_F(Resources, ZeroBehindTheContentDoesNotCount) {
    resources::set("script", {script, 2});
    Buffer buffer;
    ASSERT_TRUE(buffer.loadFromResource("script", true));
    EXPECT_EQ(buffer.getConstByteSpan().size(), 2U);
    EXPECT_STREQ(reinterpret_cast<const char*>(buffer.getConstByteSpan().data()), "d3");
}

TEST_F(Resources, EmptyIsNotMissing) {
    resources::set("empty", ConstByteSpan());
    EXPECT_FALSE(resources::find("empty").isNull());
    Buffer buffer;
    EXPECT_TRUE(buffer.loadFromResource("empty", false));
    EXPECT_FALSE(buffer.getConstByteSpan().isNull());
    EXPECT_TRUE(buffer.getConstByteSpan().empty());
}

TEST_F(Resources, MissingResourceKeepsTheContent) {
    resources::set("script", {script, sizeof script});
    Buffer buffer;
    buffer.loadFromResource("script", false);
    EXPECT_FALSE(buffer.loadFromResource("other", false));
    EXPECT_FALSE(buffer.loadFromResource(nullptr, false));
    EXPECT_EQ(buffer.getConstByteSpan().size(), sizeof script);
}

TEST_F(Resources, EntriesAreReplacedAndCleared) {
    resources::set("script", {script, 1});
    resources::set("script", {script, 3});
    EXPECT_EQ(resources::find("script").size(), 3U);
    resources::clear("script");
    resources::clear("never there");
    EXPECT_TRUE(resources::find("script").isNull());
    resources::set("a", {script, 1});
    resources::clear();
    EXPECT_TRUE(resources::find("a").isNull());
}

TEST_F(Resources, BufferOutlivesTheEntry) {
    resources::set("script", {script, 2});
    Buffer buffer;
    buffer.loadFromResource("script", false);
    resources::clear();
    const Buffer copy = buffer;
    EXPECT_EQ(copy.getConstByteSpan().view(), "d3");
}

}  // namespace
}  // namespace qel
