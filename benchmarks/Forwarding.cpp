// How many events per second travel from the queue on a workstation's disk to the log on the daemon's disk, durable at
// both ends, over TLS with certificates, window 64, events of about 150 bytes? With one and with eight workstations,
// each a process of its own. The floor beside it is TLS and one flushed file (support/TlsFloor.h).
// QEL_BENCH_EVENTS sets the events per run; an argument, 1 or 8, measures that number of workstations only.

#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "auditing/AuditClient.h"
#include "auditing/AuditLogTools.h"
#include "auditing/AuditService.h"
#include "qelCore/ItemStore.h"
#include "qelCore/logging/Log.h"
#include "qelNet/Authority.h"
#include "qelNet/Network.h"
#include "support/Child.h"
#include "support/Figures.h"
#include "support/TemporaryFolder.h"
#include "support/TlsFloor.h"

namespace {

using namespace qel;
using bench::Child;

void require(bool done, const std::string& reason) {
    if (done)
        return;
    std::fprintf(stderr, "%s\n", reason.c_str());
    _exit(3);
}

Item path(const char* name) {
    Item made;
    made.addString(name);
    return made;
}

std::unique_ptr<ItemStore> openStore(const std::string& folder) {
    std::string reason;
    std::unique_ptr<ItemStore> store = ItemStore::open("lmdb:" + folder, {}, reason);
    require(store != nullptr, reason);
    ItemStore::setCurrent(store.get());
    return store;
}

std::shared_ptr<Credentials> load(const std::string& folder, const std::string& name) {
    std::string error;
    CredentialFiles files{folder + "/" + name + ".crt", folder + "/" + name + ".key", folder + "/ca.crt", "",
                          ""};
    if (name == "server")
        files.siteKey = folder + "/site.key";
    std::shared_ptr<Credentials> loaded = Credentials::load(files, error);
    require(loaded != nullptr, error);
    return loaded;
}

void issue(const std::string& folder, int workstations) {
    std::string error;
    const auto authority = Authority::create("Bench", folder + "/ca.crt", folder + "/ca.key", error);
    require(authority != nullptr && SiteKey::create(folder + "/site.key", error) &&
                authority->issueServer({"127.0.0.1"}, folder + "/server.crt", folder + "/server.key", error),
            error);
    for (int i = 0; i < workstations; ++i) {
        const std::string name = folder + "/w" + std::to_string(i);
        require(authority->issueWorkstation("user-" + std::to_string(i), "pc", name + ".crt", name + ".key",
                                            error),
                error);
    }
}

/// The central machine: says its address, and at the end how many records its log holds.
void serve(const Child::Line& line, const std::string& folder) {
    logging::setLevel(logging::levelError);
    const std::unique_ptr<ItemStore> store = openStore(folder + "/central");
    {
        AuditService service(path("interaction"), "interaction", false);
        Network network;
        const Listening listening = network.listen("127.0.0.1:0", {&service}, load(folder, "server"));
        require(static_cast<bool>(listening), listening.error);
        line.say(listening.address);
        line.hear();
        network.stop();
    }
    line.say(std::to_string(AuditLogTools::summarize(path("interaction"), LogShape::central).events));
    line.hear();
}

/// A workstation's agent with a full queue.
class Agent {
  public:
    Agent(const std::string& server, std::shared_ptr<Credentials> credentials, AuditSequence& queue,
          long events)
        : queue_(queue), events_(events) {
        ConnectOptions options;
        options.connected = [this](Peer& peer) { open(peer); };
        peer_ = network_.connect({server}, std::move(credentials), options);
    }
    void start() {
        const std::unique_lock lock = waitUntil(open_);
        peer_->getNetworkPeer()->post([this] { drive(); });
    }
    void finish() {
        { const std::unique_lock lock = waitUntil(done_); }
        require(static_cast<bool>(ItemStore::flush()), "the removals are not durable");
    }
    void stop() {
        network_.stop();
        query_.reset();
        client_.reset();
    }

