#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "qelCore/Item.h"
#include "qelNet/Export.h"
#include "qelNet/RpcProtocol.h"

namespace qel {

class Peer;

/// One remote call to be made. A plain value.
struct QELNET_EXPORT RpcRequest {
    std::string name;
    Item arguments;
    /// The files that the service may send, by the very names that the call makes it use. Nothing else is
    /// ever written.
    std::vector<std::string> targets;
    /// Makes the folders of the targets when the service has announced the files, not before: a call that is
    /// refused leaves no trace here.
    bool createFolders = false;
    /// Rows of a result that are taken, as of RpcUse; the service refuses to make a larger one. 0: whatever
    /// the service allows.
    std::uint64_t largestRows = 0;
    /// Bytes of a result that are taken; a larger one is refused.
    std::uint64_t largestResult = std::uint64_t{512} << 20;
    /// Bytes that the service may send ahead of what has been written here; at most 16 MiB.
    std::uint64_t window = std::uint64_t{4} << 20;
    /// Seconds without any sign of the call (the service gives one each second) before it is given up.
    unsigned silenceSeconds = 60;
};

/// A file that has arrived whole.
struct QELNET_EXPORT RpcFile {
    std::string path;
    std::uint64_t bytes = 0;
};

/// What came of a call. A plain value.
struct QELNET_EXPORT RpcReply {
    RpcError error = RpcError::none;
    /// Why, in one sentence; empty when the call was answered.
    std::string sentence;
    Item result;
    std::vector<RpcFile> files;
    explicit operator bool() const { return error == RpcError::none; }
};

/// How far a call is.
struct QELNET_EXPORT RpcProgress {
    bool transferring = false;
    /// Bytes of files or result received, and expected (0 when not known).
    std::uint64_t bytes = 0;
    std::uint64_t total = 0;
    /// While the service prepares: seconds since it began, and bytes of files made so far.
    std::uint64_t preparingSeconds = 0;
    std::uint64_t preparedBytes = 0;
};

/// The caller's end of remote calls: one session of one connection, one call at a time. Used by one thread,
/// which waits in `call` and does the writing of received files itself; `cancel` may be called from any
/// thread. Files are written beside their targets (mode 0600) and take their names together, after size and
/// SHA-256 of each have been checked; whatever fails leaves nothing of them.
class QELNET_EXPORT RpcClient {
  public:
    /// Told now and then by the waiting thread; returning false cancels the call.
    using Progress = std::function<bool(const RpcProgress&)>;

    /// `peer` is connected, and outlives it. `service` is the name of the RpcService. Lives on one
    /// connection: after it was lost make a new one.
    RpcClient(Peer* peer, const std::string& service);
    ~RpcClient();
    RpcClient(const RpcClient&) = delete;
    RpcClient& operator=(const RpcClient&) = delete;

    /// Waits until the session is open; false with a sentence when it is refused, lost or takes too long.
    bool open(unsigned milliseconds, std::string& reason);

    /// Makes the call and waits for its end. Tells of failures in the reply only.
    RpcReply call(const RpcRequest& request, const Progress& progress = {});

    /// Ends the waiting of `call` soon, with RpcError::cancelled.
    void cancel();

  private:
    class Inner;
    std::shared_ptr<Inner> inner_;
};

}  // namespace qel
