#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "qelCore/Export.h"

namespace qel {

/// The value types that a packet's scalar elements have.
template <class T>
concept PacketScalar = std::is_same_v<T, bool> || std::is_same_v<T, float> || std::is_same_v<T, double> ||
    (std::is_integral_v<T> && sizeof(T) <= 8);

/// The shape of one kind of packet: its type number, its names, and the elements of each of its versions. A
/// scheme is a static object of a class derived from this one, whose constructor adds the elements; it is
/// complete after that, read only, and used from any thread. While it lives it is listed under its type, from
/// its construction (which may be before other static initialisers, in a library that is being loaded) until
/// its destruction (also by dlclose). Packets made with a scheme must not outlive it.
class QELCORE_EXPORT PacketScheme {
  public:
    /// What an element is on the wire: the byte that stands before its value. Kept for good.
    using Kind = unsigned char;
    static constexpr Kind itemKind = 0x50;
    /// Marks an element of several values: their number follows the kind.
    static constexpr Kind arrayFlag = 0x80;
    /// Of an element that was declared with a type or size that no packet can hold: no packet fits then.
    static constexpr Kind noKind = 0;

    template <PacketScalar T>
    static constexpr Kind kindOf() {
        constexpr int power = sizeof(T) == 8 ? 3 : sizeof(T) == 4 ? 2 : sizeof(T) == 2 ? 1 : 0;
        if constexpr (std::is_same_v<T, bool>)
            return 0x40;
        else if constexpr (std::is_floating_point_v<T>)
            return static_cast<Kind>(0x30 | power);
        else if constexpr (std::is_unsigned_v<T>)
            return static_cast<Kind>(0x20 | power);
        else
            return static_cast<Kind>(0x10 | power);
    }

    struct Element {
        std::string name;
        Kind kind = noKind;
        /// Number of values, 1 to 65535; 1 for an item.
        int count = 1;
        /// Bytes of one value; of an item its exact encoded size, or -1 for any.
        int size = 0;
        /// The values that a new packet begins with, in wire form; zeros when none were given.
        std::string defaultValue;

        bool isItem() const { return kind == itemKind; }
    };

    PacketScheme(const PacketScheme&) = delete;
    PacketScheme& operator=(const PacketScheme&) = delete;
    ~PacketScheme();

    short getType() const { return type_; }
    const char* getProtocolName() const { return protocol_.c_str(); }
    const char* getSessionName() const { return session_.c_str(); }
    const char* getName() const { return name_.c_str(); }

    /// Versions count from 1; 0 when none was closed.
    short getNewestVersion() const { return static_cast<short>(versions_.size()); }
    /// How many of `elements` the version has: those of all versions before it and its own. -1 when there is
    /// no such version.
    int getElementCount(short version) const;
    const std::deque<Element>& getElements() const { return elements_; }

    /// The scheme of that type that was constructed last and still lives, or null.
    static PacketScheme* find(short type);

  protected:
    PacketScheme(short type, const char* protocol, const char* session, const char* name);

    /// Adds a scalar element of `count` values of `size` bytes each. `type` is the type of bool, of an
    /// integer or of a floating-point number; `defaultValue` points at `count` values as they lie in memory,
    /// or is null for zeros.
    Element& addElement(const char* name, int count, int size, const std::type_info* type,
                        const unsigned char* defaultValue);
    /// Adds an item element of exactly `size` encoded bytes, or of any size (-1).
    Element& Item(const char* name, int size);
    /// Closes a version: it has all elements added so far.
    void NextVersion();

  private:
    short type_;
    std::string protocol_;
    std::string session_;
    std::string name_;
    std::deque<Element> elements_;
    std::vector<std::size_t> versions_;
};

}  // namespace qel
