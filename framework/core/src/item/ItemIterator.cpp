#include <charconv>
#include <limits>
#include <string>

#include "item/ItemCodec.h"
#include "qelCore/Item.h"
#include "qelCore/String.h"

namespace qel {

namespace {

std::string_view viewOf(const unsigned char* at, const unsigned char* end) {
    return {reinterpret_cast<const char*>(at), static_cast<std::size_t>(end - at)};
}

// The content of a text or of plain bytes: a view of the stored bytes, or of `scratch` when they had to be decoded.
bool contentOf(const unsigned char* at, const unsigned char* after, std::string_view& content,
               std::string& scratch) {
    ++at;
    --after;
    if (codec::isVerbatim(at, after)) {
        content = viewOf(at, after);
        return true;
    }
    if (!codec::unescape(at, after, scratch))
        return false;
    content = scratch;
    return true;
}

std::string_view printNumber(long long number, std::string& scratch) {
    scratch.resize(24);
    const auto [end, error] = std::to_chars(scratch.data(), scratch.data() + scratch.size(), number);
    (void)error;
    return {scratch.data(), static_cast<std::size_t>(end - scratch.data())};
}

bool elementText(const unsigned char* at, const unsigned char* after, std::string_view& out,
                 std::string& scratch) {
    long long number;
    switch (*at) {
        case codec::boolFalse:
            out = "0";
            return true;
        case codec::boolTrue:
            out = "1";
            return true;
        case codec::text:
            return contentOf(at, after, out, scratch);
        case codec::bytes: {
            std::string decoded;
            if (!contentOf(at, after, out, decoded))
                return false;
            scratch.clear();
            codec::printHex(out, scratch);
            out = scratch;
            return true;
        }
        case codec::nested:
            scratch.clear();
            codec::print(at + 1, after - 1, scratch);
            out = scratch;
            return true;
        default:
            if (codec::takeInteger(at, after, number) == nullptr)
                return false;
            out = printNumber(number, scratch);
            return true;
    }
}

// Where the element ends; null when it has no text. Out of line, or the plain texts would pay for its frame.
[[gnu::noinline]] const unsigned char* textOfOther(const unsigned char* at, const unsigned char* end,
                                                   std::string_view& out, std::string& scratch) {
    const unsigned char* const after = codec::elementEnd(at, end);
    return after != nullptr && elementText(at, after, out, scratch) ? after : nullptr;
}

}  // namespace

bool Item::Iterator::skip() {
    const unsigned char* const after = codec::elementEnd(at_, end_);
    if (after == nullptr)
        return false;
    at_ = after;
    return true;
}

bool Item::Iterator::decodeElementAsString(String& value) {
    const unsigned char* const after = codec::elementEnd(at_, end_);
    std::string_view content;
    std::string scratch;
    if (after == nullptr || *at_ != codec::text || !contentOf(at_, after, content, scratch))
        return false;
    value = String(content);
    at_ = after;
    return true;
}

bool Item::Iterator::decodeElementAsInteger(long long& value) {
    const unsigned char* const after = codec::takeInteger(at_, end_, value);
    if (after == nullptr)
        return false;
    at_ = after;
    return true;
}

bool Item::Iterator::decodeElementAsInteger(int& value) {
    const unsigned char* const before = at_;
    long long wide;
    if (!decodeElementAsInteger(wide))
        return false;
    if (wide < std::numeric_limits<int>::min() || wide > std::numeric_limits<int>::max()) {
        at_ = before;
        return false;
    }
    value = static_cast<int>(wide);
    return true;
}

bool Item::Iterator::decodeElementAsBool(bool& value) {
    if (at_ == end_ || (*at_ != codec::boolFalse && *at_ != codec::boolTrue))
        return false;
    value = *at_++ == codec::boolTrue;
    return true;
}

bool Item::Iterator::decodeElementAsItem(Item& value) {
    ConstByteSpan content;
    if (!decodeElementAsItem(content))
        return false;
    value.setPlain(content);
    return true;
}

bool Item::Iterator::decodeElementAsItem(ConstByteSpan& content) {
    if (at_ == end_ || *at_ != codec::nested)
        return false;
    const unsigned char* const after = codec::elementEnd(at_, end_);
    if (after == nullptr)
        return false;
    content = {at_ + 1, static_cast<std::size_t>(after - at_ - 2)};
    at_ = after;
    return true;
}

bool Item::Iterator::decodeElementAsBytes(Item& value) {
    const unsigned char* const after = codec::elementEnd(at_, end_);
    std::string_view content;
    std::string scratch;
    if (after == nullptr || *at_ != codec::bytes || !contentOf(at_, after, content, scratch))
        return false;
    value.setPlain(reinterpret_cast<const unsigned char*>(content.data()), content.size());
    at_ = after;
    return true;
}

bool Item::Iterator::convertAsText(std::string_view& text, std::string& scratch) {
    // Most elements are texts, and hardly any holds a byte that had to be escaped.
    if (at_ != end_ && *at_ == codec::text) {
        const unsigned char* const mark = codec::firstMark(at_ + 1, end_);
        if (mark != end_ && *mark == codec::endMark) {
            text = viewOf(at_ + 1, mark);
            at_ = mark + 1;
            return true;
        }
    }
    const unsigned char* const after = textOfOther(at_, end_, text, scratch);
    if (after == nullptr)
        return false;
    at_ = after;
    return true;
}

bool Item::Iterator::convertAsString(String& text) {
    std::string_view view;
    std::string scratch;
    if (!convertAsText(view, scratch))
        return false;
    text = String(view);
    return true;
}

}  // namespace qel
