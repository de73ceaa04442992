#include "storage/StoreRecords.h"

#include "qelCore/String.h"
#include "qelCore/System.h"
#include "storage/Navigation.h"

namespace qel::storage {

namespace {

constexpr char identityKey[] = {ownRecords, 'i'};
constexpr char logKey[] = {ownRecords, 'l'};

Bytes keyOf(const char (&key)[2]) {
    return {key, 2};
}

std::string next(Item::Iterator& at) {
    String text;
    at.decodeElementAsString(text);
    return text.str();
}

Item encode(const StoreIdentity& identity) {
    Item out;
    out.addInteger(identity.format);
    out.addInteger(identity.created);
    out.addString(identity.site);
    out.addString(identity.siteKeyFingerprint);
    out.addString(identity.queueIdentity);
    return out;
}

StoreIdentity decode(const Item& item) {
    StoreIdentity out;
    Item::Iterator at(item);
    if (!at.decodeElementAsInteger(out.format) || !at.decodeElementAsInteger(out.created))
        return out;
    out.site = next(at);
    out.siteKeyFingerprint = next(at);
    out.queueIdentity = next(at);
    return out;
}

StoreLog decodeLog(Bytes name, const Item& item) {
    StoreLog out;
    out.name = name;
    Item::Iterator at(item);
    bool queue = false;
    if (at.decodeElementAsItem(out.path) && at.decodeElementAsBool(queue) &&
        at.decodeElementAsBool(out.anonymous))
        out.kind = queue ? StoreLog::Kind::queue : StoreLog::Kind::central;
    return out;
}

}  // namespace

bool StoreRecords::read(Bytes key, Item& out) {
    core_.forgetSnapshot();
    return core_.read([&](StoreReader& reader) {
        if (!reader.exactly(key))
            return false;
        out.setPlain(reinterpret_cast<const unsigned char*>(reader.value().data()), reader.value().size());
        return true;
    });
}

StoreIdentity StoreRecords::identity() {
    Item record;
    return read(keyOf(identityKey), record) ? decode(record) : StoreIdentity();
}

bool StoreRecords::checkFormat(const Item& record, std::string& reason) const {
    const StoreIdentity found = decode(record);
    if (found.format >= 1 && found.format <= currentFormat)
        return true;
    reason = "the store " + core_.url + " has format " + std::to_string(found.format) +
             "; this version reads formats up to " + std::to_string(currentFormat);
    return false;
}

bool StoreRecords::prepare(std::string& reason) {
    Item record;
    if (read(keyOf(identityKey), record))
        return checkFormat(record, reason);
    const bool isEmpty = !core_.read([](StoreReader& reader) { return reader.atLeast(Bytes("\0", 1)); });
    // Another process may have made it since the first look.
    if (!isEmpty && read(keyOf(identityKey), record))
        return checkFormat(record, reason);
    if (!isEmpty || core_.options.readOnly) {
        reason = "the files of " + core_.url + " hold no store of this system";
        return false;
    }
    StoreIdentity fresh;
    fresh.format = currentFormat;
    fresh.created = System::getUTCDateTime();
    bool written = false;
    const CommitResult result = exchange(StoreIdentity(), fresh, written);
    reason = result.reason;
    // Somebody else may have been faster, with the same format or a newer one.
    return result.durable && (written || prepare(reason));
}

CommitResult StoreRecords::write(const StoreIdentity& identity) {
    return core_.writeOwn(keyOf(identityKey), ItemNavigation::bytesOf(encode(identity)));
}

CommitResult StoreRecords::exchange(const StoreIdentity& before, const StoreIdentity& after, bool& written) {
    const Item old = before.format == 0 ? Item() : encode(before);
    const Item fresh = encode(after);
    const auto result = core_.engine().exchange(keyOf(identityKey), ItemNavigation::bytesOf(old),
                                                ItemNavigation::bytesOf(fresh), written);
    if (result)
        return *result;
    written = true;
    return write(after);
}

std::vector<StoreLog> StoreRecords::logs() {
    core_.forgetSnapshot();
    std::vector<StoreLog> out;
    core_.read([&](StoreReader& reader) {
        const Bytes prefix = keyOf(logKey);
        std::string key(prefix);
        for (bool found = reader.atLeast(key); found; found = reader.behind(key)) {
            key = reader.key();
            if (key.compare(0, prefix.size(), prefix) != 0)
                break;
            Item record;
            record.setPlain(reinterpret_cast<const unsigned char*>(reader.value().data()),
                            reader.value().size());
            out.push_back(decodeLog(Bytes(key).substr(prefix.size()), record));
        }
        return true;
    });
    return out;
}

CommitResult StoreRecords::write(const StoreLog& log) {
    if (log.name.empty() || log.name.size() > 200)
        return {false, "a log's name has 1 to 200 bytes; this one has " + std::to_string(log.name.size())};
    Item record;
    record.addItem(log.path);
    record.addBool(log.kind == StoreLog::Kind::queue);
    record.addBool(log.anonymous);
    return core_.writeOwn(std::string(keyOf(logKey)) + log.name, ItemNavigation::bytesOf(record));
}

}  // namespace qel::storage
