#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace qel::rpc {

/// The folder of one call, removed with all it holds by the destructor. Any thread.
class CallFolder {
  public:
    explicit CallFolder(std::string path) : path_(std::move(path)) {}
    ~CallFolder();
    CallFolder(const CallFolder&) = delete;
    CallFolder& operator=(const CallFolder&) = delete;

    const std::string& path() const { return path_; }
    /// A path in it that was not given out before and where nothing is; its parent exists. Empty, with a log line,
    /// when the parent cannot be made.
    std::string nextPath(const std::string& name);
    /// True when `path` lies below this folder, without any way out of it.
    bool contains(const std::string& path) const;
    /// True when next to nothing more can be written: who made a file without looking may have lost its end.
    bool isDiskFull() const;
    /// Bytes of the files in it now.
    std::uint64_t usedBytes() const;

  private:
    std::string path_;
    std::mutex mutex_;
    unsigned given_ = 0;
};

/// Where the folders of calls lie. Any thread.
class CallFolders {
  public:
    /// Makes `directory` (mode 0700) when missing, locks it for this process, and removes what an earlier process left
    /// in it. `error` says what is wrong with it.
    CallFolders(const std::string& directory, std::string& error);
    ~CallFolders();
    CallFolders(const CallFolders&) = delete;
    CallFolders& operator=(const CallFolders&) = delete;

    /// A new folder (mode 0700); null, with a log line, when it cannot be made.
    std::unique_ptr<CallFolder> create();

  private:
    bool prepare(std::string& error);
    void sweep() const;

    std::string directory_;
    int lock_ = -1;
};

}  // namespace qel::rpc
