// A queue whose entries hold any bytes under any keys, forwarded to a service: every event that can be read arrives once
// and as it was, what cannot be read is kept aside, and the queue is empty afterwards.

#include <cstdint>
#include <map>
#include <string>

#include "auditing/AuditAside.h"
#include "auditing/AuditClient.h"
#include "auditing/AuditLogTools.h"
#include "auditing/AuditService.h"
#include "fuzz/Check.h"
#include "fuzz/Recipe.h"
#include "fuzz/SharedStore.h"
#include "qelCore/logging/Log.h"
#include "qelNet/MemoryTransport.h"

using namespace qel;

namespace {

constexpr int mostEntries = 200;
constexpr int mostRounds = 50;

struct Queue {
    Item path = test::path("queue");
    std::map<long long, std::string> good;
    std::map<std::string, std::string> damaged;

    void fill(fuzz::Recipe& recipe) {
        for (int count = 0; count < mostEntries && !recipe.atEnd(); ++count) {
            const std::uint8_t kind = recipe.byte();
            const long long time = recipe.number();
            const std::string_view value = recipe.text();
            Item key = test::queueKey(path, time);
            if (kind % 4 == 3) {
                // One element that is no time.
                key = path;
                key.addString(recipe.text());
            }
            if (!ItemStore::current()->store(key, ConstByteSpan(value)))
                continue;
            const bool isGood = kind % 4 != 3 && Item::isWellFormed(ConstByteSpan(value));
            const std::string name(key.bytes().view());
            damaged.erase(name);
            if (kind % 4 != 3)
                good.erase(time);
            if (isGood)
                good[time] = value;
            else
                damaged[name] = value;
        }
    }
};

void forward(const Item& path, AuditService& service) {
    AuditSequence sequence;
    sequence.setPath(path);
    MemoryTransport transport({&service});
    AuditClient client(transport.getPeer(), "audit");
    AuditClient::AuditQuery query(&client, sequence);
    transport.deliver();
    Item left;
    for (int round = 0; path.child(left); ++round) {
        fuzz::check(round < mostRounds, "forwarding comes to an end");
        query.processEvents();
        transport.deliver();
    }
    fuzz::check(query.getInFlightCount() == 0, "nothing is under way at the end");
    fuzz::check(transport.isConnected(), "no entry of a queue ends the connection");
}

void checkArrived(const Queue& queue, const Item& log) {
    const std::vector<Item> records = fuzz::sharedStore().central(log);
    fuzz::check(records.size() == queue.good.size(), "every event arrives once, and nothing else");
    auto expected = queue.good.begin();
    for (const Item& record : records) {
        Item::Iterator elements(record);
        Item key;
        long long time = 0;
        fuzz::check(
            elements.decodeElementAsItem(key) && key.decodeElementAsInteger(time) && time == expected->first,
            "events stand in the order of their times");
        fuzz::check(elements.skip() && elements.skip() && elements.rest().view() == expected->second,
                    "an event arrives as it was");
        ++expected;
    }
    AuditLogTools::verify(log, LogShape::central, [](const std::string&, const std::string&) {
        fuzz::check(false, "the log is in order");
    });
}

void checkAside(const Queue& queue) {
    std::map<std::string, std::string> kept;
    AuditAside::walk(AsideReason::damaged, queue.path, [&](const AsideEntry& entry) {
        kept[std::string(entry.key.bytes().view())] = entry.value;
        return true;
    });
    fuzz::check(kept == queue.damaged, "what cannot be read is kept aside as it was");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    logging::setSink(nullptr);
    ItemStore& store = fuzz::sharedStore().store();
    fuzz::Recipe recipe(data, size);
    Queue queue;
    queue.fill(recipe);
    const Item log = test::path("log");
    AuditService service(log, "audit", false);
    forward(queue.path, service);
    checkArrived(queue, log);
    checkAside(queue);
    fuzz::emptyStore(store);
    return 0;
}
