// Any bytes as an item: they decode or they do not, nothing is read beyond them, and what decodes encodes to the same.

#include "qelCore/Item.h"

#include <cstdint>
#include <string>

#include "fuzz/Check.h"
#include "qelCore/String.h"
#include "qelCore/logging/Log.h"

using namespace qel;

namespace {

bool copyElement(Item::Iterator& from, Item& to) {
    String text;
    long long number = 0;
    bool flag = false;
    Item nested;
    if (from.decodeElementAsString(text))
        to.addString(text);
    else if (from.decodeElementAsInteger(number))
        to.addInteger(number);
    else if (from.decodeElementAsBool(flag))
        to.addBool(flag);
    else if (from.decodeElementAsItem(nested))
        to.addItem(nested);
    else if (from.decodeElementAsBytes(nested))
        to.addBytes(nested.data(), nested.size());
    else
        return false;
    return true;
}

void walkAsText(const Item& item) {
    Item::Iterator texts(item);
    String text;
    while (texts.convertAsString(text)) {
    }
    Item::Iterator skips(item);
    while (skips.skip()) {
    }
    item.trail().asString();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    logging::setSink(nullptr);
    Item item;
    item.setPlain(data, size);
    item.asString();
    walkAsText(item);
    Item copy;
    Item::Iterator elements(item);
    while (copyElement(elements, copy)) {
    }
    if (item.isWellFormed()) {
        fuzz::check(elements.atEnd(), "a well-formed item decodes to its end");
        fuzz::check(copy == item, "a value has one encoded form");
    }
    return 0;
}
