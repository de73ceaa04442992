#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "qelCore/Item.h"

namespace qel {
namespace {

TEST(ElementText, EveryByteAtEveryPlaceComesBack) {
    for (std::size_t length = 1; length <= 40; ++length) {
        for (std::size_t place = 0; place < length; ++place) {
            for (const int byte : {0x00, 0x01, 0x02, 0x03, 0x7f, 0x80, 0x81, 0xff}) {
                std::string text(length, 'x');
                text[place] = static_cast<char>(byte);
                Item item;
                item.addString(std::string_view(text));
                item.addInteger(5);
                Item::Iterator elements(item);
                std::string_view found;
                std::string scratch;
                ASSERT_TRUE(elements.convertAsText(found, scratch));
                ASSERT_EQ(found, text) << "byte " << byte << " at " << place << " of " << length;
                ASSERT_TRUE(elements.convertAsText(found, scratch));
                ASSERT_EQ(found, "5");
                ASSERT_FALSE(elements.convertAsText(found, scratch));
            }
        }
    }
}

TEST(ElementText, TextWithoutItsEndIsNone) {
    Item whole;
    whole.addString("some text of more than eight bytes");
    for (std::size_t size = 1; size < whole.size(); ++size) {
        Item cut;
        cut.setPlain(whole.data(), size);
        Item::Iterator elements(cut);
        std::string_view found;
        std::string scratch;
        EXPECT_FALSE(elements.convertAsText(found, scratch)) << size << " bytes";
    }
}

}  // namespace
}  // namespace qel
