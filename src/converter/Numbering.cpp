#include "converter/Numbering.h"

#include <sys/mman.h>

#include <chrono>
#include <cstring>
#include <exception>
#include <new>
#include <random>

namespace qel {

namespace {

constexpr std::size_t firstSlots = 64;  // a power of two, as every later size

/// Different in every process, so that nobody can choose names of a log that all fall into one slot.
std::uint64_t chooseSeed() {
    try {
        std::random_device device;
        return (std::uint64_t{device()} << 32 | device()) | 1;
    } catch (const std::exception&) {
        return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) | 1;
    }
}

const std::uint64_t seed = chooseSeed();

std::uint64_t mixed(std::uint64_t key) {
    key ^= seed;
    key ^= key >> 32;
    key *= 0xd6e8feb86659fd93U;
    key ^= key >> 32;
    key *= 0xd6e8feb86659fd93U;
    key ^= key >> 32;
    return key;
}

std::uint64_t folded(std::uint64_t a, std::uint64_t b) {
    __extension__ using Wide = unsigned __int128;
    const Wide product = static_cast<Wide>(a) * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

std::uint64_t load(const char* bytes, std::size_t size) {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, size);
    return word;
}

bool tooFull(std::size_t entries, std::size_t slots) {
    return entries * 3 > slots * 2;
}

}  // namespace

void* allocateLarge(std::size_t bytes) {
    constexpr std::size_t largePage = std::size_t{2} << 20;
    const std::size_t page = bytes < largePage ? alignof(std::max_align_t) : largePage;
    void* const memory = std::aligned_alloc(page, (bytes + page - 1) / page * page);
    if (memory == nullptr)
        throw std::bad_alloc();
    if (page == largePage)
        ::madvise(memory, bytes, MADV_HUGEPAGE);  // no harm where it fails
    return memory;
}

// TextNumbers ------------------------------------------------------------------------------------------------

TextNumbers::TextNumbers() : slots_(firstSlots) {}

std::uint32_t TextNumbers::hashOf(std::string_view text) {
    std::uint64_t hash = seed ^ text.size();
    const char* at = text.data();
    std::size_t left = text.size();
    for (; left >= 16; left -= 16, at += 16)
        hash = folded(load(at, 8) ^ 0x9e3779b97f4a7c15U ^ hash, load(at + 8, 8) ^ seed);
    if (left >= 8) {
        hash = folded(load(at, 8) ^ 0x9e3779b97f4a7c15U ^ hash, seed);
        at += 8;
        left -= 8;
    }
    if (left > 0)
        hash = folded(load(at, left) ^ 0xc2b2ae3d27d4eb4fU ^ hash, seed);
    return static_cast<std::uint32_t>(mixed(hash));
}

TextNumbers::Slot& TextNumbers::find(std::string_view text, std::uint32_t hash) {
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t at = hash & mask;; at = (at + 1) & mask) {
        Slot& slot = slots_[at];
        if (slot.number == 0 || (slot.hash == hash && texts_[slot.number - 1] == text))
            return slot;
    }
}

std::uint32_t TextNumbers::enter(Slot& slot, std::string_view text, std::uint32_t hash) {
    texts_.push_back(text);
    slot = {hash, count()};
    if (tooFull(texts_.size(), slots_.size()))
        grow();
    return count() - 1;
}

std::uint32_t TextNumbers::numberOf(std::string_view text) {
    return numberOf(text, hashOf(text));
}

std::uint32_t TextNumbers::numberOf(std::string_view text, std::uint32_t hash) {
    Slot& slot = find(text, hash);
    return slot.number != 0 ? slot.number - 1 : enter(slot, text, hash);
}

std::uint32_t TextNumbers::numberOfCopy(std::string_view text) {
    const std::uint32_t hash = hashOf(text);
    Slot& slot = find(text, hash);
    return slot.number != 0 ? slot.number - 1 : enter(slot, copies_.emplace_back(text), hash);
}

void TextNumbers::grow() {
    Table<Slot> before(slots_.size() * 2);
    before.swap(slots_);
    const std::size_t mask = slots_.size() - 1;
    for (const Slot& slot : before) {
        if (slot.number == 0)
            continue;
        std::size_t at = slot.hash & mask;
        while (slots_[at].number != 0)
            at = (at + 1) & mask;
        slots_[at] = slot;
    }
}

// KeyNumbers -------------------------------------------------------------------------------------------------

KeyNumbers::KeyNumbers() : slots_(firstSlots) {}

std::uint32_t KeyNumbers::numberOf(std::uint64_t key) {
    const std::size_t mask = slots_.size() - 1;
    std::size_t at = mixed(key) & mask;
    while (slots_[at].number != 0) {
        if (slots_[at].key == key)
            return slots_[at].number;
        at = (at + 1) & mask;
    }
    slots_[at] = {key, ++count_};
    const std::uint32_t number = count_;
    if (tooFull(count_, slots_.size()))
        grow();
    return number;
}

void KeyNumbers::grow() {
    Table<Slot> before(slots_.size() * 2);
    before.swap(slots_);
    const std::size_t mask = slots_.size() - 1;
    for (const Slot& slot : before) {
        if (slot.number == 0)
            continue;
        std::size_t at = mixed(slot.key) & mask;
        while (slots_[at].number != 0)
            at = (at + 1) & mask;
        slots_[at] = slot;
    }
}

// OnceSet ----------------------------------------------------------------------------------------------------

OnceSet::OnceSet() : slots_(firstSlots) {}

void OnceSet::call(std::uint64_t key) const {
    __builtin_prefetch(&slots_[mixed(key) & (slots_.size() - 1)]);
}

bool OnceSet::insert(std::uint64_t key) {
    const std::size_t mask = slots_.size() - 1;
    std::size_t at = mixed(key) & mask;
    while (slots_[at] != 0) {
        if (slots_[at] == key)
            return false;
        at = (at + 1) & mask;
    }
    slots_[at] = key;
    if (tooFull(++count_, slots_.size()))
        grow();
    return true;
}

void OnceSet::grow() {
    Table<std::uint64_t> before(slots_.size() * 2);
    before.swap(slots_);
    const std::size_t mask = slots_.size() - 1;
    for (const std::uint64_t key : before) {
        if (key == 0)
            continue;
        std::size_t at = mixed(key) & mask;
        while (slots_[at] != 0)
            at = (at + 1) & mask;
        slots_[at] = key;
    }
}

}  // namespace qel
