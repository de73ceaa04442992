// Receives events and stores them in a central log until its standard input ends:
// `serve LOG-FOLDER ADDRESS:PORT SITE-FOLDER`, with the keys that 'qel-audit init' made in SITE-FOLDER.
#include <cstdio>
#include <string>

#include "auditing/AuditService.h"
#include "qelCore/ItemStore.h"
#include "qelNet/Network.h"

int main(int count, char** arguments) {
    if (count != 4) {
        std::fprintf(stderr, "usage: serve LOG-FOLDER ADDRESS:PORT SITE-FOLDER\n");
        return 64;
    }
    std::string reason;
    const auto store = qel::ItemStore::open("lmdb:" + std::string(arguments[1]), qel::StoreOptions(), reason);
    const std::string site = arguments[3];
    const auto credentials = qel::Credentials::load(
        {site + "/server.crt", site + "/server.key", site + "/authority.crt", "", site + "/site.key"},
        reason);
    if (!store || !credentials) {
        std::fprintf(stderr, "%s\n", reason.c_str());
        return 78;
    }
    qel::ItemStore::setCurrent(store.get());

    // What workstations send to the service "interaction" lies below the path of the same name, each event with the user
    // and the device that the sender's certificate proves.
    qel::Item path;
    path.addString("interaction");
    qel::AuditService service(path, "interaction", false);
    {
        qel::Network network;
        const qel::Listening listening = network.listen(arguments[2], {&service}, credentials);
        if (!listening) {
            std::fprintf(stderr, "%s\n", listening.error.c_str());
            return 69;
        }
        std::printf("listening on %s\n", listening.address.c_str());
        std::fflush(stdout);
        while (std::getchar() != EOF) {
        }
        network.stop();  // before the service goes that it was given
    }
    std::printf("%llu events stored\n", service.getStatistics().stored.load());
    qel::ItemStore::setCurrent(nullptr);
    return 0;
}
