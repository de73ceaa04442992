#pragma once

#include <stdlib.h>

#include <filesystem>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "auditing/AuditClient.h"
#include "auditing/AuditExport.h"
#include "auditing/AuditService.h"
#include "qelCore/ItemStore.h"
#include "qelCore/String.h"
#include "qelNet/MemoryTransport.h"

/// What a host's tests need to prove that its events arrive: a store that is gone afterwards, and a central
/// service in the same process, without sockets, threads or certificates.
///
///     qel::testkit::TemporaryStore store;
///     qel::testkit::FakeAuditService service("anna", "reading-room-1");
///     viewer.openSeries("1.2.3");                     // appends to its queue
///     service.forward(viewer.queue());
///     using Events = std::vector<qel::testkit::FakeAuditService::Event>;
///     EXPECT_EQ(service.received(), (Events{{"anna", "reading-room-1", "SeriesOpened", "1.2.3"}}));
namespace qel::testkit {

/// A store in a folder of its own, the process's current one while the object lives; then the folder is
/// removed. One at a time. Make it before whatever appends, and let it outlive that.
class TemporaryStore {
  public:
    /// Throws std::runtime_error with the reason when no store can be made.
    TemporaryStore() {
        std::string pattern = (std::filesystem::temp_directory_path() / "qel-test.XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("cannot make a folder like " + pattern);
        folder_ = pattern;
        std::string reason;
        store_ = ItemStore::open("lmdb:" + folder_, StoreOptions(), reason);
        if (!store_) {
            std::filesystem::remove_all(folder_);
            throw std::runtime_error(reason);
        }
        ItemStore::setCurrent(store_.get());
    }
    ~TemporaryStore() {
        ItemStore::setCurrent(nullptr);
        store_.reset();
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    TemporaryStore(const TemporaryStore&) = delete;
    TemporaryStore& operator=(const TemporaryStore&) = delete;

    ItemStore& store() { return *store_; }
    const std::string& folder() const { return folder_; }

  private:
    std::string folder_;
    std::unique_ptr<ItemStore> store_;
};

/// A central service that knows one workstation, which it is connected with at once. It keeps what it gets in
/// the current store, so a TemporaryStore must exist. Everything runs on the thread that calls; use one.
class FakeAuditService {
  public:
    /// One received event: user, device, event name and parameters as texts.
    using Event = std::vector<std::string>;

    explicit FakeAuditService(const std::string& user = "user", const std::string& device = "device",
                              const std::string& serviceName = "audit", bool anonymous = false)
        : log_(makePath()),
          name_(serviceName),
          service_(log_, serviceName.c_str(), anonymous),
          transport_({&service_}, ends(user, device)) {}

    /// For a host that drives an AuditClient of its own; its packets move in `deliver`.
    Peer* getPeer() const { return transport_.getPeer(); }
    void deliver() { transport_.deliver(); }

    /// Sends everything that waits in `queue` and takes the acknowledgements, as an agent does. Afterwards
    /// the queue is empty, unless the connection is cut.
    void forward(AuditSequence& queue) {
        AuditClient client(getPeer(), name_.c_str());
        AuditClient::AuditQuery query(&client, queue);
        query.setBurstHandler([&query] { query.processEvents(); });
        transport_.deliver();
        query.processEvents();
        transport_.deliver();
    }

    /// As if the cable were pulled; whatever was under way is lost and must be sent again.
    void cut() { transport_.cut(); }
    void reconnect() {
        transport_.reconnect();
        transport_.deliver();
    }

    /// Every event received so far, in order of their times.
    std::vector<Event> received() const {
        std::vector<Event> events;
        const Item lines = AuditExport::getLines(log_, std::numeric_limits<long long>::min(),
                                                 std::numeric_limits<long long>::max());
        Item line;
        for (Item::Iterator elements(lines); elements.decodeElementAsItem(line);)
            events.push_back(texts(line));
        return events;
    }

  private:
    static Item makePath() {
        Item path;
        path.addString("fake central log");
        return path;
    }
    static MemoryTransport::Options ends(const std::string& user, const std::string& device) {
        MemoryTransport::Options options;
        options.client = Identity::make(user, device, SiteKey());
        options.server = Identity::make("server", "central", SiteKey());
        return options;
    }
    /// Without the key, which stands in front.
    static Event texts(const Item& line) {
        Event event;
        Item::Iterator elements(line);
        elements.skip();
        for (String text; elements.convertAsString(text);)
            event.push_back(text.str());
        return event;
    }

    Item log_;
    std::string name_;
    AuditService service_;
    MemoryTransport transport_;
};

}  // namespace qel::testkit
