#include "common/TextGuard.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace qel::programs {
namespace {

using namespace std::string_view_literals;

constexpr char32_t sign = 0x2060;  // word joiner: invisible, and without effect inside a name
constexpr std::string_view signBytes = "\xe2\x81\xa0"sv;

struct LookAlike {
    char32_t dangerous;
    char32_t harmless;
};

/// Single characters; the ranges of control characters follow rules of their own.
constexpr LookAlike lookAlikes[] = {
    {'"', 0x201D},    {'<', 0x2039},    {'>', 0x203A},    {'&', 0xFF06},    {'`', 0x2018},    {'\\', 0x2216},
    {0x7F, 0x2421},   {0x061C, 0x219A}, {0x200E, 0x2192}, {0x200F, 0x2190}, {0x2028, 0x2424}, {0x2029, 0xB6},
    {0x202A, 0x21B1}, {0x202B, 0x21B0}, {0x202C, 0x2191}, {0x202D, 0x21E5}, {0x202E, 0x21E4}, {sign, 0x2422},
    {0x2066, 0x21B3}, {0x2067, 0x21B2}, {0x2068, 0x2195}, {0x2069, 0x2193}, {'[', 0xFF3B},
};

constexpr char32_t firstControlPicture = 0x2400;  // of U+0000 to U+001F
constexpr char32_t firstCircledNumber = 0x2460;   // of U+0080 to U+009F
constexpr char32_t firstHighControl = 0x80;
constexpr char32_t highControls = 0x20;

/// The look-alike of a character; 0 when it is harmless. The square bracket is not asked for here.
char32_t lookAlikeOf(char32_t character) {
    if (character < ' ')
        return firstControlPicture + character;
    if (character >= firstHighControl && character < firstHighControl + highControls)
        return firstCircledNumber + character - firstHighControl;
    for (const LookAlike& pair : lookAlikes)
        if (pair.dangerous == character && character != '[')
            return pair.harmless;
    return 0;
}

/// The character that a look-alike before the sign stands for; 0 when it is none.
char32_t originalOf(char32_t character) {
    if (character >= firstControlPicture && character < firstControlPicture + ' ')
        return character == firstControlPicture ? 0x110000 : character - firstControlPicture;
    if (character >= firstCircledNumber && character < firstCircledNumber + highControls)
        return character - firstCircledNumber + firstHighControl;
    for (const LookAlike& pair : lookAlikes)
        if (pair.harmless == character)
            return pair.dangerous;
    return 0;
}

void appendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | c >> 6);
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xE0 | c >> 12);
        out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

/// The character at the start of a text that is not empty, and its bytes. Anything but a well-formed character
/// of one to three bytes is one byte that stands for itself, with no character.
char32_t characterAt(std::string_view text, std::size_t& size) {
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const auto continues = [&](std::size_t at) { return at < text.size() && (byte(at) & 0xC0) == 0x80; };
    size = 1;
    if (byte(0) < 0x80)
        return byte(0);
    if (byte(0) >= 0xC2 && byte(0) < 0xE0 && continues(1)) {
        size = 2;
        return static_cast<char32_t>((byte(0) & 0x1F) << 6 | (byte(1) & 0x3F));
    }
    if (byte(0) >= 0xE0 && byte(0) < 0xF0 && continues(1) && continues(2)) {
        const auto character =
            static_cast<char32_t>((byte(0) & 0x0F) << 12 | (byte(1) & 0x3F) << 6 | (byte(2) & 0x3F));
        if (character >= 0x800) {
            size = 3;
            return character;
        }
    }
    return 0x110000;  // no character
}

bool isSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool isReserved(std::string_view text) {
    return text == "__proto__" || text == "xLabel";
}

/// One walk over a text.
class Cleaner {
  public:
    Cleaner(std::string& out, Skipped skipped) : out_(out), skipped_(skipped) {}

