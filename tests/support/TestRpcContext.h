#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "qelCore/RpcContext.h"
#include "support/TemporaryFolder.h"

namespace qel::test {

/// A remote call inside the test: transfers nothing, and shows what the handler asked of the framework.
class TestRpcContext : public RpcContext {
  public:
    TestRpcContext(const char* name, const Item& arguments)
        : RpcContext(name, arguments, "auditor", "desk") {}

    String getFileTransferTargetPath(const char* name) const override {
        const std::string parent = folder_ / std::to_string(paths_++);
        std::filesystem::create_directory(parent);
        return String(parent + "/" + name);
    }
    void initiateFileTransfer(int mode, const Vector<FilePair>& files) const override {
        modes_.push_back(mode);
        for (const FilePair& file : files)
            files_.push_back(file);
    }
    bool getFileTransferStatus(int& code, String& status) const override {
        if (!ended_)
            return false;
        code = code_;
        status = status_;
        return true;
    }
    void addEventHandler(EventHandler&& handler) const override { handlers_.push_back(std::move(handler)); }

    /// One event of the call; the answer of the handler.
    bool event() const { return handlers_.at(0)(*this); }
    void endTransfer(int code, const char* status) {
        ended_ = true;
        code_ = code;
        status_ = status;
    }

    const std::vector<int>& modes() const { return modes_; }
    const std::vector<FilePair>& files() const { return files_; }
    std::size_t handlers() const { return handlers_.size(); }
    /// The results sent so far.
    const std::vector<Item>& results() const { return results_; }
    /// Log lines that were there when the result was sent.
    mutable std::vector<std::string> linesAtResult;
    mutable std::function<std::vector<std::string>()> linesNow;

  protected:
    void sendResult(const Item& result) const override {
        results_.push_back(result);
        if (linesNow)
            linesAtResult = linesNow();
    }

  private:
    TemporaryFolder folder_;
    mutable int paths_ = 0;
    mutable std::vector<int> modes_;
    mutable std::vector<FilePair> files_;
    mutable std::vector<EventHandler> handlers_;
    mutable std::vector<Item> results_;
    bool ended_ = false;
    int code_ = 0;
    String status_;
};

}  // namespace qel::test
