#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "rpc/Sha256.h"

namespace qel::rpc {

/// The files of one transfer on their way out, read one after the other. One thread at a time.
class OutgoingFiles {
  public:
    struct File {
        std::string target;
        std::uint64_t size = 0;
        int handle = -1;
    };
    /// What comes next: data of a file, or its end.
    struct Chunk {
        enum class Kind { data, fileEnd, allSent, fault };
        Kind kind = Kind::allSent;
        std::size_t file = 0;
        std::uint64_t offset = 0;  ///< of data; of the file's end its size
        std::string bytes;         ///< data, digest, or a sentence
    };

    OutgoingFiles() = default;
    ~OutgoingFiles();
    OutgoingFiles(const OutgoingFiles&) = delete;
    OutgoingFiles& operator=(const OutgoingFiles&) = delete;

    /// Opens the file; false with a sentence when it is not there, or no plain file.
    bool add(const std::string& target, const std::string& path, std::string& error);

    const std::vector<File>& files() const { return files_; }
    std::uint64_t totalBytes() const;

    /// Reads at most `most` bytes on, which is not 0 while `needsRoom`.
    Chunk next(std::size_t most);

    /// True when data comes next, and not the end of a file or of all.
    bool needsRoom() const { return at_ < files_.size() && offset_ < files_[at_].size; }
    bool isAtEnd() const { return at_ == files_.size(); }

    /// Of what has been read so far.
    std::uint64_t sentBytes() const { return sentBytes_; }
    std::uint64_t sentLines() const { return sentLines_; }
    std::size_t filesBegun() const;

  private:
    Chunk endOfFile();

    std::vector<File> files_;
    std::size_t at_ = 0;
    std::uint64_t offset_ = 0;
    std::uint64_t sentBytes_ = 0;
    std::uint64_t sentLines_ = 0;
    Sha256 digest_;
};

}  // namespace qel::rpc
