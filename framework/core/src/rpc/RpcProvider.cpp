#include "qelCore/RpcProvider.h"

#include <utility>

namespace qel {

RpcProvider::RpcProvider() = default;
RpcProvider::~RpcProvider() = default;

void RpcProvider::addRPC(const char* name, Handler&& handler, const char* signature,
                         const char* description) {
    auto call =
        std::make_shared<const Call>(Call{groupName, name, signature, description, std::move(handler)});
    const std::lock_guard lock(mutex_);
    const String key = call->name;
    calls_.insert_or_assign(key, std::move(call));
}

std::shared_ptr<const RpcProvider::Call> RpcProvider::find(const char* name) const {
    const std::lock_guard lock(mutex_);
    const auto found = calls_.find(String(name));
    return found == calls_.end() ? nullptr : found->second;
}

Vector<std::shared_ptr<const RpcProvider::Call>> RpcProvider::getCalls() const {
    const std::lock_guard lock(mutex_);
    Vector<std::shared_ptr<const Call>> calls;
    for (const auto& [name, call] : calls_)
        calls.push_back(call);
    return calls;
}

}  // namespace qel
