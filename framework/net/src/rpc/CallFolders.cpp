#include "rpc/CallFolders.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

#include "qelCore/logging/MessageStream.h"

namespace qel::rpc {

namespace fs = std::filesystem;

namespace {

constexpr const char* prefix = "call-";
// Longest part of a path that a handler's name becomes; with its number it stays far below the 255 bytes of a name.
constexpr std::size_t longestName = 100;
// Less than a block or two of any file system plus what others may free meanwhile.
constexpr std::uint64_t leastSpace = 64UL * 1024;

std::string reasonOf(int error) {
    return std::error_code(error, std::generic_category()).message();
}

std::string harmless(const std::string& name) {
    std::string safe;
    for (const char c : name.substr(0, longestName))
        safe += std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' ? c : '_';
    return safe.empty() ? "file" : safe;
}

void removeAll(const fs::path& path) {
    std::error_code fault;
    fs::remove_all(path, fault);
    if (fault)
        logging::MessageStream(3, 2) << "the transfer folder " << path.string()
                                     << " cannot be removed: " << fault.message();
}

}  // namespace

CallFolder::~CallFolder() {
    removeAll(path_);
}

std::string CallFolder::nextPath(const std::string& name) {
    const std::lock_guard lock(mutex_);
    const std::string parent = path_ + "/" + std::to_string(++given_);
    if (::mkdir(parent.c_str(), 0700) != 0) {
        logging::MessageStream(3, 2) << "the transfer folder " << parent
                                     << " cannot be made: " << reasonOf(errno);
        return {};
    }
    return parent + "/" + harmless(name);
}

bool CallFolder::contains(const std::string& path) const {
    std::error_code fault;
    const std::string real = fs::canonical(path, fault).string();
    const std::string own = fault ? std::string() : fs::canonical(path_, fault).string();
    return !fault && real.size() > own.size() && real.compare(0, own.size(), own) == 0 &&
           real[own.size()] == '/';
}

bool CallFolder::isDiskFull() const {
    struct statvfs space {};
    if (::statvfs(path_.c_str(), &space) != 0)
        return true;
    return static_cast<std::uint64_t>(space.f_bavail) * space.f_frsize < leastSpace;
}

std::uint64_t CallFolder::usedBytes() const {
    std::uint64_t bytes = 0;
    std::error_code fault;
    for (fs::recursive_directory_iterator at(path_, fault), end; !fault && at != end; at.increment(fault)) {
        std::error_code gone;
        const auto size = at->is_regular_file(gone) ? at->file_size(gone) : 0;
        bytes += gone ? 0 : size;
    }
    return bytes;
}

CallFolders::CallFolders(const std::string& directory, std::string& error) : directory_(directory) {
    if (directory_.empty() || !prepare(error))
        directory_.clear();
    else
        sweep();
}

CallFolders::~CallFolders() {
    if (lock_ >= 0)
        ::close(lock_);
}

bool CallFolders::prepare(std::string& error) {
    std::error_code fault;
    fs::create_directories(fs::path(directory_).parent_path(), fault);
    if (::mkdir(directory_.c_str(), 0700) != 0 && errno != EEXIST) {
        error = "the transfer directory " + directory_ + " cannot be made: " + reasonOf(errno);
        return false;
    }
    struct stat info {};
    if (::lstat(directory_.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        error = "the transfer directory " + directory_ + " is no directory";
        return false;
    }
    if ((info.st_mode & 0077) != 0 && ::chmod(directory_.c_str(), 0700) != 0) {
        error = "the transfer directory " + directory_ +
                " is open to other users and cannot be closed to them: " + reasonOf(errno);
        return false;
    }
    lock_ = ::open((directory_ + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (lock_ < 0 || ::flock(lock_, LOCK_EX | LOCK_NB) != 0) {
        error = "the transfer directory " + directory_ + " cannot be used: " +
                (lock_ >= 0 && errno == EWOULDBLOCK ? "another process uses it" : reasonOf(errno));
        return false;
    }
    return true;
}

void CallFolders::sweep() const {
    std::error_code fault;
    unsigned swept = 0;
    for (fs::directory_iterator at(directory_, fault), end; !fault && at != end; at.increment(fault)) {
        if (at->path().filename().string().rfind(prefix, 0) != 0)
            continue;
        removeAll(at->path());
        ++swept;
    }
    if (swept > 0)
        logging::MessageStream(1, 2) << "removed " << swept
                                     << " leftover transfer folders of an earlier process from "
                                     << directory_;
}

std::unique_ptr<CallFolder> CallFolders::create() {
    if (directory_.empty()) {
        logging::MessageStream(3, 2) << "no file can be transferred: there is no usable transfer directory";
        return nullptr;
    }
    std::string path = directory_ + "/" + prefix + "XXXXXX";
    if (::mkdtemp(path.data()) == nullptr) {
        logging::MessageStream(3, 2) << "a transfer folder in " << directory_
                                     << " cannot be made: " << reasonOf(errno);
        return nullptr;
    }
    return std::make_unique<CallFolder>(std::move(path));
}

}  // namespace qel::rpc
