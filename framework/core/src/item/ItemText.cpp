#include <string>

#include "item/ItemCodec.h"
#include "qelCore/Item.h"
#include "qelCore/String.h"

namespace qel::codec {

namespace {

using Byte = unsigned char;

constexpr char digits[] = "0123456789abcdef";

// Length of the UTF-8 character at `index`, or 0 when there is none that may be printed as it is.
std::size_t printableLength(std::string_view content, std::size_t index) {
    const auto at = [&](std::size_t i) { return static_cast<Byte>(content[i]); };
    const Byte lead = at(index);
    if (lead < 0x80)
        return lead >= 0x20 && lead != 0x7f ? 1 : 0;
    const std::size_t length = lead >= 0xf0 && lead <= 0xf4 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || content.size() - index < length)
        return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((at(index + i) & 0xc0) != 0x80)
            return 0;
    const Byte second = at(index + 1);
    const bool tooLong = (lead == 0xe0 && second < 0xa0) || (lead == 0xf0 && second < 0x90);
    const bool surrogate = lead == 0xed && second >= 0xa0;
    const bool tooLarge = lead == 0xf4 && second >= 0x90;
    const bool control = lead == 0xc2 && second < 0xa0;
    return tooLong || surrogate || tooLarge || control ? 0 : length;
}

void printEscape(Byte value, std::string& out) {
    switch (value) {
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        case '\t':
            out += "\\t";
            return;
        default:
            out += "\\x";
            out += digits[value >> 4];
            out += digits[value & 15];
    }
}

void printText(std::string_view content, std::string& out) {
    out += '"';
    for (std::size_t i = 0; i < content.size();) {
        const std::size_t length = printableLength(content, i);
        if (length == 0) {
            printEscape(static_cast<Byte>(content[i++]), out);
            continue;
        }
        if (content[i] == '"' || content[i] == '\\')
            out += '\\';
        out.append(content.substr(i, length));
        i += length;
    }
    out += '"';
}

bool printElement(const Byte* at, const Byte* after, std::string& out) {
    long long number;
    std::string content;
    switch (*at) {
        case boolFalse:
            out += "false";
            return true;
        case boolTrue:
            out += "true";
            return true;
        case text:
            if (!unescape(at + 1, after - 1, content))
                return false;
            printText(content, out);
            return true;
        case bytes:
            if (!unescape(at + 1, after - 1, content))
                return false;
            out += "0x";
            printHex(content, out);
            return true;
        case nested:
            print(at + 1, after - 1, out);
            return true;
        default:
            if (takeInteger(at, after, number) == nullptr)
                return false;
            out += std::to_string(number);
            return true;
    }
}

}  // namespace

void printHex(std::string_view content, std::string& out) {
    for (const char c : content) {
        out += digits[static_cast<Byte>(c) >> 4];
        out += digits[static_cast<Byte>(c) & 15];
    }
}

void print(const unsigned char* at, const unsigned char* end, std::string& out) {
    out += '[';
    for (bool first = true; at != end; first = false) {
        if (!first)
            out += ',';
        const Byte* const after = elementEnd(at, end);
        if (after == nullptr || !printElement(at, after, out)) {
            out += "<malformed: " + std::to_string(end - at) + " bytes>";
            break;
        }
        at = after;
    }
    out += ']';
}

}  // namespace qel::codec

namespace qel {

String Item::asString() const {
    std::string out;
    codec::print(data_, data_ + size_, out);
    return String(std::move(out));
}

}  // namespace qel
