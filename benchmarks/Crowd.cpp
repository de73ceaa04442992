// Does one daemon serve a whole hospital? 200 workstations forward 5,000 events each at the same time, over TLS, durable at
// both ends; the daemon is a process of its own, the workstations share two. Then 1,000 connections that only stand there,
// and 10,000 strangers that speak garbage or stop in the handshake while a workstation goes on forwarding.
// Prints events per second, the slowest workstation's rate against the mean, and the daemon's memory; ends with an error
// when an event is missing or doubled. Memory is what the process has for itself: the pages of its store that happen to be
// mapped belong to the page cache and are given back whenever somebody else needs them. QEL_BENCH_AGENTS and QEL_BENCH_EVENTS (each) set the sizes.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <atomic>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
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
#include "support/OwnMemory.h"
#include "support/TemporaryFolder.h"

namespace {

using namespace qel;
using bench::Child;

void require(bool done, const std::string& reason) {
    if (done)
        return;
    std::fprintf(stderr, "%s\n", reason.c_str());
    _exit(3);
}

Item path(const std::string& name) {
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

void issue(const std::string& folder, long agents) {
    std::string error;
    const auto authority = Authority::create("Crowd", folder + "/ca.crt", folder + "/ca.key", error);
    require(authority && SiteKey::create(folder + "/site.key", error) &&
                authority->issueServer({"127.0.0.1"}, folder + "/server.crt", folder + "/server.key", error),
            error);
    for (long i = 0; i < agents; ++i) {
        const std::string name = folder + "/w" + std::to_string(i);
        require(authority->issueWorkstation("user-" + std::to_string(i), "pc", name + ".crt", name + ".key",
                                            error),
                error);
    }
}

/// A figure that is to be below, or above, a target.
void print(const char* name, double value, const char* unit, const char* sense, double target) {
    const bool met = sense == std::string("below") ? value < target : value >= target;
    std::printf("%s %.1f %s target=%s_%.0f %s\n", name, value, unit, sense, target, met ? "met" : "missed");
    std::fflush(stdout);
}

void allowManyFiles() {
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
}

/// The central machine answers "memory", "peak", "connections" and "count" in one line each.
void serve(const Child::Line& line, const std::string& folder) {
    logging::setLevel(logging::levelError);
    allowManyFiles();
    const std::unique_ptr<ItemStore> store = openStore(folder + "/central");
    AuditService service(path("log"), "log", false);
    Network network;
    const Listening listening = network.listen("127.0.0.1:0", {&service}, load(folder, "server"));
    require(static_cast<bool>(listening), listening.error);
    line.say(listening.address);
    const test::PeakMemory peak(getpid());
    for (std::string asked = line.hear(); !asked.empty(); asked = line.hear()) {
        if (asked == "memory")
            line.say(std::to_string(test::ownMemory(getpid()) / 1024));
        else if (asked == "peak")
            line.say(std::to_string(peak.get() / 1024));
        else if (asked == "connections")
            line.say(std::to_string(network.getStatistics().connectionsNow));
        else
            line.say(std::to_string(AuditLogTools::summarize(path("log"), LogShape::central).events));
    }
}

/// One workstation: its queue, its connection, and when its last event was acknowledged.
struct Agent {
    AuditSequence queue;
    std::shared_ptr<Peer> peer;
    std::unique_ptr<AuditClient> client;
    std::unique_ptr<AuditClient::AuditQuery> query;
    std::atomic<bool> open{false};
    std::atomic<long> acknowledged{0};
    std::atomic<double> finished{0};
};

double clockSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void drive(Agent& agent, long events) {
    agent.query->processEvents();
    agent.acknowledged = static_cast<long>(agent.query->getStatistics().acknowledged);
    if (agent.acknowledged >= events && agent.finished == 0)
        agent.finished = clockSeconds();
}

void connect(Agent& agent, Network& network, const std::string& server,
             std::shared_ptr<Credentials> credentials, long events) {
    ConnectOptions options;
    options.limits.handshakeSeconds = 60;
    options.connected = [&agent, events](Peer& peer) {
        agent.client = std::make_unique<AuditClient>(&peer, "log");
        agent.query = std::make_unique<AuditClient::AuditQuery>(agent.client.get(), agent.queue);
        agent.query->setOpenedHandler([&agent] { agent.open = true; });
        agent.query->setBurstHandler([&agent, events] { drive(agent, events); });
    };
    agent.peer = network.connect({server}, std::move(credentials), options);
}

void fill(const AuditSequence& queue, long events) {
    Item event;
    event.addString("SeriesOpened");
    event.addString("1.2.840.113619.2.55.3.604688119.971.1325667231.457.2.55.3.604688119");
    event.addString("1.2.840.113619.2.55.3.604688119.971.1325667231.457.2.55.3");
    WriteBatch batch;
    for (long i = 0; i < events; ++i)
        queue.append(event);
    require(static_cast<bool>(batch.commit()), "a queue cannot be filled");
}

/// Workstations `first` to `last` (not included); says how long each took.
void forward(const Child::Line& line, const std::string& folder, long first, long last,
             const std::string& server, long events) {
    logging::setLevel(logging::levelError);
    const std::unique_ptr<ItemStore> store = openStore(folder + "/queues" + std::to_string(first));
    Network network;
    std::vector<std::unique_ptr<Agent>> agents;
    for (long i = first; i < last; ++i) {
        agents.push_back(std::make_unique<Agent>());
        agents.back()->queue.setPath(path("queue" + std::to_string(i)));
        fill(agents.back()->queue, events);
        connect(*agents.back(), network, server, load(folder, "w" + std::to_string(i)), events);
    }
    for (const auto& agent : agents)
        while (!agent->open)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    line.say("ready");
    line.hear();
    const double start = clockSeconds();
    for (const auto& agent : agents)
        agent->peer->getNetworkPeer()->post([each = agent.get(), events] { drive(*each, events); });
    std::string times;
    for (const auto& agent : agents) {
        while (agent->finished == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        times += std::to_string(agent->finished - start) + " ";
    }
    line.say(times);
    line.hear();
}

std::vector<double> numbersIn(const std::string& text) {
    std::istringstream words(text);
    std::vector<double> numbers;
    for (double number = 0; words >> number;)
        numbers.push_back(number);
    return numbers;
}

std::string ask(const Child& server, const char* what) {
    server.line().say(what);
    return server.line().hear();
}

void crowd(const std::string& folder, const Child& server, const std::string& address, long agents,
           long events) {
    std::vector<std::unique_ptr<Child>> halves;
    for (int half = 0; half < 2; ++half)
        halves.push_back(std::make_unique<Child>([&, half](const Child::Line& line) {
            forward(line, folder, agents / 2 * half, half == 0 ? agents / 2 : agents, address, events);
        }));
    for (const auto& half : halves)
        require(half->line().hear() == "ready", "the workstations do not connect");
    std::vector<double> times;
    const double took = bench::seconds([&] {
        for (const auto& half : halves)
            half->line().say("go");
        for (const auto& half : halves)
            for (const double time : numbersIn(half->line().hear()))
                times.push_back(time);
    });
    require(static_cast<long>(times.size()) == agents, "a workstation failed");
    const std::string arrived = ask(server, "count");
    require(arrived == std::to_string(agents * events), arrived + " events arrived");
    double mean = 0;
    double slowest = 0;
    for (const double time : times) {
        mean += static_cast<double>(events) / time / static_cast<double>(agents);
        slowest = std::max(slowest, time);
    }
    bench::print("crowd_events", static_cast<double>(agents * events) / took, "events/s");
    print("crowd_slowest_share_of_mean", 100 * static_cast<double>(events) / slowest / mean, "percent",
          "above", 33);
    print("crowd_daemon_peak_memory", std::stod(ask(server, "peak")) / 1024, "MiB", "below", 256);
}

void waitForConnections(const Child& server, const std::string& count) {
    while (ask(server, "connections") != count)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

void idle(const std::string& folder, const Child& server, const std::string& address) {
    waitForConnections(server, "0");
    const double before = std::stod(ask(server, "memory"));
    constexpr int count = 1000;
    const Child stations([&](const Child::Line& line) {
        logging::setLevel(logging::levelOff);
        allowManyFiles();
        Network network;
        std::vector<std::unique_ptr<Agent>> agents;
        for (int i = 0; i < count; ++i) {
            agents.push_back(std::make_unique<Agent>());
            connect(*agents.back(), network, address, load(folder, "w0"), 1);
        }
        line.hear();
    });
    waitForConnections(server, std::to_string(count));
    print("idle_connection_memory", (std::stod(ask(server, "memory")) - before) / count, "KiB", "below", 100);
}

void bother(const std::string& address, long number, std::vector<int>& open) {
    sockaddr_in remote{};
    remote.sin_family = AF_INET;
    remote.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    remote.sin_port = htons(static_cast<unsigned short>(std::stoi(address.substr(address.rfind(':') + 1))));
    const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
    if (::connect(socket, reinterpret_cast<sockaddr*>(&remote), sizeof remote) == 0 && number % 2 == 0)
        (void)!::send(socket, "any bytes that are no hello\r\n\r\n", 31, MSG_NOSIGNAL);
    open.push_back(socket);
}

void strangers(const std::string& folder, const Child& server, const std::string& address, long events) {
    waitForConnections(server, "0");
    const Child station([&](const Child::Line& line) { forward(line, folder, 0, 1, address, events); });
    require(station.line().hear() == "ready", "the workstation does not connect");
    constexpr long count = 10000;
    const Child crowd([&](const Child::Line& line) {
        allowManyFiles();
        line.hear();
        std::vector<int> open;
        for (long i = 0; i < count; ++i)
            bother(address, i, open);
        line.say("done");
        line.hear();
    });
    crowd.line().say("go");
    station.line().say("go");
    const std::vector<double> times = numbersIn(station.line().hear());
    require(times.size() == 1, "the workstation was not served");
    require(crowd.line().hear() == "done", "the strangers failed");
    bench::print("among_10000_strangers", static_cast<double>(events) / times[0], "events/s");
    print("among_10000_strangers_daemon_peak_memory", std::stod(ask(server, "peak")) / 1024, "MiB", "below",
          256);
}

}  // namespace

int main() {
    const long agents = bench::sizeFrom("QEL_BENCH_AGENTS", 200);
    const long events = bench::sizeFrom("QEL_BENCH_EVENTS", 5000);
    const test::TemporaryFolder folder;
    issue(folder.path(), agents);
    const Child server([&](const Child::Line& line) { serve(line, folder.path()); });
    const std::string address = server.line().hear();
    crowd(folder.path(), server, address, agents, events);
    idle(folder.path(), server, address);
    strangers(folder.path(), server, address, 20 * events);
    return 0;
}
