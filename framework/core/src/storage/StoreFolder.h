#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "qelCore/StoreOptions.h"

namespace qel::storage {

/// The folder that a store's files lie in: made, checked and claimed for one environment of this process, until this
/// object goes.
class StoreFolder {
  public:
    StoreFolder() = default;
    ~StoreFolder();
    StoreFolder(const StoreFolder&) = delete;
    StoreFolder& operator=(const StoreFolder&) = delete;

    /// False with a sentence when no store can lie there.
    bool open(const std::string& path, const StoreOptions& options, std::string& reason);
    const std::string& path() const { return path_; }
    std::string file(const char* name) const { return path_ + "/" + name; }
    /// True when there was a store before.
    bool hadStore() const { return hadStore_; }

    /// Gives a new file the store's mode and, where this process may, the folder's owner and group.
    void adopt(const std::string& file, unsigned mode) const;

    /// The name of a network file system by its number in statfs(2), or null when it is none.
    static const char* networkFileSystem(long type);
    /// Makes sure that `file` has at least `bytes`, with blocks of its own: it is going to be written through a
    /// mapping, where a full disk is a signal and no error.
    static bool reserve(const std::string& file, std::size_t bytes, unsigned mode, std::string& reason);

  private:
    bool make(const std::string& path, const StoreOptions& options, std::string& reason);
    bool check(const StoreOptions& options, std::string& reason);
    bool claim(std::string& reason);

    std::string path_;
    bool hadStore_ = false;
    bool claimed_ = false;
    std::uint64_t device_ = 0;
    std::uint64_t inode_ = 0;
};

constexpr const char* dataFile = "data.mdb";
constexpr const char* lockFile = "lock.mdb";
constexpr const char* pageFile = "shared";

}  // namespace qel::storage
