#include "common/TextGuard.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace qel::programs {
namespace {

using namespace std::string_view_literals;

constexpr char32_t sign = 0x2060;  // word joiner: invisible, and without effect inside a name
constexpr std::string_view signBytes = "\xe2\x81\xa0"sv;

constexpr char32_t harmlessBracket = 0xFF3B;

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

/// Which bytes begin something that may have to go: everything else is copied in runs.
struct Interesting {
    bool is[256] = {};

    constexpr Interesting() {
        for (int c = 0; c < ' '; ++c)
            is[c] = true;
        for (const char c : {'"', '<', '>', '&', '`', '\\', '[', '\x7f', '\xc2', '\xd8', '\xe2'})
            is[static_cast<unsigned char>(c)] = true;
    }
};

constexpr Interesting interesting;

/// The bytes before the first interesting one.
std::size_t plainRun(std::string_view text) {
    std::size_t at = 0;
    while (at < text.size() && !interesting.is[static_cast<unsigned char>(text[at])])
        ++at;
    return at;
}

/// One walk over a text.
class Cleaner {
  public:
    Cleaner(std::string& out, Skipped skipped) : out_(out), skipped_(skipped) {}

    Danger clean(std::string_view text) {
        while (!text.empty()) {
            const std::size_t run = plainRun(text);
            if (run > 0)
                copy(text.substr(0, run));
            else
                text.remove_prefix(step(text));
            text.remove_prefix(run);
        }
        return danger_;
    }

  private:
    void copy(std::string_view run) {
        out_ += run;
        atStart_ = atStart_ && run.find_first_not_of(' ') == std::string_view::npos;
        brackets_ = 0;
    }

    /// One character that begins with an interesting byte; returns its size.
    std::size_t step(std::string_view text) {
        std::size_t size = 0;
        const char32_t character = characterAt(text, size);
        const bool space = isSpace(text[0]);
        brackets_ = character == '[' ? brackets_ + 1 : 0;
        if (brackets_ == marksOfPlaceholder) {
            replace(harmlessBracket, Danger::other);
            brackets_ = 0;
        } else if (space && (skipped_ == Skipped::everywhere || (skipped_ == Skipped::atStart && atStart_))) {
            out_ += ' ';
            danger_ = Danger::other;
        } else if (const char32_t harmless = lookAlikeOf(character)) {
            replace(harmless, character == '\\' ? Danger::backslash : Danger::other);
        } else {
            out_ += text.substr(0, size);
        }
        atStart_ = atStart_ && space;
        return size;
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

Danger appendCleanName(std::string& out, std::string_view name) {
    const Danger danger = appendClean(out, name);
    if (!isReservedName(name))
        return danger;
    out += signBytes;
    return Danger::other;
}

bool isReservedName(std::string_view name) {
    return name == "__proto__" || name == "xLabel";
}

bool isPlain(std::string_view text) {
    return plainRun(text) == text.size();
}

std::string cleanText(std::string_view text) {
    std::string out;
    appendCleanName(out, text);
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

constexpr std::size_t blockSize = 32;
using Block [[gnu::vector_size(blockSize)]] = Byte;

/// Adds to `danger` what a byte and its successor are, or as many of them as a block holds at once. Nothing branches.
/// (By reference, because blocks as values are passed differently with and without their instructions.)
template <class T>
inline void addDanger(const T& c, const T& next, T& danger) {
    const auto control = (c < 0x20) & (c != '\n') & ((c != '\r') | (next != '\n'));
    const auto markup = ((c | 0x04) == '&') | ((c | 0x02) == '>') | (c == '`') | (c == '\\') | (c == 0x7F);
    const auto lead = ((c | 0x20) == 0xE2) | (c == 0xD8);  // begins a character that may have to go
    const auto pair = ((c == next) & ((c == '[') | (c == '_'))) | ((c == 'x') & (next == 'L'));
    danger |= T(control | markup | lead | pair);
}

/// Blocks that are looked at together; so few that the line feeds among them fit into a byte.
constexpr std::size_t stride = 16 * blockSize;

std::uint64_t sumOfBytes(const Block& block) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < blockSize; ++i)
        sum += block[i];
    return sum;
}

/// Whether anything in a stride and the byte behind it is dangerous; adds its line feeds to `lines`.
/// (The choice between clones is made while the program is loaded, too early for code under the thread sanitizer.)
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(__SANITIZE_THREAD__)
__attribute__((target_clones("avx2", "default")))
#endif
bool isDangerousStride(const Byte* bytes, std::uint64_t& lines) {
    Block danger = {};
    Block lineFeeds = {};
    for (std::size_t i = 0; i < stride; i += blockSize) {
        Block c, next;
        std::memcpy(&c, bytes + i, blockSize);
        std::memcpy(&next, bytes + i + 1, blockSize);
        addDanger(c, next, danger);
        lineFeeds -= Block(c == '\n');  // true is -1
    }
    lines += sumOfBytes(lineFeeds);
    std::uint64_t words[blockSize / sizeof(std::uint64_t)];
    std::memcpy(words, &danger, blockSize);
    return (words[0] | words[1] | words[2] | words[3]) != 0;
}

}  // namespace

void DangerScan::look(std::string_view piece) {
    if (piece.empty())
        return;
    const auto* bytes = reinterpret_cast<const Byte*>(piece.data());
    int danger = 0;
    addDanger<int>(last_, bytes[0], danger);
    std::size_t at = 0;
    bool dangerous = false;
    for (; piece.size() - at > stride; at += stride)
        dangerous |= isDangerousStride(bytes + at, lines_);
    for (; at + 1 < piece.size(); ++at) {
        addDanger<int>(bytes[at], bytes[at + 1], danger);
        lines_ += bytes[at] == '\n';
    }
    last_ = bytes[at];
    lines_ += last_ == '\n';
    dangerous_ |= dangerous || danger != 0;
}

bool DangerScan::foundDanger() const {
    int danger = 0;
    addDanger<int>(last_, '\n', danger);
    return dangerous_ || danger != 0;
}

}  // namespace qel::programs
