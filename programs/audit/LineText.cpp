#include "audit/LineText.h"

#include <string_view>

#include "common/Failure.h"
#include "common/Json.h"
#include "common/Times.h"
#include "qelCore/Item.h"
#include "qelCore/String.h"

namespace qel::programs {

namespace {

/// The next element as JSON; false after the last.
bool addElement(std::string& text, Item::Iterator& elements, std::string& scratch) {
    long long number = 0;
    bool truth = false;
    std::string_view other;
    if (elements.decodeElementAsInteger(number))
        text += std::to_string(number);
    else if (elements.decodeElementAsBool(truth))
        text += truth ? "true" : "false";
    else if (elements.convertAsText(other, scratch))
        text += jsonText(other);
    else
        return false;
    return true;
}

void addNamed(std::string& text, const char* name, Item::Iterator& elements, std::string& scratch) {
    text += ",\"";
    text += name;
    text += "\":";
    if (!addElement(text, elements, scratch))
        text += "null";
}

}  // namespace

std::uint64_t forEachLine(const Item& answer, const std::function<void(ConstByteSpan line)>& use) {
    ConstByteSpan lines;
    Item::Iterator elements(answer);
    if (!elements.decodeElementAsItem(lines))
        throw Failure(exitBadData, "the service's answer holds no lines");
    std::uint64_t count = 0;
    Item::Iterator each(lines);
    for (ConstByteSpan line; each.decodeElementAsItem(line); ++count)
        use(line);
    if (!each.atEnd())
        throw Failure(exitBadData, "the service's answer holds something else than lines");
    return count;
}

void appendJsonLine(std::string& text, ConstByteSpan line) {
    Item::Iterator elements(line);
    ConstByteSpan key;
    long long time = 0;
    long long origin = 0;
    if (elements.decodeElementAsItem(key)) {
        Item::Iterator parts(key);
        parts.decodeElementAsInteger(time);
        parts.decodeElementAsInteger(origin);
    }
    std::string scratch;
    text += "{\"time\":\"" + formatUtc(time) + "\",\"origin\":" + std::to_string(origin);
    addNamed(text, "user", elements, scratch);
    addNamed(text, "device", elements, scratch);
    addNamed(text, "event", elements, scratch);
    text += ",\"params\":[";
    for (bool first = true;; first = false) {
        const std::size_t before = text.size();
        if (!first)
            text += ',';
        if (!addElement(text, elements, scratch)) {
            text.resize(before);
            break;
        }
    }
    text += "]}\n";
}

}  // namespace qel::programs
