#pragma once

#include <algorithm>
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
    /// Values up to here are copied by a walk before anybody asked for them.
    static constexpr std::size_t unasked = 1024;

    ConstByteSpan hold(Bytes value) {
        generation_ = 0;
        return put({}, value);
    }
    /// Found under that key when the overlay had that generation (never 0).
    ConstByteSpan hold(Bytes key, Bytes value, std::uint64_t generation) {
        generation_ = generation;
        keySize_ = key.size();
        valueSize_ = value.size();
        return put(key, value);
    }
    void forget() { generation_ = 0; }
    bool holds(Bytes key, std::uint64_t generation) const {
        return generation_ == generation && keySize_ == key.size() &&
               codec::areEqual(room_.data(), key.data(), key.size());
    }
    ConstByteSpan value() const { return {room_.data() + keySize_, valueSize_}; }

  private:
    // Larger values give their room back.
    static constexpr std::size_t keptBytes = std::size_t{64} << 10;

    ConstByteSpan put(Bytes key, Bytes value) {
        const std::size_t size = key.size() + value.size();
        if (room_.size() < size + 1 || (room_.size() > keptBytes && size < keptBytes))
            room_ = std::vector<unsigned char>(std::max<std::size_t>(512, size + 1));
        unsigned char* const at = room_.data();
        // The engine has them side by side.
        if (!key.empty() && key.data() + key.size() == value.data()) {
            std::memcpy(at, key.data(), size);
        } else {
            key.copy(reinterpret_cast<char*>(at), key.size());
            value.copy(reinterpret_cast<char*>(at + key.size()), value.size());
        }
        return {at + key.size(), value.size()};
    }
    std::vector<unsigned char> room_;
    std::size_t keySize_ = 0;
    std::size_t valueSize_ = 0;
    // 0 when no key is known.
    std::uint64_t generation_ = 0;
};

}  // namespace qel::storage
