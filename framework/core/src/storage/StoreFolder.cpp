#include "storage/StoreFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <utility>
#include <vector>

namespace qel::storage {

namespace {

struct NetworkType {
    unsigned long number;
    const char* name;
};

// Shared memory and locks do not reach over the network: two machines would write over each other.
constexpr NetworkType networkTypes[] = {
    {0x6969, "NFS"},      {0x517b, "SMB"},          {0xff534d42, "CIFS"},  {0xfe534d42, "SMB2"},
    {0x5346414f, "AFS"},  {0x6b414653, "AFS"},      {0x73757245, "Coda"},  {0x00c36400, "Ceph"},
    {0x01021997, "9P"},   {0x0bd00bd0, "Lustre"},   {0x7461636f, "OCFS2"}, {0x01161970, "GFS2"},
    {0x47504653, "GPFS"}, {0x20030528, "OrangeFS"},
};

struct Claims {
    std::mutex mutex;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> folders;
};

Claims& claims() {
    static Claims all;
    return all;
}

std::string failure(const std::string& what, int error) {
    return what + ": " + std::strerror(error);
}

unsigned folderMode(unsigned fileMode) {
    return fileMode | ((fileMode & 0444) >> 2);
}

}  // namespace

StoreFolder::~StoreFolder() {
    if (!claimed_)
        return;
    const std::lock_guard guard(claims().mutex);
    std::erase(claims().folders, std::pair(device_, inode_));
}

bool StoreFolder::open(const std::string& path, const StoreOptions& options, std::string& reason) {
    if (path.empty()) {
        reason = "the store's URL names no folder: expected lmdb:PATH";
        return false;
    }
    if (!make(path, options, reason))
        return false;
    char* const real = realpath(path.c_str(), nullptr);
    path_ = real != nullptr ? real : path;
    std::free(real);
    return check(options, reason) && claim(reason);
}

bool StoreFolder::make(const std::string& path, const StoreOptions& options, std::string& reason) {
    struct stat found {};
    if (stat(path.c_str(), &found) == 0) {
        if (S_ISDIR(found.st_mode))
            return true;
        reason = "the store " + path + " is a file; expected a folder";
        return false;
    }
    if (errno != ENOENT || !options.create || options.readOnly) {
        reason = failure("there is no store at " + path, errno);
        return false;
    }
    std::error_code error;
    const std::filesystem::path full = std::filesystem::absolute(path, error);
    std::filesystem::create_directories(full.parent_path(), error);
    if (mkdir(full.c_str(), static_cast<mode_t>(folderMode(options.fileMode))) != 0 && errno != EEXIST) {
        reason = failure("cannot make the folder of the store " + path, errno);
        return false;
    }
    chmod(full.c_str(), static_cast<mode_t>(folderMode(options.fileMode)));
    struct stat above {};
    if (geteuid() == 0 && stat(full.parent_path().c_str(), &above) == 0 &&
        chown(full.c_str(), above.st_uid, above.st_gid) != 0) {
        reason = failure("cannot give the folder of the store " + path + " its owner", errno);
        return false;
    }
    return true;
}

bool StoreFolder::check(const StoreOptions& options, std::string& reason) {
    struct statfs system {};
    if (statfs(path_.c_str(), &system) == 0) {
        if (const char* const name = networkFileSystem(system.f_type)) {
            reason = "the store " + path_ + " lies on a network file system (" + name +
                     "), where its locks do not hold; expected a local disk";
            return false;
        }
    }
    hadStore_ = access(file(dataFile).c_str(), F_OK) == 0;
    if (!hadStore_ && (!options.create || options.readOnly)) {
        reason = "there is no store in the folder " + path_;
        return false;
    }
    // Looking needs a place among the readers, which is in a file as well.
    if (access(path_.c_str(), W_OK | X_OK) != 0) {
        reason = failure("the folder of the store " + path_ + " may not be written by this user", errno);
        return false;
    }
    for (const char* const name : {dataFile, lockFile, pageFile}) {
        if (access(file(name).c_str(), F_OK) == 0 && access(file(name).c_str(), R_OK | W_OK) != 0) {
            reason = failure("the store's file " + file(name) + " may not be written by this user", errno);
            return false;
        }
    }
    return true;
}

bool StoreFolder::claim(std::string& reason) {
    struct stat found {};
    if (stat(path_.c_str(), &found) != 0) {
        reason = failure("cannot look at the folder of the store " + path_, errno);
        return false;
    }
    device_ = found.st_dev;
    inode_ = found.st_ino;
    const std::lock_guard guard(claims().mutex);
    auto& folders = claims().folders;
    if (std::find(folders.begin(), folders.end(), std::pair(device_, inode_)) != folders.end()) {
        reason = "the store " + path_ + " is open in this process already";
        return false;
    }
    folders.emplace_back(device_, inode_);
    claimed_ = true;
    return true;
}

void StoreFolder::adopt(const std::string& file, unsigned mode) const {
    struct stat found {};
    struct stat folder {};
    if (stat(file.c_str(), &found) != 0 || found.st_uid != geteuid())
        return;
    if ((found.st_mode & 0777) != mode)
        chmod(file.c_str(), static_cast<mode_t>(mode));
    if (geteuid() != 0 || stat(path_.c_str(), &folder) != 0)
        return;
    if (found.st_uid != folder.st_uid || found.st_gid != folder.st_gid)
        static_cast<void>(chown(file.c_str(), folder.st_uid, folder.st_gid) == 0);
}

const char* StoreFolder::networkFileSystem(long type) {
    for (const NetworkType& known : networkTypes)
        if (known.number == (static_cast<unsigned long>(type) & 0xffffffffUL))
            return known.name;
    return nullptr;
}

bool StoreFolder::reserve(const std::string& file, std::size_t bytes, unsigned mode, std::string& reason) {
    const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, static_cast<mode_t>(mode));
    if (fd < 0) {
        reason = failure("cannot open " + file, errno);
        return false;
    }
    struct stat found {};
    const int failed = fstat(fd, &found) != 0 ? errno : 0;
    const auto size = std::max(static_cast<std::size_t>(found.st_size), bytes);
    const int full = failed != 0 ? failed : posix_fallocate(fd, 0, static_cast<off_t>(size));
    close(fd);
    if (full != 0)
        reason = failure("cannot reserve space for " + file, full);
    return full == 0;
}

}  // namespace qel::storage
