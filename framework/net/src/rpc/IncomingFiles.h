#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "qelNet/RpcClient.h"
#include "rpc/Sha256.h"

namespace qel::rpc {

/// The files of one transfer as they arrive: written beside their targets under names of their own, checked, and given
/// their names together. It trusts nothing that the service says: only targets that were asked for, each once, exactly
/// the announced bytes in their order, and the right digest. Whatever is unfinished is removed by the destructor. One
/// thread.
class IncomingFiles {
  public:
    struct Announced {
        std::string target;
        std::uint64_t size = 0;
    };
    /// What went wrong; without an error all is well.
    struct Fault {
        RpcError error = RpcError::none;
        std::string sentence;
        explicit operator bool() const { return error != RpcError::none; }
    };

    explicit IncomingFiles(std::vector<std::string> allowed, bool createFolders = false)
        : allowed_(std::move(allowed)), createFolders_(createFolders) {}
    ~IncomingFiles();
    IncomingFiles(const IncomingFiles&) = delete;
    IncomingFiles& operator=(const IncomingFiles&) = delete;

    /// Checks the announcement and makes the files.
    Fault begin(const std::vector<Announced>& files);
    Fault data(std::size_t file, std::uint64_t offset, std::string_view bytes);
    Fault end(std::size_t file, std::uint64_t size, std::string_view digest);
    bool isWhole() const { return begun_ && at_ == files_.size(); }
    /// Flushes the files to the disk and gives them their names.
    Fault keep();

    bool isBegun() const { return begun_; }
    std::uint64_t receivedBytes() const { return received_; }
    std::uint64_t totalBytes() const { return total_; }
    std::vector<RpcFile> kept() const;

  private:
    struct File {
        std::string target;
        std::string part;
        std::uint64_t size = 0;
        std::uint64_t written = 0;
        int handle = -1;
    };

    Fault checkAnnouncement(const std::vector<Announced>& files) const;
    Fault create(const Announced& announced);
    Fault checkSpace() const;

    const std::vector<std::string> allowed_;
    const bool createFolders_;
    std::vector<File> files_;
    std::size_t at_ = 0;
    std::uint64_t received_ = 0;
    std::uint64_t total_ = 0;
    bool begun_ = false;
    bool kept_ = false;
    Sha256 digest_;
};

}  // namespace qel::rpc
