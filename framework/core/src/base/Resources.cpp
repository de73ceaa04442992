#include "qelCore/Resources.h"

#include <map>
#include <mutex>
#include <string>

namespace qel::resources {

namespace {

constexpr unsigned char nothing = 0;

struct Table {
    std::mutex mutex;
    std::map<std::string, ConstByteSpan, std::less<>> entries;
};

// Never destroyed: other static objects may ask for a resource while they end.
Table& table() {
    static Table* const instance = new Table;
    return *instance;
}

}  // namespace

void set(const char* name, ConstByteSpan bytes) {
    if (name == nullptr)
        return;
    const ConstByteSpan present = bytes.isNull() ? ConstByteSpan(&nothing, 0) : bytes;
    const std::lock_guard lock(table().mutex);
    table().entries.insert_or_assign(name, present);
}

void clear(const char* name) {
    if (name == nullptr)
        return;
    const std::lock_guard lock(table().mutex);
    table().entries.erase(name);
}

void clear() {
    const std::lock_guard lock(table().mutex);
    table().entries.clear();
}

ConstByteSpan find(const char* name) {
    if (name == nullptr)
        return nullptr;
    const std::lock_guard lock(table().mutex);
    const auto entry = table().entries.find(name);
    return entry == table().entries.end() ? ConstByteSpan() : entry->second;
}

}  // namespace qel::resources
