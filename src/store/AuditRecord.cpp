#include "store/AuditRecord.h"

#include <string>

#include "qelCore/String.h"
#include "qelCore/util/Crc32c.h"

namespace qel::record {

namespace {

/// Bytes of one identity block.
constexpr unsigned blockSize = 32;

/// What stands in place of the device in an anonymous log.
constexpr const char* hiddenDevice = "***";

}  // namespace

Item queueKey(const Item& path, long long time) {
    Item key(path);
    key.addInteger(time);
    return key;
}

Item centralKey(const Item& path, long long time, long long origin) {
    Item last;
    last.addInteger(time);
    last.addInteger(origin);
    Item key(path);
    key.addItem(last);
    return key;
}

Item centralKeyBeforeAll(const Item& path, long long time) {
    Item last;
    last.addInteger(time);
    Item key(path);
    key.addItem(last);
    return key;
}

unsigned originChecksum(const unsigned char* userBlock, const unsigned char* deviceBlock) {
    return util::crc32c(util::crc32c(originSeed, userBlock, blockSize), deviceBlock, blockSize);
}

Item origin(const char* user, const char* device, unsigned checksum, bool anonymous) {
    Item made;
    made.addString(anonymous ? std::to_string(checksum).c_str() : user);
    made.addString(anonymous ? hiddenDevice : device);
    return made;
}

Item centralValue(const Item& origin, const Item& event) {
    Item value(origin);
    value.concatItem(event);
    return value;
}

bool hasOrigin(ConstByteSpan value) {
    String text;
    Item::Iterator elements(value);
    return elements.decodeElementAsString(text) && elements.decodeElementAsString(text);
}

bool readQueueTime(const Item& key, long long& time) {
    return key.trail().decodeElementAsInteger(time);
}

bool readQueueTime(const Item& key, std::size_t pathSize, long long& time) {
    return Item::Iterator(ConstByteSpan(key.data() + pathSize, key.size() - pathSize))
        .decodeElementAsInteger(time);
}

bool readCentralKey(const Item& key, long long& time, long long& origin) {
    Item last;
    if (!key.trail().decodeElementAsItem(last))
        return false;
    Item::Iterator elements(last);
    return elements.decodeElementAsInteger(time) && elements.decodeElementAsInteger(origin) &&
           elements.atEnd();
}

}  // namespace qel::record
