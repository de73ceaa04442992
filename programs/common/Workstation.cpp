#include "common/Workstation.h"

#include "common/ConfigFile.h"
#include "common/Failure.h"
#include "common/LogPath.h"

namespace qel::programs {
std::string identityFingerprint(const Credentials& credentials) {
    const Identity identity =
        Identity::make(credentials.getUserName(), credentials.getDeviceName(), SiteKey());
    constexpr char digits[] = "0123456789abcdef";
    constexpr std::size_t bytesOfEach = 16;
    std::string text;
    for (const IdentityBlock* block : {&identity.userBlock, &identity.deviceBlock})
        for (std::size_t i = 0; i < bytesOfEach; ++i) {
            text += digits[(*block)[i] >> 4];
            text += digits[(*block)[i] & 15];
        }
    return text;
}

Workstation::Workstation(const std::string& configFile, Use use) {
    readConfig(configFile, config_);
    interaction_.setPath(logPath(config_.interaction.path));
    audit_.setPath(logPath(config_.audit.path));
    if (interaction_.getPath() == audit_.getPath())
        throw Failure(
            exitConfiguration,
            configFile + ": [logs.audit] path and [logs.interaction] path are the same, expected two places");
    if (use == Use::work)
        credentials_ = loadCredentials(config_, config_.tls);
    openStore(use);
    if (use == Use::work) {
        bindIdentity();
        rememberLogs();
    }
}

Workstation::~Workstation() {
    ItemStore::setCurrent(nullptr);
}

void Workstation::openStore(Use use) {
    StoreOptions options;
    options.durability = config_.durability == "deferred" ? Durability::deferred : Durability::commit;
    options.create = use == Use::work;
    options.valueLimit = largestEvent;
    std::string reason;
    const std::string url = config_.resolveUrl(config_.storeUrl);
    store_ = ItemStore::open(url, options, reason);
    if (!store_)
        throw Failure(use == Use::look ? exitInputMissing : exitInputOutput, reason);
    ItemStore::setCurrent(store_.get());
}

void Workstation::bindIdentity() {
    std::string reason;
    if (store_->bindQueueIdentity(identityFingerprint(*credentials_), reason))
        return;
    throw Failure(exitConfiguration,
                  "the queue in " + store_->path() + " was filled by another identity than " +
                      credentials_->getUserName() + " at " + credentials_->getDeviceName() +
                      ", whose events it would be taken for: " + reason);
}

void Workstation::rememberLogs() {
    for (const char* name : {"interaction", "audit"}) {
        StoreLog log;
        const Item path = sequence(name).getPath();
        if (store_->findLog(name, log) && log.path == path && log.kind == StoreLog::Kind::queue)
            continue;
        log = {name, path, StoreLog::Kind::queue, logConfig(name).anonymous};
        if (const CommitResult result = store_->setLog(log); !result)
            throw Failure(exitInputOutput, result.reason);
    }
}

}  // namespace qel::programs
