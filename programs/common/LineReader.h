#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qel::programs {

/// Reads a file, or standard input as "-", line by line without holding more than one line and a buffer.
/// Used by one thread.
class LineReader {
  public:
    /// Longest line taken; a longer one is no event that a queue could hold.
    static constexpr std::size_t longestLine = 4 << 20;

    /// Throws Failure when the file cannot be read: 66, or 77 without the right to.
    explicit LineReader(const std::string& file);
    ~LineReader();
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    /// The next line without its line end; valid until the next call. False at the end. Throws Failure: 65 for a line
    /// that is too long, 74 when reading fails half-way.
    bool next(std::string_view& line);
    /// Of the line read last, counting from 1.
    std::uint64_t number() const { return number_; }
    /// "FILE:LINE" of it.
    std::string place() const;
    /// Bytes taken so far, and of the whole file (0 when it is not known).
    std::uint64_t position() const { return position_; }
    std::uint64_t size() const { return size_; }

  private:
    bool fill();

    std::string file_;
    int descriptor_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    bool ended_ = false;
    std::uint64_t number_ = 0;
    std::uint64_t position_ = 0;
    std::uint64_t size_ = 0;
};

}  // namespace qel::programs
