#pragma once

#include <string>
#include <vector>

#include "qelCore/StoreTools.h"
#include "storage/StoreCore.h"

namespace qel::storage {

/// Copies the entries of one open store into another in two walks over both. The first brings over what is missing, and
/// leaves a mark at the target from which a later call goes on; the second trusts nothing of the first: it compares every
/// entry of both, and brings over what came to the source meanwhile. Memory is bounded by one stretch of entries.
class StoreCopy {
  public:
    using Outcome = StoreTools::CopyOutcome;

    StoreCopy(ItemStore& from, StoreCore& source, ItemStore& to, StoreCore& target,
              const StoreTools::Fault& fault, const StoreTools::Progress& progress);
    StoreCopy(const StoreCopy&) = delete;
    StoreCopy& operator=(const StoreCopy&) = delete;

    Outcome run();

  private:
    enum class Walk { copy, compare };
    struct Entry {
        Item key;
        std::string value;
    };
    struct Difference;
    class Digest;

    bool takeIdentity();
    void walk(Walk kind, Item position, Digest& source, Digest& target);
    bool readStretch(const Item& position);
    /// What the target has between `position` and the end of the stretch, against the stretch. A null digest skips it.
    Difference compare(const Item& position, Digest* target);
    bool add(const std::vector<const Entry*>& missing);
    void tell(const Difference& found);

    /// The store that the mark belongs to, as it cannot change while that store lives.
    std::string sourceName() const;
    Item readMark();
    bool leaveMark(const Item& position);
    bool ascends(const ItemStore& store, const Item& before, const Item& key);
    bool fail(const CommitResult& result);
    /// False, with the reason in the outcome, when a store could not be read.
    bool isReadable();

    ItemStore& from_;
    StoreCore& source_;
    ItemStore& to_;
    StoreCore& target_;
    const StoreTools::Fault& fault_;
    const StoreTools::Progress& progress_;
    const std::uint64_t sourceFaults_;
    const std::uint64_t targetFaults_;

    Outcome outcome_;
    std::uint64_t walked_ = 0;
    std::vector<Entry> stretch_;
    // The stretch reaches to the end of the source.
    bool isLast_ = false;
};

}  // namespace qel::storage
