#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>

#include "qelCore/ConstByteSpan.h"
#include "qelCore/Export.h"

namespace qel {

class String;

/// An ordered list of typed elements (strings, 64-bit integers, booleans, plain bytes, nested items) held as
/// one encoded byte string, which is value, wire form and store key alike; and, as a key, a position in the
/// item store. A value type: each copy is independent; one object is used by one thread at a time, const use
/// by several is safe.
///
/// The bytewise order of two encodings is the order of their elements: one by one, a shorter item before its
/// continuation, integers by number, strings and bytes by their bytes. Nested items sort after integers,
/// strings and bytes. docs/formats/item.md gives every byte; the encoding lies on disk and on the wire and is
/// kept for good.
class QELCORE_EXPORT Item {
  public:
    class Iterator;

    /// Nested items deeper than this do not decode: the bound keeps foreign bytes from exhausting the stack.
    static constexpr int maxDepth = 32;
    /// Bound for `isWellFormed` when the caller has none of its own, in bytes.
    static constexpr std::size_t maxLength = std::size_t{16} << 20;

    /// Usable in constant initialisation: an empty item of static storage is there before any code runs.
    constexpr Item() noexcept : data_(inline_) {
        // Only there must every byte have a value; at run time it would be work for nothing.
        if (std::is_constant_evaluated())
            for (unsigned char& byte : inline_)
                byte = 0;
    }
    Item(const Item& other);
    Item(Item&& other) noexcept;
    Item& operator=(const Item& other);
    Item& operator=(Item&& other) noexcept;
    ~Item();

    // ----- the encoded bytes

    /// True when there is no encoded data.
    bool isEmpty() const { return size_ == 0; }
    /// The encoded bytes; valid until this item changes. Never null.
    const unsigned char* data() const { return data_; }
    /// Length of the encoded bytes.
    std::size_t size() const { return size_; }
    ConstByteSpan bytes() const { return {data_, size_}; }
    /// Copies `size` encoded bytes as they are; what does not decode is found out by whoever reads the
    /// elements. `data` may be null when `size` is 0, and may lie inside this item.
    void setPlain(const unsigned char* data, std::size_t size);
    void setPlain(ConstByteSpan bytes) { setPlain(bytes.data(), bytes.size()); }
    void clear();
    /// True when the bytes are a sequence of whole elements in their one valid form, at most `maxDepth` deep
    /// and at most `limit` bytes long. For bytes from outside; everything that the add operations make is
    /// well-formed.
    static bool isWellFormed(ConstByteSpan bytes, std::size_t limit = maxLength);
    bool isWellFormed() const { return isWellFormed(bytes()); }

    // ----- appending elements

    void addString(const char* text);
    void addString(std::string_view text);
    void addString(const String& text);
    void addString(const std::string& text) { addString(std::string_view(text)); }
    void addInteger(long long value);
    void addBool(bool value);
    void addBytes(const void* data, std::size_t size);
    /// Appends `item` as one nested element. Bytes that are not well-formed are kept as a bytes element and
    /// logged, so that they can harm nothing around them. `item` may be this item.
    void addItem(const Item& item);
    /// Appends every element of `item`, which may be this item.
    void concatItem(const Item& item);

    // ----- comparing, reading

    /// Negative, zero or positive as `a` sorts before, with or after `b`.
    static int compare(const Item& a, const Item& b);
    bool operator==(const Item& other) const { return compare(*this, other) == 0; }
    bool operator!=(const Item& other) const { return compare(*this, other) != 0; }
    bool operator<(const Item& other) const { return compare(*this, other) < 0; }

    /// One printable line for logs, for example ["audit",1700000000000000,[1,2],true,0x00ff]. Control
    /// characters, quotes and bytes that are no UTF-8 are escaped; what does not decode ends it with
    /// <malformed: N bytes>.
    String asString() const;

    /// The first element, when it has that type; else false and `value` stays as it was.
    bool decodeElementAsInteger(long long& value) const;
    bool decodeElementAsString(String& value) const;
    bool decodeElementAsItem(Item& value) const;

    // ----- as a position in the process's current store (ItemStore::current)
    //
    // Keys form a tree by their elements: the parent of a key is the key without its last element. All of
    // these see what this process has written, committed or not. Without a current store they find nothing; a
    // fault of the store is logged once per occurrence and reads as "nothing there". Read and write from any
    // thread.

