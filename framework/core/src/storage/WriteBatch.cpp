#include "qelCore/ItemStore.h"
#include "storage/StoreCore.h"

namespace qel {

WriteBatch::WriteBatch() : WriteBatch(ItemStore::current()) {}

WriteBatch::WriteBatch(ItemStore* store) : store_(store), joined_(false) {
    if (store_ == nullptr || !store_->core_->isUsable()) {
        store_ = nullptr;
        return;
    }
    joined_ = store_->core_->thread().depth > 0;
    store_->core_->openBatch();
}

WriteBatch::~WriteBatch() {
    if (store_ != nullptr)
        store_->core_->closeBatch();
}

std::uint64_t WriteBatch::writes() const {
    return store_ == nullptr ? 0 : store_->core_->thread().batch->writes().size();
}

std::uint64_t WriteBatch::bytes() const {
    return store_ == nullptr ? 0 : store_->core_->thread().batch->bytes();
}

void WriteBatch::submit(Completion done) {
    if (store_ != nullptr)
        store_->core_->submitBatch(std::move(done), joined_);
    else if (done)
        done(CommitResult());
}

void WriteBatch::submitDeferred(unsigned milliseconds) {
    if (store_ == nullptr)
        return;
    if (!joined_) {
        store_->core_->thread().batch->deferred = true;
        store_->core_->thread().batch->deferredMilliseconds = milliseconds;
    }
    store_->core_->submitBatch({}, joined_);
}

CommitResult WriteBatch::commit() {
    return store_ == nullptr ? CommitResult() : store_->core_->commitBatch();
}

}  // namespace qel
