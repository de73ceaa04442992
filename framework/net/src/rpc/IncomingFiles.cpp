#include "rpc/IncomingFiles.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace qel::rpc {

namespace {

using Fault = IncomingFiles::Fault;

std::string reasonOf(int error) {
    return std::error_code(error, std::generic_category()).message();
}

Fault refused(const std::string& sentence) {
    return {RpcError::refusedByClient, sentence};
}

std::string folderOf(const std::string& path) {
    const std::string parent = std::filesystem::path(path).parent_path().string();
    return parent.empty() ? "." : parent;
}

bool writeAll(int handle, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t done = ::write(handle, bytes.data(), bytes.size());
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        bytes.remove_prefix(static_cast<std::size_t>(done));
    }
    return true;
}

// A name is on disk only when its folder is.
void flushFolder(const std::string& folder) {
    const int handle = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (handle < 0)
        return;
    ::fsync(handle);
    ::close(handle);
}

}  // namespace

IncomingFiles::~IncomingFiles() {
    for (const File& file : files_) {
        if (file.handle >= 0)
            ::close(file.handle);
        if (!file.part.empty())
            ::unlink(file.part.c_str());
    }
}

Fault IncomingFiles::begin(const std::vector<Announced>& files) {
    if (begun_)
        return refused("the server announced files twice");
    begun_ = true;
    if (Fault fault = checkAnnouncement(files))
        return fault;
    for (const Announced& file : files)
        if (Fault fault = create(file))
            return fault;
    return checkSpace();
}

Fault IncomingFiles::checkAnnouncement(const std::vector<Announced>& files) const {
    std::vector<std::string> seen;
    for (const Announced& file : files) {
        if (std::find(allowed_.begin(), allowed_.end(), file.target) == allowed_.end())
            return refused("the server wanted to write " + file.target + ", which was not asked for");
        if (std::find(seen.begin(), seen.end(), file.target) != seen.end())
            return refused("the server wanted to write " + file.target + " twice");
        seen.push_back(file.target);
    }
    return {};
}

Fault IncomingFiles::create(const Announced& announced) {
    File file;
    file.target = announced.target;
    file.size = announced.size;
    std::error_code fault;
    if (createFolders_)
        std::filesystem::create_directories(folderOf(announced.target), fault);
    std::string part = announced.target + ".part-XXXXXX";
    file.handle = ::mkostemp(part.data(), O_CLOEXEC);
    if (file.handle < 0)
        return {RpcError::cannotCreateFile,
                "a file beside " + announced.target + " cannot be made: " + reasonOf(errno)};
    file.part = std::move(part);
    total_ += announced.size;
    files_.push_back(std::move(file));
    return {};
}

Fault IncomingFiles::checkSpace() const {
    struct statvfs space {};
    if (files_.empty() || ::statvfs(folderOf(files_.front().target).c_str(), &space) != 0)
        return {};
    const std::uint64_t room = static_cast<std::uint64_t>(space.f_bavail) * space.f_frsize;
    if (room >= total_)
        return {};
    return {RpcError::cannotWriteFile, "there is no room for the " + std::to_string(total_) + " bytes of " +
                                           files_.front().target + ": " + std::to_string(room) +
                                           " bytes are free"};
}

Fault IncomingFiles::data(std::size_t file, std::uint64_t offset, std::string_view bytes) {
    if (!begun_ || file != at_ || at_ >= files_.size() || offset != files_[at_].written)
        return refused("the server sent data of a file out of turn");
    File& to = files_[at_];
    if (bytes.size() > to.size - to.written)
        return refused("the server sent more for " + to.target + " than the " + std::to_string(to.size) +
                       " bytes that it announced");
    if (!writeAll(to.handle, bytes))
        return {RpcError::cannotWriteFile, "writing " + to.target + " failed: " + reasonOf(errno)};
    digest_.add(bytes.data(), bytes.size());
    to.written += bytes.size();
    received_ += bytes.size();
    return {};
}

Fault IncomingFiles::end(std::size_t file, std::uint64_t size, std::string_view digest) {
    if (!begun_ || file != at_ || at_ >= files_.size())
        return refused("the server ended a file out of turn");
    const File& from = files_[at_];
    if (size != from.size || from.written != from.size)
        return refused("the server ended " + from.target + " after " + std::to_string(from.written) + " of " +
                       std::to_string(from.size) + " bytes");
    if (digest_.finish() != digest)
        return refused("the SHA-256 of " + from.target + " is not the one that the server sent");
    ++at_;
    return {};
}

Fault IncomingFiles::keep() {
    for (File& file : files_) {
        const bool flushed = ::fsync(file.handle) == 0;
        const int error = errno;
        const bool closed = ::close(file.handle) == 0;
        file.handle = -1;
        if (!flushed || !closed)
            return {RpcError::cannotWriteFile,
                    "writing " + file.target + " failed: " + reasonOf(flushed ? errno : error)};
    }
    for (File& file : files_) {
        if (std::rename(file.part.c_str(), file.target.c_str()) != 0)
            return {RpcError::cannotCreateFile, file.target + " cannot be made: " + reasonOf(errno)};
        file.part.clear();
        flushFolder(folderOf(file.target));
    }
    kept_ = true;
    return {};
}

std::vector<RpcFile> IncomingFiles::kept() const {
    std::vector<RpcFile> list;
    if (kept_)
        for (const File& file : files_)
            list.push_back({file.target, file.size});
    return list;
}

}  // namespace qel::rpc
