#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "qelCore/Export.h"
#include "qelCore/Item.h"
#include "qelCore/StoreOptions.h"

namespace qel {

class ItemStore;

/// Work on whole stores that are in use meanwhile: check, copy, save, bring back. No state; any thread, one
/// long call at a time per thread. Walks renew their snapshot as they go and pin no part of the store; a
/// backup pins one for its duration, so that the file can grow by what is written meanwhile.
class QELCORE_EXPORT StoreTools {
  public:
    /// Called now and then with the number of entries done; returning false ends the work early.
    using Progress = std::function<bool(std::uint64_t done)>;
    /// Called for each fault with the key's text and a sentence.
    using Fault = std::function<void(const std::string& key, const std::string& sentence)>;

    struct Outcome {
        CommitResult result;
        std::uint64_t entries = 0;
        /// Of keys and values, encoded.
        std::uint64_t bytes = 0;
        std::uint64_t faults = 0;
        /// `progress` ended it.
        bool stopped = false;
    };

    /// Reads every entry: keys and values decode, keys ascend, nothing is over the limits, the engine finds
    /// no damaged page. `result` says whether it was read to its end.
    static Outcome verify(ItemStore& store, const Fault& fault, const Progress& progress = {});

    /// Writes a consistent copy of the store as it is at this moment to one file, which appears under its
    /// name only when it is whole and on disk, replacing an older one. `compact` skips unused pages (slower).
    static CommitResult backup(ItemStore& store, const std::string& file, bool compact);

    /// Makes a store in the folder `path`, which must not hold one, from a file that `backup` wrote; checks
    /// it by opening it. On failure nothing stays behind.
    static CommitResult restore(const std::string& file, const std::string& path,
                                const StoreOptions& options = {});

    /// What `copy` did and found.
    struct CopyOutcome {
        /// Whether it came to its end. If not, a later call goes on behind what it had made durable.
        CommitResult result;
        /// Went on where an earlier call from the same store had ended.
        bool resumed = false;
        /// `progress` ended it.
        bool stopped = false;
        /// Written to the target by this call.
        std::uint64_t added = 0;
        /// Compared at the end, at the source and at the target, and their bytes at the source.
        std::uint64_t entries = 0;
        std::uint64_t targetEntries = 0;
        std::uint64_t bytes = 0;
        /// Keys with other content at the target, keys that only the target has, and keys that it lacks all the same.
        std::uint64_t differing = 0;
        std::uint64_t extra = 0;
        std::uint64_t missing = 0;
        /// SHA-256 over the entries of source and target as they were compared.
        std::string checksum;
        std::string targetChecksum;

        bool isSame() const { return entries == targetEntries && checksum == targetChecksum; }
    };

    /// Copies every entry, the names of the logs and the store's identity into another open store, in durable batches, and
    /// compares both at the end, entry by entry. What the target has is never changed: a key with other content there is
    /// told to `fault`, as are keys that only the target has (a few of them by name). Refused when the target
    /// belongs to another site key or has another log by the same name. Both may be in use; what is written to the source
    /// meanwhile behind the last walk is not copied, and what others write to the target is told as extra. `progress` is
    /// given the entries walked over, each up to twice.
    static CopyOutcome copy(ItemStore& from, ItemStore& to, const Fault& fault = {},
                            const Progress& progress = {});
};

}  // namespace qel
