#pragma once

#include <string>
#include <utility>
#include <vector>

#include "qelCore/RpcContext.h"

namespace qel::test {

/// A remote call without a network: the test says how the transfer ends, and looks at what the handler did.
class MemoryRpcContext final : public RpcContext {
  public:
    MemoryRpcContext(const char* name, const Item& arguments, std::string folder = "/nowhere")
        : RpcContext(name, arguments, "auditor", "desk"), folder_(std::move(folder)) {}

    String getFileTransferTargetPath(const char* name) const override {
        return String(folder_ + "/" + name + "-" + std::to_string(++asked));
    }
    void initiateFileTransfer(int mode, const Vector<FilePair>& sent) const override {
        transferMode = mode;
        files = sent;
    }
    bool getFileTransferStatus(int& code, String& status) const override {
        if (!ended_)
            return false;
        code = code_;
        status = status_;
        return true;
    }
    void addEventHandler(EventHandler&& handler) const override {
        handlers_.push_back(std::move(handler));
        if (ended_)
            fireEvent();
    }

    /// One event of the call: each handler is asked, and those that want no more are dropped.
    void fireEvent() const {
        std::erase_if(handlers_, [this](const EventHandler& handler) { return !handler(*this); });
    }
    void endTransfer(int code, const char* status) {
        code_ = code;
        status_ = status;
        ended_ = true;
        fireEvent();
    }
    std::size_t handlerCount() const { return handlers_.size(); }

    mutable int asked = 0;
    mutable int transferMode = 0;
    mutable Vector<FilePair> files;
    mutable int sendings = 0;
    mutable Item sentResult;

  protected:
    void sendResult(const Item& result) const override {
        ++sendings;
        sentResult = result;
    }

  private:
    std::string folder_;
    mutable std::vector<EventHandler> handlers_;
    bool ended_ = false;
    int code_ = 0;
    String status_;
};

}  // namespace qel::test
