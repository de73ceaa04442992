#include "qelCore/RpcContext.h"

#include <utility>

namespace qel {

RpcArguments::RpcArguments(const Item& arguments) : arguments_(arguments), position_(arguments_) {}

RpcArguments& RpcArguments::operator=(const RpcArguments& other) {
    arguments_ = other.arguments_;
    position_ = Item::Iterator(arguments_);
    return *this;
}

RpcContext::RpcContext(String name, const Item& arguments, String user, String device)
    : name_(std::move(name)), user_(std::move(user)), device_(std::move(device)), arguments_(arguments) {}

RpcContext::~RpcContext() = default;

void RpcContext::finish() const {
    if (finished_.exchange(true))
        return;
    sendResult(result_);
}

}  // namespace qel
