#include "common/CsvCheck.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <vector>

#include "auditing/AuditExport.h"
#include "common/Failure.h"
#include "common/Progress.h"

namespace qel::programs {
namespace {

constexpr long long largestChecksum = 4294967295;

// The time, the line feed, and the separators of parameters that an event usually does not have.
constexpr std::uint64_t usualLineBytes = 26;

Item keyAt(const Item& log, long long time, long long checksum) {
    Item inner;
    inner.addInteger(time);
    inner.addInteger(checksum);
    Item key = log;
    key.addItem(inner);
    return key;
}

void measureValue(ConstByteSpan value, RangeFacts& facts, std::string& scratch) {
    Item::Iterator elements(value);
    std::string_view text;
    while (elements.convertAsText(text, scratch)) {
        const auto breaks = static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
        facts.lineBreaks += breaks;
        facts.bytes += text.size() + 1;
        facts.shiftingValues += breaks > 0 || text.find_first_of(";\r") != std::string_view::npos;
    }
}

/// Counts lines, and those whose number of separators is not the header's, over pieces that may end anywhere.
class LineCounter {
  public:
    void add(const char* at, std::size_t size, FileFacts& facts) {
        const char* const end = at + size;
        while (at != end) {
            const auto* feed =
                static_cast<const char*>(std::memchr(at, '\n', static_cast<std::size_t>(end - at)));
            const char* const stop = feed == nullptr ? end : feed;
            separators_ += std::count(at, stop, ';');
            if (feed == nullptr)
                return;
            ++facts.lines;
            facts.oddLines += separators_ != headerSeparators_;
            separators_ = 0;
            at = feed + 1;
        }
    }

  private:
    const std::ptrdiff_t headerSeparators_ = std::count(
        AuditExport::csvHeader(), AuditExport::csvHeader() + std::strlen(AuditExport::csvHeader()), ';');
    std::ptrdiff_t separators_ = 0;
};

}  // namespace

RangeFacts measureRange(const Item& log, long long first, long long last,
                        const std::function<void(std::uint64_t)>& progress) {
    constexpr long long lowest = std::numeric_limits<long long>::min();
    RangeFacts facts;
    Item position = first == lowest ? keyAt(log, first, 0) : keyAt(log, first - 1, largestChecksum);
    std::string scratch;
    while (position.next()) {
        Item key;
        long long time = 0;
        if (!position.trail().decodeElementAsItem(key) || !key.decodeElementAsInteger(time) || time > last)
            break;
        ++facts.entries;
        facts.bytes += usualLineBytes;
        measureValue(position.fetch(), facts, scratch);
        if (progress)
            progress(facts.entries);
    }
    return facts;
}

FileFacts measureFile(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in)
        throw systemFailure(exitInputOutput, file, errno);
    FileFacts facts;
    std::vector<char> bytes(256 << 10);
    const std::string header = std::string(AuditExport::csvHeader()) + '\n';
    LineCounter lines;
    while (in.read(bytes.data(), static_cast<std::streamsize>(bytes.size())), in.gcount() > 0) {
        const auto count = static_cast<std::size_t>(in.gcount());
        if (facts.bytes == 0)
            facts.headed =
                count >= header.size() && std::memcmp(bytes.data(), header.data(), header.size()) == 0;
        facts.bytes += count;
        facts.ended = bytes[count - 1] == '\n';
        lines.add(bytes.data(), count, facts);
    }
    if (in.bad())
        throw systemFailure(exitInputOutput, file, EIO);
    return facts;
}

std::string describeShifts(const RangeFacts& facts) {
    if (facts.shiftingValues == 0)
        return {};
    return grouped(facts.shiftingValues) +
           " values hold \";\" or line breaks, which shift columns or look like further lines";
}

}  // namespace qel::programs
