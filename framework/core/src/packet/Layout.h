#pragma once

#include <cstddef>
#include <string>

#include "qelCore/ConstByteSpan.h"
#include "qelCore/PacketScheme.h"

namespace qel::packet {

/// Steps through the elements of an encoded packet as a scheme declares them, from the first one on, trusting
/// no byte.
class Layout {
  public:
    explicit Layout(ConstByteSpan encoded);

    /// Takes the next element. False when the bytes there are not one: another kind or count, or too few
    /// bytes. An item is taken whatever its size and content.
    bool take(const PacketScheme::Element& element);

    /// Of the element taken last: where its values, or its item, lie, and how many bytes they are.
    std::size_t valueOffset() const { return valueOffset_; }
    std::size_t valueSize() const { return valueSize_; }
    bool atEnd() const { return at_ == encoded_.size(); }

  private:
    bool takeKind(const PacketScheme::Element& element);
    bool takeItemSize();
    bool has(std::size_t size) const { return size <= encoded_.size() - at_; }

    ConstByteSpan encoded_;
    std::size_t at_;
    std::size_t valueOffset_ = 0;
    std::size_t valueSize_ = 0;
};

/// Appends an element with its default value, or an empty item.
void appendDefault(std::string& out, const PacketScheme::Element& element);

/// Bytes of the length in front of an item.
constexpr std::size_t itemLengthSize = 4;

}  // namespace qel::packet
