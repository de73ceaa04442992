#include "qelNet/RpcService.h"

#include <utility>

#include "qelNet/ReportGenerator.h"
#include "rpc/RpcCore.h"
#include "rpc/RpcSession.h"

namespace qel {

namespace {

// One reads and hashes for all downloads together faster than a network takes it; the second keeps short steps from
// waiting for a slow disk.
constexpr unsigned eventThreads = 2;

class RpcSessionFactory : public Service::SessionFactoryBase {
  public:
    explicit RpcSessionFactory(std::shared_ptr<RpcService::Core> core) : core_(std::move(core)) {}
    Session* createSession() override { return new rpc::RpcSession(core_); }

  private:
    std::shared_ptr<RpcService::Core> core_;
};

}  // namespace

std::string RpcGuard::examine(const RpcCaller&, const RpcProvider::Call&, const Item&, std::uint64_t) {
    return {};
}

const char* describe(RpcError error) {
    switch (error) {
        case RpcError::none:
            return "answered";
        case RpcError::notPermitted:
            return "not permitted";
        case RpcError::noSuchCall:
            return "no such call";
        case RpcError::notAnswered:
            return "not answered";
        case RpcError::resultTooLarge:
            return "result too large";
        case RpcError::transferFailed:
            return "transfer failed";
        case RpcError::badRequest:
            return "bad request";
        case RpcError::busy:
            return "busy";
        case RpcError::failed:
            return "failed";
        case RpcError::connectionLost:
            return "connection lost";
        case RpcError::refusedByClient:
            return "refused by the client";
        case RpcError::cannotCreateFile:
            return "cannot create file";
        case RpcError::cannotWriteFile:
            return "cannot write file";
        case RpcError::cancelled:
            return "cancelled";
        case RpcError::noConnection:
            return "no connection";
    }
    return "unknown error";
}

RpcService::Core::Core(const RpcProvider* callProvider, RpcGuard* callGuard,
                       const RpcServiceOptions& callOptions, std::string& error)
    : provider(callProvider),
      guard(callGuard),
      options(callOptions),
      folders(callOptions.directory, error),
      handlers(callOptions.threads, callOptions.waitingCalls),
      events(eventThreads, 0) {}

RpcService::RpcService(const char* name, const RpcProvider* provider, RpcGuard* guard,
                       const RpcServiceOptions& options, std::string& error)
    : Service(name), core_(std::make_shared<Core>(provider, guard, options, error)) {
    auto* const factory = new RpcSessionFactory(core_);
    registerSessionFactory(rpcSessionType, factory);
    factory->decreaseReferenceCount();
}

RpcService::~RpcService() {
    stop();
}

void RpcService::stop() {
    core_->handlers.stop(false);
    core_->events.stop(true);
}

RpcStatistics RpcService::getStatistics() const {
    const Core::Counters& counters = core_->counters;
    RpcStatistics figures;
    figures.calls = counters.calls;
    figures.openCalls = counters.openCalls;
    figures.notPermitted = counters.notPermitted;
    figures.notAnswered = counters.notAnswered;
    figures.tooLarge = counters.tooLarge;
    figures.fileBytes = counters.fileBytes;
    return figures;
}

void RpcService::report(ReportGenerator* generator) {
    Service::report(generator);
    const RpcStatistics figures = getStatistics();
    const auto add = [&](const char* figure, std::uint64_t value) {
        generator->add(getName().c_str(), figure, static_cast<long long>(value));
    };
    add("remote_calls_total", figures.calls);
    add("remote_calls_open", figures.openCalls);
    add("remote_calls_not_permitted_total", figures.notPermitted);
    add("remote_calls_not_answered_total", figures.notAnswered);
    add("remote_calls_too_large_total", figures.tooLarge);
    add("transferred_file_bytes_total", figures.fileBytes);
}

}  // namespace qel
