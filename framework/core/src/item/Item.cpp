#include "qelCore/Item.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "item/ItemCodec.h"
#include "qelCore/String.h"
#include "qelCore/logging/MessageStream.h"

namespace qel {

namespace {

constexpr unsigned unknown = ~0U;
// Far above every limit of store and wire; keeps lengths in 32 bits.
constexpr std::size_t longestItem = std::size_t{1} << 30;

std::size_t escapesIn(const unsigned char* data, std::size_t size) {
    return static_cast<std::size_t>(std::count_if(data, data + size, [](unsigned char c) { return c <= 1; }));
}

unsigned char* copyEscaped(const unsigned char* from, std::size_t size, unsigned char* to) {
    for (std::size_t i = 0; i < size; ++i) {
        if (from[i] > codec::escape) {
            *to++ = from[i];
        } else {
            *to++ = codec::escape;
            *to++ = from[i] == 0 ? codec::escapedZero : codec::escapedOne;
        }
    }
    return to;
}

}  // namespace

Item::Item(const Item& other) : data_(inline_) {
    assign(other.data_, other.size_);
    last_ = other.last_;
}

Item::Item(Item&& other) noexcept : data_(inline_) {
    *this = std::move(other);
}

Item& Item::operator=(const Item& other) {
    if (this != &other) {
        assign(other.data_, other.size_);
        last_ = other.last_;
    }
    return *this;
}

Item& Item::operator=(Item&& other) noexcept {
    if (this == &other)
        return *this;
    if (other.data_ == other.inline_) {
        std::memcpy(data_, other.data_, other.size_);
    } else {
        if (data_ != inline_)
            delete[] data_;
        data_ = other.data_;
        capacity_ = other.capacity_;
        other.data_ = other.inline_;
        other.capacity_ = inlineCapacity;
    }
    size_ = other.size_;
    last_ = other.last_;
    other.clear();
    return *this;
}

Item::~Item() {
    if (data_ != inline_)
        delete[] data_;
}

// Makes room for `extra` bytes more and returns where they go. What was there has moved: see the callers, which may append
// a part of the item itself.
unsigned char* Item::grow(std::size_t extra) {
    const std::size_t needed = size_ + extra;
    if (extra > longestItem || needed > longestItem)
        throw std::length_error("an item cannot hold more than 1 GiB");
    const std::size_t capacity = std::clamp(capacity_ * std::size_t{2}, needed, longestItem);
    auto* const fresh = new unsigned char[capacity];
    std::memcpy(fresh, data_, size_);
    if (data_ != inline_)
        delete[] data_;
    data_ = fresh;
    capacity_ = static_cast<unsigned>(capacity);
    return data_ + size_;
}

void Item::assign(const unsigned char* data, std::size_t size) {
    if (size > capacity_) {
        Item fresh;
        std::memcpy(fresh.reserve(size), data, size);
        fresh.size_ = static_cast<unsigned>(size);
        *this = std::move(fresh);
    } else if (size != 0) {
        std::memmove(data_, data, size);
    }
    size_ = static_cast<unsigned>(size);
    last_ = unknown;
}

void Item::setPlain(const unsigned char* data, std::size_t size) {
    assign(data, data == nullptr ? 0 : size);
}

void Item::clear() {
    size_ = 0;
    last_ = unknown;
}

bool Item::isWellFormed(ConstByteSpan bytes, std::size_t limit) {
    return bytes.size() <= limit && codec::isWellFormed(bytes.begin(), bytes.end(), maxDepth);
}

void Item::addElement(unsigned char tag, const void* data, std::size_t size) {
    const auto* from = static_cast<const unsigned char*>(data);
    const bool inside = from >= data_ && from < data_ + size_;
    if (inside) {
        const Item copy(*this);
        addElement(tag, copy.data_ + (from - data_), size);
        return;
    }
    const std::size_t escapes = size == 0 ? 0 : escapesIn(from, size);
    unsigned char* to = reserve(size + escapes + 2);
    last_ = size_;
    *to++ = tag;
    if (escapes != 0) {
        to = copyEscaped(from, size, to);
    } else if (size != 0) {
        std::memcpy(to, from, size);
        to += size;
    }
    *to++ = codec::endMark;
    size_ = static_cast<unsigned>(to - data_);
}

void Item::addString(const char* text) {
    addElement(codec::text, text, text == nullptr ? 0 : std::strlen(text));
}

void Item::addString(std::string_view text) {
    addElement(codec::text, text.data(), text.size());
}

void Item::addString(const String& text) {
    addElement(codec::text, text.data(), text.size());
}

void Item::addBytes(const void* data, std::size_t size) {
    addElement(codec::bytes, data, data == nullptr ? 0 : size);
}

void Item::addInteger(long long value) {
    unsigned char element[codec::longestInteger];
    const std::size_t length = codec::encodeInteger(value, element);
    std::memcpy(reserve(length), element, length);
    last_ = size_;
    size_ += static_cast<unsigned>(length);
}

void Item::addBool(bool value) {
    *reserve(1) = value ? codec::boolTrue : codec::boolFalse;
    last_ = size_++;
}

void Item::addItem(const Item& item) {
    if (!codec::isWellFormed(item.data_, item.data_ + item.size_, maxDepth - 1)) {
        logging::MessageStream(3, 2) << "an item that does not decode was added to another one; its "
                                     << item.size_ << " bytes are kept as plain bytes";
        addBytes(item.data_, item.size_);
        return;
    }
    const unsigned length = item.size_;
    unsigned char* const to = reserve(std::size_t{length} + 2);
    to[0] = codec::nested;
    // After `reserve`, because `item` may be this one.
    std::memcpy(to + 1, item.data_, length);
    to[1 + length] = codec::endMark;
    last_ = size_;
    size_ += length + 2;
}

void Item::concatItem(const Item& item) {
    const unsigned length = item.size_;
    if (length == 0)
        return;
    const unsigned last = item.last_;
    unsigned char* const to = reserve(length);
    std::memcpy(to, item.data_, length);
    last_ = last == unknown ? unknown : size_ + last;
    size_ += length;
}

int Item::compare(const Item& a, const Item& b) {
    const int order = std::memcmp(a.data_, b.data_, std::min(a.size_, b.size_));
    if (order != 0)
        return order;
    return a.size_ == b.size_ ? 0 : a.size_ < b.size_ ? -1 : 1;
}

std::size_t Item::lastElement() const {
    if (last_ != unknown && last_ < size_)
        return last_;
    const unsigned char* const end = data_ + size_;
    const unsigned char* at = data_;
    while (at != end) {
        const unsigned char* const after = codec::elementEnd(at, end);
        // Bytes that do not decode count as the last element.
        if (after == nullptr || after == end)
            break;
        at = after;
    }
    return static_cast<std::size_t>(at - data_);
}

Item Item::trail() const {
    Item out;
    const std::size_t start = lastElement();
    const std::size_t length = size_ - start;
    std::memcpy(out.reserve(length), data_ + start, length);
    out.size_ = static_cast<unsigned>(length);
    return out;
}

bool Item::decodeElementAsInteger(long long& value) const {
    return Iterator(*this).decodeElementAsInteger(value);
}

bool Item::decodeElementAsString(String& value) const {
    return Iterator(*this).decodeElementAsString(value);
}

bool Item::decodeElementAsItem(Item& value) const {
    return Iterator(*this).decodeElementAsItem(value);
}

}  // namespace qel
