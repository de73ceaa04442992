#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qelCore/Packet.h"
#include "qelCore/Ref.h"
#include "qelNet/Client.h"
#include "qelNet/Peer.h"
#include "qelNet/Service.h"

namespace qel::test {

constexpr short echoSession = 9;

class EchoScheme : public PacketScheme {
  public:
    EchoScheme() : PacketScheme(901, "TestProtocol", "EchoSession", "Echo") {
        addElement("number", 1, 8, &typeid(long long), nullptr);
        Item("load", -1);
        NextVersion();
    }
};

inline PacketScheme* echoScheme() {
    static EchoScheme scheme;
    return &scheme;
}

inline Ref<Packet> makeEcho(long long number, std::size_t bytes = 0) {
    auto packet = makeRef<Packet>(echoScheme(), short{-1});
    packet->singleSet<long long>("number", number);
    if (bytes > 0) {
        Item load;
        const std::string text(bytes, 'x');
        load.addString(text);
        packet->setItem("load", load);
    }
    return packet;
}

class EchoSession;

/// A service that gives every packet back, and tells the test what happens to its sessions.
class EchoService : public Service {
    QEL_CLASS(EchoService, Service)

    explicit EchoService(const char* name = "echo");

    std::atomic<int> attached{0};
    std::atomic<int> released{0};
    std::atomic<int> received{0};
    std::atomic<int> ticks{0};
    /// Called in the session's strand for each packet, before it is answered.
    std::function<void(Session&, long long)> onPacket;
    bool answers = true;
    std::mutex mutex;
    std::vector<std::string> users;

    void tick() override { ++ticks; }
};

class EchoSession : public Session {
    QEL_CLASS(EchoSession, Session)

    void peerAttached() override {
        auto& service = *static_cast<EchoService*>(getService());
        const std::lock_guard<std::mutex> lock(service.mutex);
        service.users.push_back(getPeer()->getUserName() + "@" + getPeer()->getDeviceName());
        ++service.attached;
    }
    void release() override {
        ++static_cast<EchoService*>(getService())->released;
        Session::release();
    }
    bool packetReceived(Packet* packet) override {
        auto& service = *static_cast<EchoService*>(getService());
        if (!packet->fit(echoScheme()))
            return false;
        const auto number = packet->singleGet<long long>("number");
        ++service.received;
        if (service.onPacket)
            service.onPacket(*this, number);
        if (service.answers)
            sendPacket(makeEcho(number).get());
        return true;
    }
};

inline EchoService::EchoService(const char* name) : Service(name) {
    auto factory = makeRef<SessionFactory<EchoSession>>();
    registerSessionFactory(echoSession, factory.get());
}

/// A query that collects what comes back.
class EchoQuery : public Client::Query {
    QEL_CLASS(EchoQuery, Client::Query)

    using Query::packetReceived;
    explicit EchoQuery(Client* client, short type = echoSession) : Query(client, type) {}

    bool packetReceived(Peer*, Packet* packet) override {
        if (!packet->fit(echoScheme()))
            return false;
        const std::lock_guard<std::mutex> lock(mutex_);
        numbers_.push_back(packet->singleGet<long long>("number"));
        return true;
    }

    std::vector<long long> numbers() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return numbers_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<long long> numbers_;
};

/// Waits until `condition` holds, at most sixty seconds; whether it did.
inline bool eventually(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace qel::test
