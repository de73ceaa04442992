#include "storage/StoreCopy.h"

#include <openssl/evp.h>

#include <algorithm>
#include <memory>

#include "qelCore/String.h"
#include "storage/Navigation.h"

namespace qel::storage {

namespace {

// One stretch is read, compared and committed at a time.
constexpr std::size_t stretchBytes = std::size_t{4} << 20;
constexpr std::size_t stretchEntries = 16384;

// Of the store's own records at the target: how far which source was copied. Lies on disk.
constexpr char markKey[] = {ownRecords, 'm'};

std::string hexadecimal(const unsigned char* bytes, std::size_t size) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    for (std::size_t i = 0; i < size; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 15];
    }
    return out;
}

}  // namespace

/// SHA-256 over keys and values in order of key, each with its size before it.
class StoreCopy::Digest {
  public:
    Digest() : context_(EVP_MD_CTX_new()) { EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr); }

    void assign(const Digest& other) { EVP_MD_CTX_copy_ex(context_.get(), other.context_.get()); }
    void add(const Item& key, std::string_view value) {
        add({reinterpret_cast<const char*>(key.data()), key.size()});
        add(value);
    }
    std::string text() {
        unsigned char bytes[32];
        EVP_DigestFinal_ex(context_.get(), bytes, nullptr);
        return hexadecimal(bytes, sizeof bytes);
    }

  private:
    struct Free {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };

    void add(std::string_view bytes) {
        const std::uint64_t size = bytes.size();
        unsigned char head[8];
        for (int i = 0; i < 8; ++i)
            head[i] = static_cast<unsigned char>(size >> (56 - 8 * i));
        EVP_DigestUpdate(context_.get(), head, sizeof head);
        EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size());
    }

    std::unique_ptr<EVP_MD_CTX, Free> context_;
};

/// Between one stretch of the source and the same stretch of the target.
struct StoreCopy::Difference {
    std::vector<const Entry*> missing;
    std::vector<const Entry*> differing;
    std::vector<Item> extra;
    // A few are named, all are counted.
    std::uint64_t extraCount = 0;
    std::uint64_t targetEntries = 0;
};

StoreCopy::StoreCopy(ItemStore& from, StoreCore& source, ItemStore& to, StoreCore& target,
                     const StoreTools::Fault& fault, const StoreTools::Progress& progress)
    : from_(from),
      source_(source),
      to_(to),
      target_(target),
      fault_(fault),
      progress_(progress),
      sourceFaults_(source.engine().readFaults),
      targetFaults_(target.engine().readFaults) {}

bool StoreCopy::fail(const CommitResult& result) {
    if (!result && outcome_.result)
        outcome_.result = result;
    return outcome_.result.durable;
}

bool StoreCopy::isReadable() {
    if (source_.engine().readFaults != sourceFaults_)
        return fail({false, "the store " + from_.url() + " could not be read to its end"});
    if (target_.engine().readFaults != targetFaults_)
        return fail({false, "the store " + to_.url() + " could not be read to its end"});
    return true;
}

// A walk that turns back, in a damaged file, may never end.
bool StoreCopy::ascends(const ItemStore& store, const Item& before, const Item& key) {
    return before.isEmpty() || before < key ||
           fail({false, "the store " + store.url() + " is damaged: its keys do not ascend at " +
                            key.asString().str()});
}

// Nothing that the target knows already is changed.
bool StoreCopy::takeIdentity() {
    const StoreIdentity identity = from_.identity();
    const StoreIdentity present = to_.identity();
    const auto logs = from_.logs();
    for (const StoreLog& log : logs) {
        StoreLog other;
        if (to_.findLog(log.name, other) &&
            (other.path != log.path || other.kind != log.kind || other.anonymous != log.anonymous))
            return fail({false, "the store " + to_.url() + " has another log by the name \"" + log.name +
                                    "\", at " + other.path.asString().str()});
    }
    CommitResult result;
    if (!identity.siteKeyFingerprint.empty())
        result.durable = to_.bindSiteKey(identity.siteKeyFingerprint, result.reason);
    if (result && !identity.queueIdentity.empty())
        result.durable = to_.bindQueueIdentity(identity.queueIdentity, result.reason);
    if (result && present.site.empty())
        result = to_.setSite(identity.site);
    for (const StoreLog& log : logs)
        if (StoreLog other; result && !to_.findLog(log.name, other))
            result = to_.setLog(log);
    return fail(result) && isReadable();
}

std::string StoreCopy::sourceName() const {
    const StoreIdentity identity = from_.identity();
    return std::to_string(identity.created) + ' ' + identity.siteKeyFingerprint + ' ' +
           identity.queueIdentity;
}

Item StoreCopy::readMark() {
    Item record;
    target_.forgetSnapshot();
    target_.read([&](StoreReader& reader) {
        if (!reader.exactly({markKey, sizeof markKey}))
            return false;
        record.setPlain(reinterpret_cast<const unsigned char*>(reader.value().data()), reader.value().size());
        return true;
    });
    Item::Iterator elements(record);
    String name;
    Item position;
    return elements.decodeElementAsString(name) && name.str() == sourceName() &&
                   elements.decodeElementAsItem(position)
               ? position
               : Item();
}

