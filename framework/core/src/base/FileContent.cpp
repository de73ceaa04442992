#include "base/FileContent.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

namespace qel {

namespace {

// One read or write moves at most this much, well below the 2 GiB that the system moves in one call.
constexpr std::size_t blockSize = std::size_t{256} * 1024;

class FileHandle {
  public:
    explicit FileHandle(int descriptor) : descriptor_(descriptor) {}
    ~FileHandle() {
        if (descriptor_ >= 0)
            ::close(descriptor_);
    }
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;

    bool isOpen() const { return descriptor_ >= 0; }
    int get() const { return descriptor_; }
    // Some file systems tell only now that the bytes found no room.
    bool close() { return ::close(std::exchange(descriptor_, -1)) == 0; }

  private:
    int descriptor_;
};

// What a pipe or a device may give, which may never end, and a file beyond the size it had.
constexpr std::size_t mostUnannounced = std::size_t{1} << 30;

bool readAll(int descriptor, std::size_t most, std::string& content) {
    std::vector<char> block(blockSize);
    for (;;) {
        const ssize_t count = ::read(descriptor, block.data(), block.size());
        if (count == 0)
            return true;
        if (count < 0 && errno != EINTR)
            return false;
        if (count > 0)
            content.append(block.data(), static_cast<std::size_t>(count));
        if (content.size() > most)
            return false;
    }
}

bool writeAll(int descriptor, std::string_view content) {
    constexpr std::size_t largest = 1024 * blockSize;
    while (!content.empty()) {
        const ssize_t count = ::write(descriptor, content.data(), std::min(content.size(), largest));
        if (count < 0 && errno != EINTR)
            return false;
        if (count > 0)
            content.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

bool writeInPlace(const char* path, std::string_view content) {
    FileHandle file(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    return file.isOpen() && writeAll(file.get(), content) && file.close();
}

// Only a plain file without other names is replaced: renaming over a link would cut it off from what it
// names.
bool mayBeReplaced(const char* path, mode_t& mode) {
    struct stat status {};
    if (::lstat(path, &status) != 0) {
        const mode_t mask = ::umask(0);
        ::umask(mask);
        mode = 0666 & ~mask;
        return errno == ENOENT;
    }
    mode = status.st_mode & 07777;
    return S_ISREG(status.st_mode) && status.st_nlink == 1 && ::access(path, W_OK) == 0 &&
           status.st_uid == ::geteuid();
}

std::string temporaryBeside(const char* path) {
    const std::string_view name(path);
    const std::size_t slash = name.rfind('/');
    return std::string(slash == std::string_view::npos ? std::string_view() : name.substr(0, slash + 1)) +
           ".qel-XXXXXX";
}

bool writeBeside(FileHandle& file, const char* temporary, const char* path, mode_t mode,
                 std::string_view content) {
    if (writeAll(file.get(), content) && ::fchmod(file.get(), mode) == 0 && file.close() &&
        ::rename(temporary, path) == 0)
        return true;
    ::unlink(temporary);
    return false;
}

}  // namespace

bool readWholeFile(const char* path, std::string& content) {
    if (path == nullptr)
        return false;
    const FileHandle file(::open(path, O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (!file.isOpen() || ::fstat(file.get(), &status) != 0 || S_ISDIR(status.st_mode))
        return false;
    try {
        std::string read;
        const auto size = S_ISREG(status.st_mode) ? static_cast<std::size_t>(status.st_size) : 0;
        read.reserve(size);
        if (!readAll(file.get(), size + mostUnannounced, read))
            return false;
        content.swap(read);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::length_error&) {
        return false;
    }
}

bool writeWholeFile(const char* path, std::string_view content) {
    if (path == nullptr)
        return false;
    mode_t mode = 0;
    if (!mayBeReplaced(path, mode))
        return writeInPlace(path, content);
    std::string temporary = temporaryBeside(path);
    FileHandle file(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!file.isOpen())
        return writeInPlace(path, content);
    return writeBeside(file, temporary.c_str(), path, mode, content);
}

}  // namespace qel
