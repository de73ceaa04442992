#include "common/LargeFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <new>
#include <utility>
#include <vector>

#include "common/Failure.h"

namespace qel::programs {
namespace {

/// A piece that fits into the processor's cache.
constexpr std::size_t pieceSize = 256UL * 1024;

/// What a pipe or a device may give: ten years of a large house. One that never ends must not take all memory.
constexpr std::size_t largestStream = std::size_t{1} << 30;

/// A file that cannot fit is refused before anything of it is read, also where memory is promised without being there.
bool fitsIntoMemory(const struct stat& status) {
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long pageBytes = ::sysconf(_SC_PAGESIZE);
    return pages <= 0 || pageBytes <= 0 || status.st_size / pageBytes < pages;
}

/// Closes a descriptor at the end.
class OpenFile {
  public:
    explicit OpenFile(const std::string& file) : descriptor_(::open(file.c_str(), O_RDONLY | O_CLOEXEC)) {}
    ~OpenFile() {
        if (descriptor_ >= 0)
            ::close(descriptor_);
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    int get() const { return descriptor_; }

  private:
    int descriptor_;
};

/// Asks for large pages before the memory is touched: a million small ones take longer to come by than the file to
/// read.
void wantLargePages(const std::string& reserved) {
    constexpr std::uintptr_t largePage = std::uintptr_t{2} << 20;
    const auto begin = reinterpret_cast<std::uintptr_t>(reserved.data());
    const std::uintptr_t first = (begin + largePage - 1) / largePage * largePage;
    const std::uintptr_t end = begin + reserved.capacity();
    if (first < end)
        ::madvise(reinterpret_cast<void*>(first), end - first, MADV_HUGEPAGE);  // no harm where it fails
}

}  // namespace

String readLargeFile(const std::string& file, const std::function<void(std::string_view piece)>& look) {
    const OpenFile in(file);
    struct stat status {};
    if (in.get() < 0 || ::fstat(in.get(), &status) != 0)
        throw systemFailure(exitInputMissing, file, errno);
    if (S_ISDIR(status.st_mode))
        throw systemFailure(exitInputMissing, file, EISDIR);
    try {
        std::string text;
        const bool isFile = S_ISREG(status.st_mode);
        if (isFile && !fitsIntoMemory(status))
            throw std::bad_alloc();
        if (isFile)
            text.reserve(static_cast<std::size_t>(status.st_size));
        wantLargePages(text);
        std::vector<char> piece(pieceSize);
        while (const ssize_t count = ::read(in.get(), piece.data(), piece.size())) {
            if (count < 0 && errno != EINTR)
                throw systemFailure(exitInputMissing, file, errno);
            if (count < 0)
                continue;
            look(std::string_view(piece.data(), static_cast<std::size_t>(count)));
            text.append(piece.data(), static_cast<std::size_t>(count));
            if (!isFile && text.size() > largestStream)
                throw Failure(exitBadData, file + ": is no file, and gives more than " +
                                               std::to_string(largestStream >> 20) + " MiB");
        }
        return String(std::move(text));
    } catch (const std::bad_alloc&) {
        throw Failure(exitInputMissing, file + ": holds " + std::to_string(status.st_size) +
                                            " bytes, more than there is memory for");
    }
}

}  // namespace qel::programs
