#pragma once

#include <atomic>
#include <functional>

#include "qelCore/Export.h"
#include "qelCore/Item.h"
#include "qelCore/Pair.h"
#include "qelCore/String.h"
#include "qelCore/Vector.h"

namespace qel {

/// The arguments of a remote call with a read position. Each decode takes the next element when it has that
/// type; it returns false, and the position stays, when there is no further element or it has another type. A
/// value type that owns its bytes; one thread at a time.
class QELCORE_EXPORT RpcArguments {
  public:
    RpcArguments() : RpcArguments(Item()) {}
    explicit RpcArguments(const Item& arguments);
    /// A copy begins at the first argument again.
    RpcArguments(const RpcArguments& other) : RpcArguments(other.arguments_) {}
    RpcArguments& operator=(const RpcArguments& other);

    bool decodeAsString(String& value) { return position_.decodeElementAsString(value); }
    bool decodeAsItem(Item& value) { return position_.decodeElementAsItem(value); }
    bool decodeAsBool(bool& value) { return position_.decodeElementAsBool(value); }
    /// 32 bits; false also when the number does not fit.
    bool decodeAsInteger(int& value) { return position_.decodeElementAsInteger(value); }
    /// 64 bits, as UTC date-times are.
    bool decodeAsInteger(long long& value) { return position_.decodeElementAsInteger(value); }

    /// All arguments, read or not.
    const Item& asItem() const { return arguments_; }

  private:
    Item arguments_;
    Item::Iterator position_;
};

/// One remote call that is being handled: who asks what, and how it is answered. The framework makes it and
/// keeps it until the call has finished or was ended for taking too long; a handler may keep working on it
/// from an event handler, but keeps no pointer of its own beyond `finish`. Calls of handler and event
/// handlers of one context never overlap. Handlers get it const: what they change is the call, not the
/// handle.
class QELCORE_EXPORT RpcContext {
  public:
    /// Returns false when it wants no further events.
    using EventHandler = std::function<bool(const RpcContext&)>;
    /// Path on the client first, path on the server second.
    using FilePair = Pair<String, String>;

    /// The transfer from the server to the client.
    static constexpr int transferToClient = 2;

    virtual ~RpcContext();
    RpcContext(const RpcContext&) = delete;
    RpcContext& operator=(const RpcContext&) = delete;

    const String& getName() const { return name_; }
    RpcArguments& getArguments() const { return arguments_; }
    /// The caller as its certificate names it.
    const String& getUser() const { return user_; }
    const String& getDevice() const { return device_; }

    /// What goes back to the caller; the handler adds elements before `finish`.
    Item& getResult() const { return result_; }

    /// Ends the call and sends its result, once: every further time does nothing. No event follows.
    void finish() const;
    bool isFinished() const { return finished_; }

    /// A path on this machine for a file, or a folder of files, that the call transfers. Nothing is there yet
    /// but its parent, a folder that only this call uses, and that the framework removes with all it holds
    /// when the call ends however it ends. Two asks never get the same path, also not of two calls. `name`
    /// becomes part of it.
    virtual String getFileTransferTargetPath(const char* name) const = 0;

    /// Starts to transfer files, in this order, and returns at once; events of the call tell how it goes.
    /// `mode` is `transferToClient`; any other mode ends the transfer with an error. One transfer per call.
    virtual void initiateFileTransfer(int mode, const Vector<FilePair>& files) const = 0;

    /// True once the transfer has ended, or none can begin any more because the caller has gone or the service
    /// stops: `code` is 0 for success, `status` says in words what happened. Before, or without one, false.
    virtual bool getFileTransferStatus(int& code, String& status) const = 0;

    /// Registers what is called on events of this call: progress and end of its file transfer. A transfer
    /// that has ended already still reaches it.
    virtual void addEventHandler(EventHandler&& handler) const = 0;

  protected:
    RpcContext(String name, const Item& arguments, String user, String device);

    /// Sends the result; called once.
    virtual void sendResult(const Item& result) const = 0;

  private:
    String name_;
    String user_;
    String device_;
    mutable RpcArguments arguments_;
    mutable Item result_;
    mutable std::atomic<bool> finished_{false};
};

}  // namespace qel
