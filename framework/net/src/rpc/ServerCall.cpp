#include "rpc/ServerCall.h"

#include <exception>
#include <stdexcept>
#include <utility>

#include "qelCore/ItemStore.h"
#include "qelCore/logging/MessageStream.h"
#include "rpc/RpcCore.h"
#include "rpc/RpcPackets.h"
#include "rpc/RpcSession.h"

namespace qel::rpc {

namespace {

// A path below a device: nothing can be made there, and a handler that adds names to it stays away from the root.
constexpr const char* nowhere = "/dev/null/no-transfer-folder";

}  // namespace

std::uint64_t countRows(const Item& result) {
    std::uint64_t rows = 0;
    Item::Iterator elements(result);
    ConstByteSpan array;
    while (!elements.atEnd()) {
        if (!elements.decodeElementAsItem(array)) {
            if (!elements.skip())
                break;
            ++rows;
            continue;
        }
        for (Item::Iterator inner(array); inner.skip();)
            ++rows;
    }
    return rows;
}

ServerCall::ServerCall(Setup setup, const Item& arguments)
    : RpcContext(setup.call->name, arguments, setup.caller.identity.user, setup.caller.identity.device),
      setup_(std::move(setup)) {
    ++setup_.core->counters.calls;
    ++setup_.core->counters.openCalls;
}

std::shared_ptr<ServerCall> ServerCall::make(Setup setup, const Item& arguments) {
    std::shared_ptr<ServerCall> call(new ServerCall(std::move(setup), arguments));
    const Setup& with = call->setup_;
    call->transfer_ = std::make_shared<ServerTransfer>(
        ServerTransfer::Setup{with.core, with.link, with.id, with.window, with.chunkBytes,
                              [weak = std::weak_ptr<ServerCall>(call)] {
                                  if (const auto self = weak.lock())
                                      self->addStep([raw = self.get()] { raw->tellEventHandlers(); });
                              }});
    return call;
}

ServerCall::~ServerCall() {
    --setup_.core->counters.openCalls;
}

// ----- steps

bool ServerCall::start() {
    {
        const std::lock_guard lock(mutex_);
        running_ = true;
        steps_.push_back([this] { handle(); });
    }
    return setup_.core->handlers.submit([self = shared_from_this()] { self->runSteps(); });
}

void ServerCall::addStep(Step step) {
    {
        const std::lock_guard lock(mutex_);
        if (concluded_)
            return;
        steps_.push_back(std::move(step));
        if (std::exchange(running_, true))
            return;
    }
    setup_.core->events.submitAlways([self = shared_from_this()] { self->runSteps(); });
}

void ServerCall::runSteps() {
    for (;;) {
        Step step;
        {
            const std::lock_guard lock(mutex_);
            if (steps_.empty() || concluded_) {
                steps_.clear();
                running_ = false;
                return;
            }
            step = std::move(steps_.front());
            steps_.pop_front();
        }
        runStep(step);
    }
}

void ServerCall::runStep(const Step& step) {
    WriteBatch batch;
    try {
        step();
    } catch (const std::length_error&) {
        fail(RpcError::resultTooLarge, "the result is too large; ask for less at a time");
    } catch (const std::bad_alloc&) {
        fail(RpcError::resultTooLarge, "the server has no memory for the result; ask for less at a time");
    } catch (const std::exception& fault) {
        fail(RpcError::failed, std::string("the call could not be carried out: ") + fault.what());
    }
    if (takeEnd())
        conclude(batch);
    else
        batch.submit({});
}

bool ServerCall::takeEnd() {
    const std::lock_guard lock(mutex_);
    // Whoever is in the middle of `finish` needs this call until its result has been taken.
    if (concluded_ || !(isFinished() ? answered_ : failure_.has_value()))
        return false;
    return concluded_ = true;
}

void ServerCall::handle() {
    {
        const std::lock_guard lock(mutex_);
        if (abandoned_)
            return;
    }
    if (setup_.core->guard != nullptr) {
        const std::string refusal = setup_.core->guard->examine(setup_.caller, *setup_.call,
                                                                getArguments().asItem(), setup_.mostRows);
        if (!refusal.empty())
            return fail(RpcError::resultTooLarge, refusal);
    }
    setup_.call->handler(*this);
}

void ServerCall::tellEventHandlers() {
    std::vector<EventHandler> handlers;
    {
        const std::lock_guard lock(mutex_);
        handlers.swap(eventHandlers_);
    }
    std::vector<EventHandler> staying;
    for (EventHandler& handler : handlers)
        if (!isFinished() && handler(*this))
            staying.push_back(std::move(handler));
    const std::lock_guard lock(mutex_);
    for (EventHandler& handler : eventHandlers_)
        staying.push_back(std::move(handler));
    eventHandlers_.swap(staying);
}

void ServerCall::fail(RpcError error, const std::string& sentence) {
    const std::lock_guard lock(mutex_);
    if (failure_.has_value())
        return;
    failure_.emplace();
    failure_->error = error;
    failure_->sentence = sentence;
}

// ----- time and ends from outside

void ServerCall::abandon(RpcTransfer code, const std::string& reason) {
    {
        const std::lock_guard lock(mutex_);
        if (std::exchange(abandoned_, true) || concluded_)
            return;
    }
    transfer_->end(code, reason);
    // Behind the step in which the event handlers learn of it and usually finish.
    addStep([this, reason] { fail(RpcError::connectionLost, reason); });
}

void ServerCall::tick() {
    ++seconds_;
    bool busy = false;
    bool transferring = false;
    {
        const std::lock_guard lock(mutex_);
        if (concluded_)
            return;
        busy = running_;
        transferring = transferBegun_;
    }
    const bool progress = transfer_->takeProgress();
    idleSeconds_ = busy || progress ? 0 : idleSeconds_ + 1;
    if (!transferring)
        sendWorking();
    else if (progress)
        addStep([this] { tellEventHandlers(); });
    const RpcServiceOptions& options = setup_.core->options;
    const unsigned limit =
        transferring && options.keepSeconds > 0 ? options.keepSeconds : options.callSeconds;
    if (idleSeconds_ < limit)
        return;
    idleSeconds_ = 0;
    timeOut(transferring, limit);
}

void ServerCall::timeOut(bool transferring, unsigned seconds) {
    const std::string limit = std::to_string(seconds) + " seconds";
    if (transferring)
        transfer_->end(RpcTransfer::stalled, "the transfer made no progress for " + limit);
    addStep([this, limit] {
        if (isFinished())
            return;
        ++setup_.core->counters.notAnswered;
        logging::MessageStream(2, 2) << "remote call " << getName() << " of user "
                                     << setup_.caller.identity.user << " at " << setup_.caller.address
                                     << " was left unfinished for " << limit << " and is ended";
        fail(RpcError::notAnswered,
             "its handler left it unfinished for " + limit + "; it may not understand the arguments");
    });
}

void ServerCall::transferOutcome(int code, const std::string& status) {
    {
        const std::lock_guard lock(mutex_);
        if (!transferBegun_)
            return;
    }
    transfer_->outcome(code, status);
}

void ServerCall::sendWorking() {
    std::uint64_t bytes = 0;
    {
        const std::lock_guard lock(mutex_);
        bytes = folder_ == nullptr ? 0 : folder_->usedBytes();
    }
    const Ref<Packet> packet = makePacket(workingScheme, setup_.id);
    packet->singleSet<long long>("seconds", seconds_);
    packet->singleSet<long long>("bytes", static_cast<long long>(bytes));
    setup_.link->post([packet](RpcSession& session) { session.sendPacket(packet.get()); });
}

// ----- the end

void ServerCall::conclude(WriteBatch& batch) {
    CallAnswer answer = makeAnswer();
    transfer_->end(RpcTransfer::cancelled, "the call has ended");
    std::unique_ptr<CallFolder> folder;
    {
        const std::lock_guard lock(mutex_);
        folder.swap(folder_);
        eventHandlers_.clear();
    }
    folder.reset();
    const RpcUse use = takeUse(answer);
    if (setup_.core->guard != nullptr)
        setup_.core->guard->used(setup_.caller, *setup_.call, getArguments().asItem(), use);
    batch.submit([link = setup_.link, id = setup_.id,
                  shared = std::make_shared<CallAnswer>(std::move(answer))](const CommitResult& commit) {
        if (commit.durable)
            link->post([id, shared](RpcSession& session) { session.answer(id, std::move(*shared)); });
        else
            link->disconnect("what a remote call recorded could not be stored: " + commit.reason);
    });
}

RpcUse ServerCall::takeUse(const CallAnswer& answer) {
    RpcUse use;
    use.error = answer.error;
    {
        const std::lock_guard lock(mutex_);
        if (!transferBegun_) {
            use.rows = countRows(answer.result);
            use.bytes = answer.result.size();
        }
    }
    transfer_->addTo(use);
    return use;
}

CallAnswer ServerCall::makeAnswer() {
    CallAnswer answer;
    {
        const std::lock_guard lock(mutex_);
        if (failure_.has_value() && !isFinished())
            answer = std::move(*failure_);
    }
    transfer_->hasEnded(answer.transferCode, answer.transferStatus);
    if (answer.error == RpcError::resultTooLarge)
        ++setup_.core->counters.tooLarge;
    if (answer.error != RpcError::none)
        return answer;
    answer.result = std::move(getResult());
    const std::uint64_t limit = setup_.mostRows;
    const std::uint64_t rows = countRows(answer.result);
    if (rows > limit) {
        ++setup_.core->counters.tooLarge;
        answer.result.clear();
        answer.error = RpcError::resultTooLarge;
        answer.sentence = "the result has " + std::to_string(rows) + " rows, more than the " +
                          std::to_string(limit) + " of one call; ask for less at a time";
    }
    return answer;
}

void ServerCall::sendResult(const Item&) const {
    // From here on another thread may end the call and let it go.
    const auto call = self().shared_from_this();
    {
        const std::lock_guard lock(mutex_);
        call->answered_ = true;
    }
    // Inside a step its end takes the result along; a handler that finishes from a thread of its own needs one.
    call->addStep([] {});
}

// ----- files

String ServerCall::getFileTransferTargetPath(const char* name) const {
    ServerCall& call = self();
    const std::lock_guard lock(mutex_);
    if (call.folder_ == nullptr)
        call.folder_ = setup_.core->folders.create();
    const std::string path =
        call.folder_ == nullptr ? std::string() : call.folder_->nextPath(name == nullptr ? "" : name);
    return path.empty() ? String(nowhere) : String(path);
}

void ServerCall::initiateFileTransfer(int mode, const Vector<FilePair>& files) const {
    {
        const std::lock_guard lock(mutex_);
        if (transferBegun_) {
            logging::MessageStream(3, 2) << "[RPC:" << getName() << "] a second file transfer is not started";
            return;
        }
        self().transferBegun_ = true;
    }
    self().openFiles(mode, files);
}

void ServerCall::openFiles(int mode, const Vector<FilePair>& files) {
    if (mode != transferToClient)
        return transfer_->end(RpcTransfer::refused, "there is no transfer mode " + std::to_string(mode));
    auto outgoing = std::make_unique<OutgoingFiles>();
    for (const auto& [target, path] : files) {
        std::string error;
        if (!isSendable(path.str(), error) || !outgoing->add(target.str(), path.str(), error)) {
            logging::MessageStream(3, 2) << "[RPC:" << getName() << "] " << error;
            return transfer_->end(RpcTransfer::serverCannotRead, error);
        }
    }
    transfer_->begin(std::move(outgoing));
}

bool ServerCall::isSendable(const std::string& path, std::string& error) {
    const std::lock_guard lock(mutex_);
    if (folder_ == nullptr || !folder_->contains(path))
        error = "the server could not make the file";
    else if (folder_->isDiskFull())
        error = "the server's disk is full, so the file may not be whole";
    return error.empty();
}

bool ServerCall::getFileTransferStatus(int& code, String& status) const {
    std::string text;
    {
        const std::lock_guard lock(mutex_);
        if (!transferBegun_ && !abandoned_)
            return false;
    }
    if (!transfer_->hasEnded(code, text))
        return false;
    status = String(text);
    return true;
}

void ServerCall::addEventHandler(EventHandler&& handler) const {
    {
        const std::lock_guard lock(mutex_);
        self().eventHandlers_.push_back(std::move(handler));
    }
    int code = 0;
    std::string status;
    if (transfer_->hasEnded(code, status))
        self().addStep([call = &self()] { call->tellEventHandlers(); });
}

}  // namespace qel::rpc
