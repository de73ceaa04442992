#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "qelCore/RpcContext.h"
#include "qelNet/RpcService.h"
#include "rpc/CallFolders.h"
#include "rpc/ServerTransfer.h"
#include "rpc/SessionLink.h"

namespace qel {
class WriteBatch;
}

namespace qel::rpc {

/// How a call has ended, on its way to the client.
struct CallAnswer {
    RpcError error = RpcError::none;
    std::string sentence;
    Item result;
    int transferCode = 0;
    std::string transferStatus;
};

/// One call as the service sees it, and the context that its handler gets. Its work (handler, event handlers, ending)
/// is a line of steps of which one runs at a time, each inside a write batch. The step after which the call is over
/// also tells the guard, in the same batch, and the answer leaves when that is durable.
class ServerCall : public RpcContext, public std::enable_shared_from_this<ServerCall> {
  public:
    struct Setup {
        std::shared_ptr<RpcService::Core> core;
        std::shared_ptr<SessionLink> link;
        std::shared_ptr<const RpcProvider::Call> call;
        RpcCaller caller;
        long long id = 0;
        std::uint64_t window = 0;
        std::uint64_t mostRows = 0;
        std::size_t chunkBytes = 0;
    };

    static std::shared_ptr<ServerCall> make(Setup setup, const Item& arguments);
    ~ServerCall() override;

    // ----- by the session, on its strand

    /// Puts the handler in line; false when too many wait.
    bool start();
    /// The client has gone or wants no answer any more.
    void abandon(RpcTransfer code, const std::string& reason);
    /// About once a second.
    void tick();
    void credit(std::uint64_t bytes) { transfer_->credit(bytes); }
    void drained() { transfer_->drained(); }
    void transferOutcome(int code, const std::string& status);

    long long id() const { return setup_.id; }
    std::uint64_t window() const { return setup_.window; }
    std::size_t chunkBytes() const { return setup_.chunkBytes; }

    // ----- by the handler

    String getFileTransferTargetPath(const char* name) const override;
    void initiateFileTransfer(int mode, const Vector<FilePair>& files) const override;
    bool getFileTransferStatus(int& code, String& status) const override;
    void addEventHandler(EventHandler&& handler) const override;

  protected:
    void sendResult(const Item& result) const override;

  private:
    using Step = std::function<void()>;

    ServerCall(Setup setup, const Item& arguments);
    void addStep(Step step);
    void runSteps();
    void runStep(const Step& step);
    void handle();
    void tellEventHandlers();
    void timeOut(bool transferring, unsigned seconds);
    void fail(RpcError error, const std::string& sentence);
    bool takeEnd();
    void conclude(WriteBatch& batch);
    RpcUse takeUse(const CallAnswer& answer);
    CallAnswer makeAnswer();
    void openFiles(int mode, const Vector<FilePair>& files);
    bool isSendable(const std::string& path, std::string& error);
    void sendWorking();
    ServerCall& self() const { return const_cast<ServerCall&>(*this); }

    const Setup setup_;
    std::shared_ptr<ServerTransfer> transfer_;

    mutable std::mutex mutex_;
    std::deque<Step> steps_;
    bool running_ = false;
    bool transferBegun_ = false;
    bool answered_ = false;  // the result is complete, and `finish` is through with this object
    bool concluded_ = false;
    bool abandoned_ = false;
    std::optional<CallAnswer> failure_;
    std::unique_ptr<CallFolder> folder_;
    std::vector<EventHandler> eventHandlers_;

    unsigned seconds_ = 0;      // strand: since the start
    unsigned idleSeconds_ = 0;  // strand: without anything going on
};

/// Elements of a result, where one that is an array counts as many as it has.
std::uint64_t countRows(const Item& result);

}  // namespace qel::rpc
