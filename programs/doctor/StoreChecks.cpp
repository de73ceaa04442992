#include <filesystem>
#include <string_view>

#include "auditing/AuditAside.h"
#include "auditing/AuditLogTools.h"
#include "common/CentralStore.h"
#include "common/Failure.h"
#include "common/LogPath.h"
#include "common/Progress.h"
#include "common/Times.h"
#include "common/Workstation.h"
#include "doctor/Checks.h"
#include "qelCore/String.h"
#include "qelNet/Identity.h"

namespace qel::programs {
namespace {

constexpr long long microsecondsPerDay = 86400LL * 1000000;
constexpr std::uint64_t mebibyte = 1 << 20;
// A clock that is ahead of the present by more has run wild; less is the ordinary correction of a clock.
constexpr long long largestLead = 60LL * 1000000;

/// What to do about a store that does not open; the sentences are the store's own.
const char* cureOf(std::string_view sentence) {
    const auto says = [sentence](std::string_view words) {
        return sentence.find(words) != std::string_view::npos;
    };
    if (says("this version reads formats"))
        return "use the version of the programs that wrote the store, or a newer one";
    if (says("cannot reach"))
        return "start the database, or name its right address in [store] url";
    if (says("Permission denied"))
        return "give the folder to the user that the program runs as";
    if (says("No such file"))
        return "start the program once, or name the right store in [store] url";
    return "name the right store in [store] url, or bring a backup back with 'qel-audit store restore'";
}

/// Opens the store; null, with the fault told, when that cannot be done.
std::unique_ptr<ItemStore> openForLooking(Diagnosis& diagnosis, const std::string& url) {
    try {
        std::unique_ptr<ItemStore> store = openStore(url, true);
        diagnosis.well("store");
        return store;
    } catch (const Failure& failure) {
        diagnosis.fault("store", failure.what(), cureOf(failure.what()));
        return nullptr;
    }
}

void checkSpace(Diagnosis& diagnosis, ItemStore& store, std::int64_t leastMebibytes) {
    const StoreSpace space = store.space();
    // The disks of a database are its own people's to watch.
    if (space.pageBytes == 0)
        return;
    const std::uint64_t free = space.diskFreeBytes / mebibyte;
    diagnosis.judge("disk space",
                    free >= static_cast<std::uint64_t>(leastMebibytes)
                        ? ""
                        : "the disk of " + store.path() + " has " + grouped(free) +
                              " MiB left, expected at least " +
                              grouped(static_cast<std::uint64_t>(leastMebibytes)),
                    "make room, or trim the log with 'qel-audit store prune' after a backup");
}

void checkClockLead(Diagnosis& diagnosis, ItemStore& store) {
    const long long lead = store.clock().lead;
    diagnosis.judge("clock of the store",
                    lead <= largestLead ? ""
                                        : "the last event's time is " + std::to_string(lead / 1000000) +
                                              " seconds ahead of this machine's clock",
                    "set the clock of this machine by a time service");
}

void checkLogs(Diagnosis& diagnosis, ItemStore& store, const LogConfig& audit, const LogConfig& interaction,
               StoreLog::Kind kind) {
    for (const auto& [name, settings] :
         {std::pair("audit", &audit), std::pair("interaction", &interaction)}) {
        StoreLog log;
        std::string fault;
        if (!store.findLog(name, log))
            fault = "the store knows no log \"" + std::string(name) + '"';
        else if (!(log.path == logPath(settings->path)))
            fault = "the store keeps the log \"" + std::string(name) + "\" at " + log.path.asString().str() +
                    ", the configuration says \"" + settings->path + '"';
        else if (log.kind != kind)
            fault = "the log \"" + std::string(name) + "\" of the store is " +
                    (log.kind == StoreLog::Kind::central ? "a central log" : "a workstation's queue");
        diagnosis.judge("log " + std::string(name), fault, "start the program with this configuration once");
    }
}

void checkWaiting(Diagnosis& diagnosis, const std::string& name, const Item& path, const DoctorWishes& wishes,
                  long long now) {
    long long oldest = 0;
    const bool waits = AuditLogTools::oldest(path, LogShape::queue, oldest);
    const bool late = waits && now - oldest > wishes.waitingDays * microsecondsPerDay;
    diagnosis.judge("queue " + name,
                    late ? "an event of " + formatUtc(oldest) + " still waits in the " + name + " queue" : "",
                    "see whether 'qel-audit forward' runs and what it says");
    const long long damaged = AuditAside::count(AsideReason::damaged, path);
    const long long parked = AuditAside::count(AsideReason::parked, path);
    diagnosis.judge(
        "kept aside " + name,
        damaged + parked == 0 ? ""
                              : std::to_string(damaged) + " damaged and " + std::to_string(parked) +
                                    " too large events of the " + name + " queue were kept aside",
        parked == 0 ? "see in the log of 'qel-audit forward' which they were"
                    : "raise [limits] value_bytes of the service and put the large ones back with 'qel-audit "
                      "queue --return-parked'");
}

void checkBinding(Diagnosis& diagnosis, const WorkstationConfig& config, ItemStore& store) {
    std::string fault;
    try {
        const std::string bound = store.identity().queueIdentity;
        const auto credentials = loadCredentials(config, config.tls);
        if (bound.empty())
            fault = "the queue in " + store.path() + " is not bound to an identity yet";
        else if (bound != identityFingerprint(*credentials))
            fault = "the queue in " + store.path() + " was filled by another identity than " +
                    credentials->getUserName() + " at " + credentials->getDeviceName();
    } catch (const Failure&) {
        return;  // the identity's own checks have told it
    }
    diagnosis.judge("owner of the queue", fault, "give each identity a queue of its own in [store] url");
}

}  // namespace

void checkCentralStore(Diagnosis& diagnosis, const DaemonConfig& config, const DoctorWishes& wishes) {
    const std::unique_ptr<ItemStore> store = openForLooking(diagnosis, config.resolveUrl(config.storeUrl));
    if (!store)
        return;
    checkSpace(diagnosis, *store, wishes.leastFreeMebibytes);
    checkClockLead(diagnosis, *store);
    checkLogs(diagnosis, *store, config.audit, config.interaction, StoreLog::Kind::central);
    SiteKey key;
    std::string ignored;
    const std::string bound = store->identity().siteKeyFingerprint;
    if (key.load(config.resolveSecret(config.siteKey), ignored))
        diagnosis.judge("site key of the store",
                        bound.empty() || bound == key.getFingerprint()
                            ? ""
                            : "the store was made with the site key " + bound + ", the configuration names " +
                                  key.getFingerprint(),
                        "use the site key that the store was made with");
}

void checkQueue(Diagnosis& diagnosis, const WorkstationConfig& config, const DoctorWishes& wishes,
                long long now) {
    const std::unique_ptr<ItemStore> store = openForLooking(diagnosis, config.resolveUrl(config.storeUrl));
    if (!store)
        return;
    ItemStore::setCurrent(store.get());
    checkSpace(diagnosis, *store, wishes.leastFreeMebibytes);
    checkClockLead(diagnosis, *store);
    checkLogs(diagnosis, *store, config.audit, config.interaction, StoreLog::Kind::queue);
    checkBinding(diagnosis, config, *store);
    checkWaiting(diagnosis, "interaction", logPath(config.interaction.path), wishes, now);
    checkWaiting(diagnosis, "audit", logPath(config.audit.path), wishes, now);
    ItemStore::setCurrent(nullptr);
}

}  // namespace qel::programs
