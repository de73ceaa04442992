#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "qelCore/Item.h"

namespace qel {

/// Builds the lines of an exported file, one after the other in one buffer, so that a long export allocates nothing per
/// line. Fields are taken as they are: nothing is quoted or escaped, because the readers of these files split at every
/// semicolon. One thread per object.
class CsvLine {
  public:
    /// What a line has behind its time: user, device, event and eight parameters. Shorter values are filled up, longer
    /// ones written whole.
    static constexpr int valueFields = 11;

    /// The first line of a file.
    static constexpr std::string_view header =
        "Time;User;Device;Event;Param0;Param1;Param2;Param3;Param4;Param5;Param6;Param7";

    CsvLine();

    /// Begins a new line with the German local time of `time`.
    void begin(long long time);
    void addField(std::string_view text);
    /// Adds one field per element that is left.
    void addFields(Item::Iterator elements);
    /// Fills up to valueFields and ends the line with a line feed.
    void end();

    /// The line so far; valid until the next operation.
    std::string_view text() const { return {buffer_.data(), size_}; }

  private:
    /// Room for that many bytes behind the line so far.
    char* reserve(std::size_t bytes) {
        if (buffer_.size() - size_ < bytes)
            buffer_.resize((size_ + bytes) * 2);
        return buffer_.data() + size_;
    }
    void addTime(long long time);

    // Only its first `size_` bytes count: it never shrinks, so that growing it is rare and clears nothing.
    std::string buffer_;
    std::size_t size_ = 0;
    std::string scratch_;
    int fields_ = 0;
    std::string timeText_;
    long long timeSecond_;
};

}  // namespace qel