    Danger clean(std::string_view text) {
        const bool reserved = isReserved(text);
        for (std::size_t size = 0; !text.empty(); text.remove_prefix(size))
            step(text, size);
        if (reserved) {
            out_ += signBytes;
            danger_ = Danger::other;
        }
        return danger_;
    }

  private:
    void step(std::string_view text, std::size_t& size) {
        const char32_t character = characterAt(text, size);
        atStart_ = atStart_ && isSpace(text[0]);
        brackets_ = character == '[' ? brackets_ + 1 : 0;
        if (brackets_ == marksOfPlaceholder) {
            replace(0xFF3B, Danger::other);
            brackets_ = 0;
        } else if (isSpace(text[0]) && isSkipped()) {
            out_ += ' ';
            if (text[0] != ' ')
                danger_ = Danger::other;
        } else if (const char32_t harmless = lookAlikeOf(character)) {
            replace(harmless, character == '\\' ? Danger::backslash : Danger::other);
        } else {
            out_ += text.substr(0, size);
        }
    }

    bool isSkipped() const {
        return skipped_ == Skipped::everywhere || (skipped_ == Skipped::atStart && atStart_);
    }

    void replace(char32_t harmless, Danger danger) {
        appendUtf8(out_, harmless);
        out_ += signBytes;
        if (danger_ != Danger::other)
            danger_ = danger;
    }

    static constexpr int marksOfPlaceholder = 4;

    std::string& out_;
    Skipped skipped_;
    Danger danger_ = Danger::none;
    bool atStart_ = true;
    int brackets_ = 0;
};

}  // namespace

Danger appendClean(std::string& out, std::string_view text, Skipped skipped) {
    return Cleaner(out, skipped).clean(text);
}

std::string cleanText(std::string_view text) {
    std::string out;
    appendClean(out, text);
    return out;
}

std::string originalText(std::string_view cleaned) {
    std::string out;
    for (std::size_t size = 0; !cleaned.empty(); cleaned.remove_prefix(size)) {
        const char32_t character = characterAt(cleaned, size);
        const bool isMarked = cleaned.substr(size).starts_with(signBytes);
        const char32_t original = isMarked ? originalOf(character) : 0;
        if (original == 0x110000)
            out += '\0';
        else if (original != 0)
            appendUtf8(out, original);
        else
            out += cleaned.substr(0, size);
        if (isMarked)
            size += signBytes.size();
    }
    return out;
}

namespace {

using Byte = unsigned char;

/// A byte and its successor. Written without branches, for the compiler to do many at once.
inline Byte isDangerousPair(Byte c, Byte next) {
    const bool lineEnd = (c == '\n') | ((c == '\r') & (next == '\n'));
    const bool control = ((c < 0x20) & !lineEnd) | (c == 0x7F);
    const bool markup = ((c | 0x04) == '&') | ((c | 0x02) == '>') | (c == '`') | (c == '\\');
    const bool lead = ((c | 0x20) == 0xE2) | (c == 0xD8);  // begins a character that may have to go
    const bool pair = ((c == next) & ((c == '[') | (c == '_'))) | ((c == 'x') & (next == 'L'));
    return static_cast<Byte>(control | markup | lead | pair);
}

constexpr std::size_t block = 256;

/// Whether anything in a block and the byte behind it is dangerous.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
__attribute__((target_clones("avx2", "default")))
#endif
bool isDangerousBlock(const Byte* bytes) {
    Byte danger = 0;
    for (std::size_t i = 0; i < block; ++i)
        danger = static_cast<Byte>(danger | isDangerousPair(bytes[i], bytes[i + 1]));
    return danger != 0;
}

}  // namespace

bool looksDangerous(std::string_view text) {
    const auto* bytes = reinterpret_cast<const Byte*>(text.data());
    std::size_t at = 0;
    for (; text.size() - at > block; at += block)
        if (isDangerousBlock(bytes + at))
            return true;
    for (; at < text.size(); ++at)
        if (isDangerousPair(bytes[at], at + 1 < text.size() ? bytes[at + 1] : Byte{'\n'}) != 0)
            return true;
    return false;
}

}  // namespace qel::programs
