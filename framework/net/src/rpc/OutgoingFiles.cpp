#include "rpc/OutgoingFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace qel::rpc {

namespace {

std::string reasonOf(int error) {
    return std::error_code(error, std::generic_category()).message();
}

}  // namespace

OutgoingFiles::~OutgoingFiles() {
    for (const File& file : files_)
        if (file.handle >= 0)
            ::close(file.handle);
}

bool OutgoingFiles::add(const std::string& target, const std::string& path, std::string& error) {
    // In the list at once, which closes it whatever comes.
    File& file = files_.emplace_back();
    file.target = target;
    file.handle = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    struct stat info {};
    if (file.handle < 0 || ::fstat(file.handle, &info) != 0) {
        error = "the server's file for " + target + " cannot be read: " + reasonOf(errno);
        return false;
    }
    file.size = static_cast<std::uint64_t>(info.st_size);
    if (!S_ISREG(info.st_mode)) {
        error = "the server's file for " + target + " is no plain file";
        return false;
    }
    return true;
}

std::uint64_t OutgoingFiles::totalBytes() const {
    std::uint64_t total = 0;
    for (const File& file : files_)
        total += file.size;
    return total;
}

std::size_t OutgoingFiles::filesBegun() const {
    return std::min(files_.size(), at_ + (offset_ > 0 ? 1 : 0));
}

OutgoingFiles::Chunk OutgoingFiles::next(std::size_t most) {
    if (at_ == files_.size())
        return {};
    const File& file = files_[at_];
    if (offset_ == file.size)
        return endOfFile();
    Chunk chunk{Chunk::Kind::data, at_, offset_, {}};
    chunk.bytes.resize(static_cast<std::size_t>(std::min<std::uint64_t>(most, file.size - offset_)));
    const ssize_t got = ::read(file.handle, chunk.bytes.data(), chunk.bytes.size());
    if (got <= 0)
        return {Chunk::Kind::fault, at_, offset_,
                "reading the server's file for " + file.target + " failed after " + std::to_string(offset_) +
                    " bytes: " + (got < 0 ? reasonOf(errno) : "it became shorter")};
    chunk.bytes.resize(static_cast<std::size_t>(got));
    digest_.add(chunk.bytes.data(), chunk.bytes.size());
    offset_ += chunk.bytes.size();
    sentBytes_ += chunk.bytes.size();
    sentLines_ += static_cast<std::uint64_t>(std::count(chunk.bytes.begin(), chunk.bytes.end(), '\n'));
    return chunk;
}

OutgoingFiles::Chunk OutgoingFiles::endOfFile() {
    Chunk chunk{Chunk::Kind::fileEnd, at_, files_[at_].size, digest_.finish()};
    ::close(files_[at_].handle);
    files_[at_].handle = -1;
    ++at_;
    offset_ = 0;
    return chunk;
}

}  // namespace qel::rpc