  private:
    void open(Peer& peer) {
        client_ = std::make_unique<AuditClient>(&peer, "interaction");
        query_ = std::make_unique<AuditClient::AuditQuery>(client_.get(), queue_);
        query_->setOpenedHandler([this] { tell(open_); });
        query_->setBurstHandler([this] { drive(); });
    }
    void drive() {
        query_->processEvents();
        if (query_->getStatistics().acknowledged >= static_cast<unsigned long long>(events_))
            tell(done_);
    }
    void tell(bool& what) {
        const std::lock_guard lock(mutex_);
        what = true;
        changed_.notify_all();
    }
    std::unique_lock<std::mutex> waitUntil(bool& what) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return what; });
        return lock;
    }

    AuditSequence& queue_;
    long events_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
    bool done_ = false;
    Network network_{{1, nullptr}};  // as the agent has it
    std::shared_ptr<Peer> peer_;
    std::unique_ptr<AuditClient> client_;
    std::unique_ptr<AuditClient::AuditQuery> query_;
};

void forward(const Child::Line& line, const std::string& folder, int number, const std::string& server,
             long events) {
    logging::setLevel(logging::levelError);
    const std::string name = "w" + std::to_string(number);
    const std::unique_ptr<ItemStore> store = openStore(folder + "/" + name);
    AuditSequence queue;
    queue.setPath(path("interaction"));
    Item event;
    event.addString("SeriesOpened");
    event.addString("1.2.840.113619.2.55.3.604688119.971.1325667231.457.2.55.3.604688119");
    event.addString("1.2.840.113619.2.55.3.604688119.971.1325667231.457.2.55.3");
    {
        WriteBatch batch;
        for (long i = 0; i < events; ++i)
            queue.append(event);
        require(static_cast<bool>(batch.commit()), "the queue cannot be filled");
    }
    Agent agent(server, load(folder, name), queue, events);
    line.say("ready");
    line.hear();
    agent.start();
    agent.finish();
    line.say("done");
    line.hear();
    agent.stop();
}

/// Lets all senders begin at once and waits for the last.
double race(const std::vector<std::unique_ptr<Child>>& senders) {
    for (const auto& each : senders)
        require(each->line().hear() == "ready", "a sender is not ready");
    return bench::seconds([&] {
        for (const auto& each : senders)
            each->line().say("go");
        for (const auto& each : senders)
            require(each->line().hear() == "done", "a sender failed");
    });
}

double floorRate(const std::string& folder, int workstations, long each) {
    Child server([&](const Child::Line& line) {
        bench::serveFloor(line, workstations, folder + "/server.crt", folder + "/server.key",
                          folder + "/floor");
    });
    const int port = std::stoi(server.line().hear());
    std::vector<std::unique_ptr<Child>> senders;
    for (int i = 0; i < workstations; ++i)
        senders.push_back(
            std::make_unique<Child>([&](const Child::Line& line) { bench::sendFloor(line, port, each); }));
    return static_cast<double>(each * workstations) / race(senders);
}

double forwardRate(const std::string& folder, int workstations, long each) {
    Child server([&](const Child::Line& line) { serve(line, folder); });
    const std::string address = server.line().hear();
    std::vector<std::unique_ptr<Child>> senders;
    for (int i = 0; i < workstations; ++i)
        senders.push_back(std::make_unique<Child>(
            [&](const Child::Line& line) { forward(line, folder, i, address, each); }));
    const double took = race(senders);
    for (const auto& sender : senders)
        sender->line().say("end");
    server.line().say("end");
    const std::string arrived = server.line().hear();
    require(arrived == std::to_string(each * workstations), "only " + arrived + " events arrived");
    server.line().say("end");
    return static_cast<double>(each * workstations) / took;
}

// The machine drifts by a third within an hour and the disk within a second: floor and system take turns, and the median
// of each counts.
constexpr int rounds = 5;

void measure(const char* name, int workstations, long events, double target) {
    const long each = events / workstations;
    std::vector<double> floors;
    std::vector<double> rates;
    for (int round = 0; round < rounds; ++round) {
        const test::TemporaryFolder folder;
        issue(folder.path(), workstations);
        floors.push_back(floorRate(folder.path(), workstations, each));
        rates.push_back(forwardRate(folder.path(), workstations, each));
    }
    const double floor = bench::median(floors);
    const double rate = bench::median(rates);
    bench::print((std::string(name) + "_floor").c_str(), floor, "events/s");
    std::printf("%s %.0f events/s ratio=%.2f target=%.2f %s\n", name, rate, rate / floor, target,
                rate >= target * floor ? "met" : "missed");
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    const long events = bench::sizeFrom("QEL_BENCH_EVENTS", 400000);
    const std::string only = argc > 1 ? argv[1] : "";
    if (only != "8")
        measure("forward_1_workstation", 1, events, 0.3);
    if (only != "1")
        measure("forward_8_workstations", 8, events, 0.25);
    return 0;
}
