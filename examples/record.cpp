// Records one event in a workstation's queue, as a viewer does: `record QUEUE-FOLDER EVENT [PARAMETER…]`.
#include <cstdio>
#include <string>

#include "auditing/AuditSequence.h"
#include "qelCore/ItemStore.h"

int main(int count, char** arguments) {
    if (count < 3) {
        std::fprintf(stderr, "usage: record QUEUE-FOLDER EVENT [PARAMETER...]\n");
        return 64;
    }
    // One store per process, opened once at start. A viewer takes Durability::deferred, so that no click waits for a disk.
    std::string reason;
    const auto store = qel::ItemStore::open("lmdb:" + std::string(arguments[1]), qel::StoreOptions(), reason);
    if (!store) {
        std::fprintf(stderr, "%s\n", reason.c_str());
        return 74;
    }
    qel::ItemStore::setCurrent(store.get());

    // The sequence is registered once; whatever part of the program has something to tell appends to Interaction().
    qel::Item path;
    path.addString("interaction");
    qel::AuditSequence queue;
    queue.setPath(path);
    qel::AuditSequence::setInteraction(queue);

    qel::Item event;
    for (int i = 2; i < count; ++i)
        event.addString(arguments[i]);
    qel::AuditSequence::Interaction().append(event);

    // append reports nothing; whoever must know asks the store.
    const qel::CommitResult result = qel::ItemStore::flush();
    if (!result)
        std::fprintf(stderr, "%s\n", result.reason.c_str());
    qel::ItemStore::setCurrent(nullptr);
    return result ? 0 : 74;
}