bool StoreCopy::leaveMark(const Item& position) {
    Item record;
    if (!position.isEmpty()) {
        record.addString(sourceName());
        record.addItem(position);
    }
    return fail(target_.writeOwn({markKey, sizeof markKey}, ItemNavigation::bytesOf(record)));
}

bool StoreCopy::readStretch(const Item& position) {
    stretch_.clear();
    std::size_t bytes = 0;
    Item key = position;
    isLast_ = false;
    while (bytes < stretchBytes && stretch_.size() < stretchEntries) {
        const Item before = key;
        if (!from_.nextKey(key)) {
            isLast_ = true;
            break;
        }
        if (!ascends(from_, before, key))
            return false;
        const ConstByteSpan value = from_.fetch(key);
        // Removed since the step.
        if (value.isNull())
            continue;
        stretch_.push_back({key, std::string(value.view())});
        bytes += key.size() + value.size();
    }
    return isReadable();
}

StoreCopy::Difference StoreCopy::compare(const Item& position, Digest* digest) {
    constexpr std::size_t named = 16;
    Difference found;
    auto at = stretch_.cbegin();
    Item key = position;
    for (Item before = key; to_.nextKey(key) && (isLast_ || !(stretch_.back().key < key)); before = key) {
        if (!ascends(to_, before, key))
            break;
        for (; at != stretch_.cend() && at->key < key; ++at)
            found.missing.push_back(&*at);
        const ConstByteSpan value = to_.fetch(key);
        if (value.isNull())
            continue;
        ++found.targetEntries;
        if (digest != nullptr)
            digest->add(key, value.view());
        if (at != stretch_.cend() && at->key == key) {
            if (at->value != value.view())
                found.differing.push_back(&*at);
            ++at;
        } else if (++found.extraCount <= named) {
            found.extra.push_back(key);
        }
    }
    for (; at != stretch_.cend(); ++at)
        found.missing.push_back(&*at);
    isReadable();
    return found;
}

bool StoreCopy::add(const std::vector<const Entry*>& missing) {
    WriteBatch batch(&to_);
    for (const Entry* const entry : missing) {
        if (to_.store(entry->key, ConstByteSpan(entry->value)))
            continue;
        std::string reason = "the store " + to_.url() + " takes no more writes";
        to_.accepts(entry->key, entry->value.size(), &reason);
        return fail({false, entry->key.asString().str() + ": " + reason});
    }
    if (!fail(batch.commit()))
        return false;
    outcome_.added += missing.size();
    return true;
}

void StoreCopy::tell(const Difference& found) {
    const auto say = [this](const Item& key, const char* sentence) {
        if (fault_)
            fault_(key.asString().str(), sentence);
    };
    for (const Entry* const entry : found.missing)
        say(entry->key, "is not at the target after it was written there");
    for (const Entry* const entry : found.differing)
        say(entry->key, "has other content at the target, which was left as it is");
    for (const Item& key : found.extra)
        say(key, "is at the target only");
    outcome_.missing += found.missing.size();
    outcome_.differing += found.differing.size();
    outcome_.extra += found.extraCount;
}

void StoreCopy::walk(Walk kind, Item position, Digest& source, Digest& target) {
    const bool compares = kind == Walk::compare;
    do {
        if (!readStretch(position))
            return;
        Digest digest;
        digest.assign(target);
        Difference found = compare(position, compares ? &digest : nullptr);
        if (!outcome_.result || (!found.missing.empty() && !add(found.missing)))
            return;
        if (compares && !found.missing.empty()) {
            digest.assign(target);
            found = compare(position, &digest);
        }
        if (!isReadable())
            return;
        if (compares) {
            target.assign(digest);
            for (const Entry& entry : stretch_) {
                source.add(entry.key, entry.value);
                outcome_.bytes += entry.key.size() + entry.value.size();
            }
            outcome_.entries += stretch_.size();
            outcome_.targetEntries += found.targetEntries;
            tell(found);
        }
        if (!stretch_.empty())
            position = stretch_.back().key;
        // Nothing of it is lost when the next stretch cannot be written.
        if (!compares && !stretch_.empty() && !leaveMark(position))
            return;
        walked_ += stretch_.size();
        outcome_.stopped = progress_ && !progress_(walked_);
    } while (!isLast_ && !outcome_.stopped);
}

StoreTools::CopyOutcome StoreCopy::run() {
    if (!takeIdentity())
        return outcome_;
    Digest source;
    Digest target;
    const Item mark = readMark();
    outcome_.resumed = !mark.isEmpty();
    walk(Walk::copy, mark, source, target);
    if (outcome_.result && !outcome_.stopped)
        walk(Walk::compare, Item(), source, target);
    if (!outcome_.result || outcome_.stopped)
        return outcome_;
    outcome_.checksum = source.text();
    outcome_.targetChecksum = target.text();
    leaveMark(Item());
    return outcome_;
}

}  // namespace qel::storage
