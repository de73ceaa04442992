// Records one event into a store of its own and counts it: touches all three libraries through installed headers only.
#include <cstdio>
#include <string>

#include "auditing/AuditClient.h"
#include "auditing/AuditLogTools.h"
#include "auditing/AuditSequence.h"
#include "auditing/AuditService.h"
#include "qelCore/ItemStore.h"
#include "qelNet/Network.h"

int main(int count, char** arguments) {
    if (count != 2) {
        std::fputs("usage: consumer FOLDER\n", stderr);
        return 64;
    }
    std::string reason;
    const auto store = qel::ItemStore::open("lmdb:" + std::string(arguments[1]), {}, reason);
    if (!store) {
        std::fprintf(stderr, "%s\n", reason.c_str());
        return 74;
    }
    qel::ItemStore::setCurrent(store.get());

    qel::Item path;
    path.addString("queue");
    qel::Item event;
    event.addString("SeriesOpened");
    event.addString("1.2.3");
    event.addInteger(7);
    qel::AuditSequence queue;
    queue.setPath(path);
    queue.append(event);
    if (!qel::ItemStore::flush())
        return 74;

    const qel::AuditService service(queue.getPath(), "audit", false);
    const qel::Network network;
    const auto summary = qel::AuditLogTools::summarize(queue.getPath(), qel::LogShape::queue);
    std::printf("%llu event, %s, %llu connections\n", summary.events, service.getDynamicClassName(),
                network.getStatistics().connectionsNow);
    return summary.events == 1 ? 0 : 1;
}
