#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "qelCore/Item.h"

namespace qel::programs {

/// What an exported file of a range of a log must hold. Plain record.
struct RangeFacts {
    std::uint64_t entries = 0;
    std::uint64_t lineBreaks = 0;      ///< line feeds inside values: each makes one more line
    std::uint64_t shiftingValues = 0;  ///< values that hold ";" or a line break
    std::uint64_t bytes = 0;           ///< about the size of the file, for a bar

    std::uint64_t lines() const { return 1 + entries + lineBreaks; }
};

/// Walks the events of a central log with `first` <= time <= `last` in the process's current store. `progress` is told
/// the number of events now and then.
RangeFacts measureRange(const Item& log, long long first, long long last,
                        const std::function<void(std::uint64_t)>& progress = {});

/// What lies in a file. Plain record.
struct FileFacts {
    std::uint64_t bytes = 0;
    std::uint64_t lines = 0;
    bool headed = false;         ///< begins with the header line of an export
    std::uint64_t oddLines = 0;  ///< lines that do not have as many fields as the header
    bool ended = false;          ///< ends in a line feed
};

/// Reads a file through; throws Failure(74) when it is not there or cannot be read.
FileFacts measureFile(const std::string& file);

/// The sentence about values that shift columns or forge lines; empty when there are none.
std::string describeShifts(const RangeFacts& facts);

}  // namespace qel::programs
