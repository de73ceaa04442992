#include "qelCore/PacketScheme.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <mutex>
#include <typeindex>

#include "packet/WireValue.h"
#include "qelCore/logging/Log.h"
#include "qelCore/logging/MessageStream.h"

namespace qel {

namespace {

struct Registry {
    std::mutex mutex;
    std::vector<PacketScheme*> schemes;
};

// There before any initialiser runs and never destroyed: schemes of libraries come and go before and after this
// one's statics. The last scheme leaves nothing allocated, as the library may be unloaded next.
union Kept {
    Registry registry;
    constexpr Kept() : registry() {}
    ~Kept() {}
};
constinit Kept kept;

Registry& registry() {
    return kept.registry;
}

struct ScalarType {
    std::type_index type;
    PacketScheme::Kind kind;
    int size;
};

template <class T>
ScalarType scalarType() {
    return {typeid(T), PacketScheme::kindOf<T>(), static_cast<int>(sizeof(T))};
}

PacketScheme::Kind kindOfType(const std::type_info* type, int size) {
    static const std::array types{
        scalarType<bool>(),          scalarType<char>(),      scalarType<signed char>(),
        scalarType<unsigned char>(), scalarType<short>(),     scalarType<unsigned short>(),
        scalarType<int>(),           scalarType<unsigned>(),  scalarType<long>(),
        scalarType<unsigned long>(), scalarType<long long>(), scalarType<unsigned long long>(),
        scalarType<float>(),         scalarType<double>()};
    if (type == nullptr)
        return PacketScheme::noKind;
    const auto found = std::find_if(types.begin(), types.end(), [&](const ScalarType& known) {
        return known.type == std::type_index(*type) && known.size == size;
    });
    return found == types.end() ? PacketScheme::noKind : found->kind;
}

const char* orEmpty(const char* text) {
    return text == nullptr ? "" : text;
}

}  // namespace

PacketScheme::PacketScheme(short type, const char* protocol, const char* session, const char* name)
    : type_(type), protocol_(orEmpty(protocol)), session_(orEmpty(session)), name_(orEmpty(name)) {
    const std::lock_guard lock(registry().mutex);
    registry().schemes.push_back(this);
}

PacketScheme::~PacketScheme() {
    const std::lock_guard lock(registry().mutex);
    auto& schemes = registry().schemes;
    std::erase(schemes, this);
    if (schemes.empty())
        schemes.shrink_to_fit();
}

int PacketScheme::getElementCount(short version) const {
    if (version < 1 || version > getNewestVersion())
        return -1;
    return static_cast<int>(versions_[static_cast<std::size_t>(version - 1)]);
}

PacketScheme* PacketScheme::find(short type) {
    const std::lock_guard lock(registry().mutex);
    const auto& schemes = registry().schemes;
    const auto found = std::find_if(schemes.rbegin(), schemes.rend(),
                                    [type](const PacketScheme* scheme) { return scheme->getType() == type; });
    return found == schemes.rend() ? nullptr : *found;
}

PacketScheme::Element& PacketScheme::addElement(const char* name, int count, int size,
                                                const std::type_info* type,
                                                const unsigned char* defaultValue) {
    Element& element = elements_.emplace_back();
    element.name = orEmpty(name);
    const Kind kind = kindOfType(type, size);
    if (kind == noKind || count < 1 || count > std::numeric_limits<std::uint16_t>::max()) {
        logging::MessageStream(logging::levelError, logging::channelSystem)
            << "packet scheme " << name_ << ": element " << element.name << " of " << count << " times "
            << size << " bytes has a type or size that packets cannot hold";
        return element;
    }
    element.kind = kind;
    element.count = count;
    element.size = size;
    const std::size_t width = static_cast<std::size_t>(size);
    element.defaultValue.assign(width * static_cast<std::size_t>(count), '\0');
    for (std::size_t at = 0; defaultValue != nullptr && at < element.defaultValue.size(); at += width)
        packet::copyScalar(element.defaultValue.data() + at, defaultValue + at, width);
    return element;
}

PacketScheme::Element& PacketScheme::Item(const char* name, int size) {
    Element& element = elements_.emplace_back();
    element.name = orEmpty(name);
    element.kind = itemKind;
    element.size = size;
    return element;
}

void PacketScheme::NextVersion() {
    versions_.push_back(elements_.size());
}

}  // namespace qel
