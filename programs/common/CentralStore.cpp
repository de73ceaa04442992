#include "common/CentralStore.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "auditing/AuditLogTools.h"
#include "common/Failure.h"
#include "qelNet/Identity.h"

namespace qel::programs {
namespace {

constexpr std::string_view embedded = "lmdb:";

/// Tells a missing folder and a lack of rights apart before the store is opened.
void requireFolder(const std::string& path, bool readOnly) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0)
        throw inputFailure(path, errno);
    if (!S_ISDIR(status.st_mode))
        throw systemFailure(exitInputMissing, path, ENOTDIR);
    if (::access(path.c_str(), R_OK | X_OK | (readOnly ? 0 : W_OK)) != 0)
        throw systemFailure(exitNoPermission, path, errno);
}

std::string systemUser() {
    // cppcheck-suppress getpwuidCalled ; commands ask once, in the thread they began with
    const passwd* entry = ::getpwuid(::geteuid());
    return entry && entry->pw_name ? entry->pw_name : std::to_string(::geteuid());
}

std::string machine() {
    char name[256] = {};
    return ::gethostname(name, sizeof name - 1) == 0 && name[0] ? name : "localhost";
}

}  // namespace

std::unique_ptr<ItemStore> openStore(const std::string& url, bool readOnly) {
    std::string reason;
    if (!ItemStore::checkUrl(url, reason))
        throw Failure(exitUsage, reason);
    if (url.rfind(embedded, 0) == 0)
        requireFolder(storeFolder(url), readOnly);
    StoreOptions options;
    options.create = false;
    options.readOnly = readOnly;
    std::unique_ptr<ItemStore> store = ItemStore::open(url, options, reason);
    if (!store)
        throw Failure(outOfReach(reason) ? exitUnavailable : exitInputMissing, reason);
    return store;
}

bool outOfReach(const std::string& reason) {
    return reason.rfind("cannot reach", 0) == 0;
}

std::string storeFolder(const std::string& url) {
    if (url.rfind(embedded, 0) != 0 || url.size() == embedded.size())
        throw Failure(exitUsage, "\"" + url + "\" is no store on this machine, expected lmdb:PATH");
    return url.substr(embedded.size());
}

CentralStore::CentralStore(const std::string& url, bool readOnly) : store_(openStore(url, readOnly)) {
    ItemStore::setCurrent(store_.get());
}

CentralStore::~CentralStore() {
    ItemStore::setCurrent(nullptr);
}

StoreLog CentralStore::centralLog(const std::string& name) {
    StoreLog log;
    if (!store_->findLog(name, log))
        throw Failure(exitConfiguration, store_->url() + ": knows no log \"" + name +
                                             "\", expected a store that a daemon has opened");
    if (log.kind != StoreLog::Kind::central)
        throw Failure(exitConfiguration, store_->url() + ": its log \"" + name +
                                             "\" is a workstation's queue, expected a central log");
    return log;
}

bool CentralStore::keepsTrail() {
    StoreLog log;
    return store_->findLog("audit", log) && log.kind == StoreLog::Kind::central;
}

void CentralStore::requireTrace() {
    if (const CommitResult result = store_->probeCommit(); !result)
        throw Failure(exitNoPermission, "the audit trail cannot be written (" + result.reason +
                                            "), and a log is not read without a trace");
}

void CentralStore::leaveTrace(const std::string& call, const std::string& log, long long start, long long end,
                              std::uint64_t rows, std::uint64_t bytes) {
    const StoreLog trail = centralLog("audit");
    const std::string user = systemUser();
    const std::string device = machine();
    const Identity identity = Identity::make(user, device, SiteKey());
    const unsigned checksum =
        AuditLogTools::originChecksum(identity.userBlock.data(), identity.deviceBlock.data());
    Item event;
    event.addString("AuditLogUsed");
    event.addString(call);
    event.addString(log);
    event.addInteger(start);
    event.addInteger(end);
    event.addInteger(static_cast<long long>(rows));
    event.addInteger(static_cast<long long>(bytes));
    AuditLogTools::appendCentral(
        trail.path, AuditLogTools::origin(user.c_str(), device.c_str(), checksum, trail.anonymous), checksum,
        event);
    if (const CommitResult result = ItemStore::flush(); !result)
        throw Failure(exitInputOutput, "the use of the log could not be recorded: " + result.reason);
}

}  // namespace qel::programs
