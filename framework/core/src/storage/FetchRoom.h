#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "qelCore/ConstByteSpan.h"
#include "storage/Engine.h"

namespace qel::storage {

/// Where a thread's last value lies for whoever fetched it, and with its key for whoever will: a walk copies each small entry
/// as it goes, and the `fetch` that follows need not look into the store again.
class FetchRoom {
  public:
    ConstByteSpan hold(Bytes value) {
        generation_ = 0;
        return put({}, value);
    }
    /// An entry that a move found when the overlay had that generation (never 0): kept with its key if that is what the move
    /// came to, and the value is small.
    void holdForFetch(Bytes key, Bytes value, std::size_t size, std::uint64_t generation) {
        generation_ = 0;
        if (key.size() != size || value.size() > unasked)
            return;
        generation_ = generation;
        keySize_ = size;
        valueSize_ = value.size();
        put(key, value);
    }
    void forget() { generation_ = 0; }
    bool holds(Bytes key, std::uint64_t generation) const {
        return generation_ == generation && keySize_ == key.size() &&
               codec::areEqual(room_.data(), key.data(), key.size());
    }
    ConstByteSpan value() const { return {room_.data() + keySize_, valueSize_}; }

  private:
    // Values up to here are copied by a walk before anybody asked for them.
    static constexpr std::size_t unasked = 1024;
    // Larger values give their room back.
    static constexpr std::size_t keptBytes = std::size_t{64} << 10;

    ConstByteSpan put(Bytes key, Bytes value) {
        const std::size_t size = key.size() + value.size();
        if (size >= room_.size() || room_.size() > keptBytes)
            fit(size);
        unsigned char* const at = room_.data();
        // The engine has them side by side.
        if (key.data() + key.size() == value.data()) {
            if (size != 0)
                std::memcpy(at, key.data(), size);
        } else {
            key.copy(reinterpret_cast<char*>(at), key.size());
            value.copy(reinterpret_cast<char*>(at + key.size()), value.size());
        }
        return {at + key.size(), value.size()};
    }
    void fit(std::size_t size);

    std::vector<unsigned char> room_;
    std::size_t keySize_ = 0;
    std::size_t valueSize_ = 0;
    // 0 when no key is known.
    std::uint64_t generation_ = 0;
};

}  // namespace qel::storage