    /// Sets `out` to the first key one element below this one and returns true; false when there is none. A
    /// child may exist only through its descendants: its `fetch` is null. `out` may be this item.
    bool child(Item& out) const;
    /// Moves to the nearest existing sibling behind this position, which need not exist itself; descendants
    /// are passed over. False, and unmoved, when there is none. A walk may see what other processes change in
    /// the next sixteen entries only 200 ms later.
    bool next();
    /// As `next`, and sets `value` to what `fetch` returns there: one look at the store instead of two, for
    /// walks that read every entry.
    bool next(ConstByteSpan& value);
    /// Moves to the nearest existing sibling before this position. False, and unmoved, when there is none.
    bool prev();
    /// The last element alone, as an item; empty for an empty item.
    Item trail() const;
    /// The value stored under this key, or a null span when there is none. Valid until this thread's next
    /// store operation (any operation of this section).
    ConstByteSpan fetch() const;
    /// Writes `value` under this key, replacing any value there. Without a write batch durable on return, or
    /// within the store's bounded delay when its durability is `deferred`; inside a batch with the batch (see
    /// WriteBatch). A key or value over the store's limit is refused with a log line and nothing else
    /// happens. Reports nothing: `ItemStore::flush` tells.
    void store(const Item& value) const;
    /// Deletes the value under this key, if there is one; durable as `store`. The position stays, `next` goes
    /// on.
    void remove() const;

  private:
    friend class ItemStore;
    friend class ItemNavigation;

    // Short keys and values, which are nearly all of them, need no memory of their own.
    static constexpr unsigned inlineCapacity = 60;

    unsigned char* reserve(std::size_t extra) {
        return extra <= capacity_ - size_ ? data_ + size_ : grow(extra);
    }
    unsigned char* grow(std::size_t extra);
    void assign(const unsigned char* data, std::size_t size);
    std::size_t lastElement() const;
    void addElement(unsigned char tag, const void* data, std::size_t size);

    unsigned char* data_;
    unsigned size_ = 0;
    unsigned capacity_ = inlineCapacity;
    // Start of the last element, or `unknown`: walking siblings need not decode the path at every step.
    unsigned last_ = 0;
    unsigned char inline_[inlineCapacity];
};

/// Walks the elements of an item from first to last. The item (or the bytes) must outlive it and stay
/// unchanged. Each decode operation returns false, and stays where it is, when there is no further element,
/// when the element has another type or when the bytes do not decode. One thread at a time.
class QELCORE_EXPORT Item::Iterator {
  public:
    explicit Iterator(const Item& item) : Iterator(item.bytes()) {}
    explicit Iterator(ConstByteSpan bytes) : at_(bytes.begin()), end_(bytes.end()) {}

    bool decodeElementAsString(String& value);
    /// False also when the value does not fit.
    bool decodeElementAsInteger(int& value);
    bool decodeElementAsInteger(long long& value);
    bool decodeElementAsBool(bool& value);
    bool decodeElementAsItem(Item& value);
    /// The same without a copy: `bytes` points into the item's own.
    bool decodeElementAsItem(ConstByteSpan& bytes);
    /// The decoded bytes are put into `value` as plain data.
    bool decodeElementAsBytes(Item& value);

    /// The next element as text, whatever its type: strings as they are, integers in decimal, booleans as 1
    /// or 0, bytes as hexadecimal digits, nested items in the form of `Item::asString`. False after the last
    /// element.
    bool convertAsString(String& text);
    /// The same, without a copy where the stored form allows it: `text` points into the item's bytes or into
    /// `scratch`, and is valid until either changes.
    bool convertAsText(std::string_view& text, std::string& scratch);

    /// Steps over one element of any type; false at the end or at bytes that do not decode.
    bool skip();
    /// True when nothing is left; bytes that do not decode are something left.
    bool atEnd() const { return at_ == end_; }
    /// What is left, as encoded bytes.
    ConstByteSpan rest() const { return {at_, static_cast<std::size_t>(end_ - at_)}; }

  private:
    const unsigned char* at_;
    const unsigned char* end_;
};

}  // namespace qel
