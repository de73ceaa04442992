// Writes a central log as semicolon-separated text: `export LOG-FOLDER FILE`.
#include <cstdio>
#include <limits>
#include <string>

#include "auditing/AuditExport.h"
#include "auditing/AuditLogTools.h"
#include "qelCore/ItemStore.h"

int main(int count, char** arguments) {
    if (count != 3) {
        std::fprintf(stderr, "usage: export LOG-FOLDER FILE\n");
        return 64;
    }
    // The service may go on writing meanwhile: a store is shared by the processes of one machine.
    std::string reason;
    qel::StoreOptions options;
    options.create = false;
    const auto store = qel::ItemStore::open("lmdb:" + std::string(arguments[1]), options, reason);
    if (!store) {
        std::fprintf(stderr, "%s\n", reason.c_str());
        return 66;
    }
    qel::ItemStore::setCurrent(store.get());

    qel::Item log;
    log.addString("interaction");
    constexpr long long always = std::numeric_limits<long long>::max();
    qel::AuditExport::exportCSV(arguments[2], log, 0, always);
    std::printf("%llu events exported\n", qel::AuditLogTools::summarize(log, qel::LogShape::central).events);
    qel::ItemStore::setCurrent(nullptr);
    return 0;
}
