// Sends what waits in a queue to the service and ends: `forward QUEUE-FOLDER HOST:PORT IDENTITY-FOLDER`, with the keys that
// 'qel-audit enroll' made in IDENTITY-FOLDER.
#include <cstdio>
#include <memory>
#include <semaphore>
#include <string>

#include "auditing/AuditClient.h"
#include "qelCore/ItemStore.h"
#include "qelNet/Network.h"

int main(int count, char** arguments) {
    if (count != 4) {
        std::fprintf(stderr, "usage: forward QUEUE-FOLDER HOST:PORT IDENTITY-FOLDER\n");
        return 64;
    }
    std::string reason;
    const auto store = qel::ItemStore::open("lmdb:" + std::string(arguments[1]), qel::StoreOptions(), reason);
    const std::string own = arguments[3];
    const auto credentials = qel::Credentials::load(
        {own + "/workstation.crt", own + "/workstation.key", own + "/authority.crt", "", ""}, reason);
    if (!store || !credentials) {
        std::fprintf(stderr, "%s\n", reason.c_str());
        return 78;
    }
    qel::ItemStore::setCurrent(store.get());
    qel::Item path;
    path.addString("interaction");
    qel::AuditSequence queue;
    queue.setPath(path);
    // A query lives as long as its connection: each new connection gets a new one. All of this runs on its strand.
    qel::Network network;
    std::unique_ptr<qel::AuditClient> client;
    std::unique_ptr<qel::AuditClient::AuditQuery> query;
    std::counting_semaphore<> sent(0);
    const auto send = [&] {
        query->processEvents();
        qel::Item first;
        if (query->getInFlightCount() == 0 && !path.child(first))
            sent.release();
    };
    qel::ConnectOptions options;
    options.connected = [&](qel::Peer& peer) {
        query.reset();
        client = std::make_unique<qel::AuditClient>(&peer, "interaction");
        query = std::make_unique<qel::AuditClient::AuditQuery>(client.get(), queue);
        query->setOpenedHandler(send);  // what waits is sent,
        query->setBurstHandler(send);   // and more behind each burst of acknowledgements
    };
    options.lost = [](qel::Peer&, const std::string& why, bool) { std::puts(why.c_str()); };
    auto peer = network.connect({arguments[2]}, credentials, options);
    sent.acquire();
    std::printf("%llu events sent\n", query->getStatistics().acknowledged);
    query.reset();  // queries and peers go before their network
    peer.reset();
    qel::ItemStore::setCurrent(nullptr);
    return 0;
}
