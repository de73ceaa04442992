#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace qel {

/// A report of ten million lines meets the same few thousand names and days over and over. These tables give
/// each one a number, once, so that everything behind them compares numbers: a once-rule becomes a 64-bit key,
/// and looking up takes the same time however many there are. All are for one thread.

void* allocateLarge(std::size_t bytes);

/// Hands out memory for large tables in large pages where the system has them: tables of millions of entries are
/// read at random, and most of the time would go into finding small pages.
template <class T>
struct LargePages {
    using value_type = T;

    LargePages() = default;
    template <class U>
    LargePages(const LargePages<U>&) {}

    T* allocate(std::size_t count) { return static_cast<T*>(allocateLarge(count * sizeof(T))); }
    void deallocate(T* memory, std::size_t) { std::free(memory); }
    friend bool operator==(const LargePages&, const LargePages&) { return true; }
};

template <class T>
using Table = std::vector<T, LargePages<T>>;

/// Numbers texts from 0 in the order in which they are met.
class TextNumbers {
  public:
    TextNumbers();

    /// The number of the text; a text not met before is entered without being copied, so its bytes must stay.
    std::uint32_t numberOf(std::string_view text);
    /// The same for a text that does not stay: it is copied when it is new.
    std::uint32_t numberOfCopy(std::string_view text);

    /// The same in steps, for many texts at once: whoever calls for a slot, its entry and its text some time
    /// before it asks for the number does not wait for memory three times.
    static std::uint32_t hashOf(std::string_view text);
    void callSlot(std::uint32_t hash) const { __builtin_prefetch(&home(hash)); }
    void callEntry(std::uint32_t hash) const {
        if (home(hash).number != 0)
            __builtin_prefetch(&texts_[home(hash).number - 1]);
    }
    void callText(std::uint32_t hash) const {
        if (home(hash).number != 0)
            __builtin_prefetch(texts_[home(hash).number - 1].data());
    }
    std::uint32_t numberOf(std::string_view text, std::uint32_t hash);

    std::uint32_t count() const { return static_cast<std::uint32_t>(texts_.size()); }
    std::string_view text(std::uint32_t number) const { return texts_[number]; }

  private:
    struct Slot {
        std::uint32_t hash = 0;    ///< so that few texts have to be compared, and none to grow
        std::uint32_t number = 0;  ///< plus one; 0 is a free slot
    };

    const Slot& home(std::uint32_t hash) const { return slots_[hash & (slots_.size() - 1)]; }
    /// The slot that holds the text, or the free one where it belongs.
    Slot& find(std::string_view text, std::uint32_t hash);
    std::uint32_t enter(Slot& slot, std::string_view text, std::uint32_t hash);
    void grow();

    Table<Slot> slots_;
    Table<std::string_view> texts_;
    std::deque<std::string> copies_;
};

/// Two 32-bit numbers as one key.
constexpr std::uint64_t pairKey(std::uint32_t high, std::uint32_t low) {
    return std::uint64_t{high} << 32 | low;
}
constexpr std::uint32_t highOf(std::uint64_t key) {
    return static_cast<std::uint32_t>(key >> 32);
}
constexpr std::uint32_t lowOf(std::uint64_t key) {
    return static_cast<std::uint32_t>(key);
}

/// Numbers 64-bit keys from 1 in the order in which they are met. (From 1, so that a pair whose high half is
/// such a number is never 0, which OnceSet needs.)
class KeyNumbers {
  public:
    KeyNumbers();
    std::uint32_t numberOf(std::uint64_t key);

  private:
    struct Slot {
        std::uint64_t key = 0;
        std::uint32_t number = 0;
    };

    void grow();

    Table<Slot> slots_;
    std::uint32_t count_ = 0;
};

/// Remembers 64-bit keys, eight bytes each at a third to two thirds of the slots in use; looking up allocates
/// nothing. A key must not be 0.
class OnceSet {
  public:
    OnceSet();
    /// Calls for the memory of a key some time before it is inserted.
    void call(std::uint64_t key) const;
    /// True when the key was not there before.
    bool insert(std::uint64_t key);
    std::size_t size() const { return count_; }

    template <class Use>
    void forEach(const Use& use) const {
        for (const std::uint64_t key : slots_)
            if (key != 0)
                use(key);
    }

  private:
    void grow();

    Table<std::uint64_t> slots_;
    std::size_t count_ = 0;
};

}  // namespace qel
