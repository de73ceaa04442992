#pragma once

#include <cstddef>
#include <string>

#include "qelCore/ConstByteSpan.h"
#include "qelCore/Export.h"
#include "qelCore/Item.h"
#include "qelCore/Object.h"
#include "qelCore/PacketScheme.h"

namespace qel {

/// One message between two programs: a type number, a version and the elements that its scheme declares, kept
/// in the encoded form that travels (docs/formats/packet.md). Reference-counted: its creator holds the first
/// reference. One thread at a time. A packet from outside is any bytes at all until `fit` has said that they
/// are what a scheme declares; one of an unknown type can be passed on, declined and dropped, but not looked
/// into.
class QELCORE_EXPORT Packet : public Object {
    QEL_CLASS(Packet, Object)

    /// Bytes of type and version, which every packet begins with.
    static constexpr std::size_t headerSize = 4;
    /// Largest encoded size, so that lengths never overflow; networks set far smaller limits of their own.
    static constexpr std::size_t maxEncodedSize = std::size_t{1} << 30;

    /// A packet of a scheme with its default values and empty items. `version` counts from 1; -1 is the
    /// scheme's newest, and so is any version that it does not have.
    Packet(PacketScheme* scheme, short version);
    ~Packet() override;
    Packet(const Packet&) = delete;
    Packet& operator=(const Packet&) = delete;

    /// A packet that looks into `bytes`, which must stay as they are until it is destroyed or `ownBytes` was
    /// called; nothing is copied. Null when they are shorter than a header or longer than `maxEncodedSize`.
    /// The caller holds the reference.
    static Packet* decode(ConstByteSpan bytes);
    /// Copies the bytes that the packet looks into, unless it has its own already. The framework calls it
    /// when somebody keeps a received packet beyond the call that brought it.
    void ownBytes();

    short getType() const { return type_; }
    short getVersion() const { return version_; }

    /// Whether this packet is what `scheme` declares: its type, one of its versions, and exactly that
    /// version's elements, with well-formed items. Only then can its elements be read (a packet made by its
    /// scheme needs no asking). False for null.
    bool fit(PacketScheme* scheme);

    /// The whole packet in its encoded form; valid until the packet changes or ends.
    ConstByteSpan getEncoded() const { return borrowed_.isNull() ? ConstByteSpan(owned_) : borrowed_; }

    /// Reads a value of the element `name`; `index` counts its values from 0. False, with `value` as it was,
    /// when there is no such value, or it is of another type.
    template <PacketScalar T>
    bool singleGet(const char* name, T& value, int index = 0) const {
        return readScalar(name, index, PacketScheme::kindOf<T>(), &value);
    }
    /// The same; zero where the above is false.
    template <PacketScalar T>
    T singleGet(const char* name) const {
        T value{};
        singleGet(name, value);
        return value;
    }
    /// Sets a value of the element `name`. False, with nothing changed and an error in the log, when there is
    /// no such value, or it is of another type.
    template <PacketScalar T>
    bool singleSet(const char* name, T value, int index = 0) {
        return writeScalar(name, index, PacketScheme::kindOf<T>(), &value);
    }
    template <PacketScalar T>
    void singleSetInternal(const char* name, T value) {
        singleSet(name, value);
    }

    /// Sets an item element. A name that is no item element, an item of a size that the scheme does not
    /// allow, or one that would make the packet too large, is logged and changes nothing.
    void setItem(const char* name, const Item& value);
    /// A copy of an item element; empty when there is none of that name.
    Item getItem(const char* name) const;
    /// The encoded bytes of an item element without a copy; null when there is none of that name; valid until
    /// the packet changes or ends.
    ConstByteSpan getItemBytes(const char* name) const;

  private:
    /// Where an element's values (not its kind and lengths) lie in the encoded form.
    struct Place {
        const PacketScheme::Element* element = nullptr;
        std::size_t offset = 0;
        std::size_t size = 0;
    };

    explicit Packet(ConstByteSpan bytes);
    Place find(const char* name) const;
    Place findScalar(const char* name, int index, PacketScheme::Kind kind) const;
    bool readScalar(const char* name, int index, PacketScheme::Kind kind, void* value) const;
    bool writeScalar(const char* name, int index, PacketScheme::Kind kind, const void* value);

    // Null until the packet is known to fit.
    const PacketScheme* scheme_ = nullptr;
    short type_;
    short version_;
    // The bytes of somebody else while not null, else `owned_` holds the packet.
    ConstByteSpan borrowed_;
    std::string owned_;
};

}  // namespace qel
