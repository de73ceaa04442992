#include "common/LineReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/Failure.h"

namespace qel::programs {
namespace {

constexpr std::size_t readSize = 256 << 10;

}  // namespace

LineReader::LineReader(const std::string& file)
    : file_(file == "-" ? "standard input" : file), buffer_(readSize) {
    descriptor_ = file == "-" ? ::dup(STDIN_FILENO) : ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor_ < 0)
        throw inputFailure(file_, errno);
    struct stat status {};
    if (::fstat(descriptor_, &status) == 0 && S_ISDIR(status.st_mode)) {
        ::close(descriptor_);
        throw systemFailure(exitInputMissing, file_, EISDIR);
    }
    if (S_ISREG(status.st_mode))
        size_ = static_cast<std::uint64_t>(status.st_size);
}

LineReader::~LineReader() {
    ::close(descriptor_);
}

std::string LineReader::place() const {
    return file_ + ':' + std::to_string(number_);
}

bool LineReader::next(std::string_view& line) {
    std::size_t searched = 0;
    while (true) {
        const char* start = buffer_.data() + begin_;
        const auto* end =
            static_cast<const char*>(std::memchr(start + searched, '\n', end_ - begin_ - searched));
        if (end || (ended_ && end_ > begin_)) {
            const std::size_t length = end ? static_cast<std::size_t>(end - start) : end_ - begin_;
            line = {start, length};
            begin_ += length + (end ? 1 : 0);
            position_ += length + (end ? 1 : 0);
            ++number_;
            return true;
        }
        if (ended_)
            return false;
        searched = end_ - begin_;
        if (!fill())
            ended_ = true;
    }
}

bool LineReader::fill() {
    if (begin_ > 0) {
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    if (end_ == buffer_.size()) {
        if (buffer_.size() >= longestLine) {
            ++number_;
            throw Failure(exitBadData,
                          place() + ": the line is longer than " + std::to_string(longestLine) + " bytes");
        }
        buffer_.resize(buffer_.size() * 2);
    }
    while (true) {
        const ssize_t count = ::read(descriptor_, buffer_.data() + end_, buffer_.size() - end_);
        if (count > 0) {
            end_ += static_cast<std::size_t>(count);
            return true;
        }
        if (count == 0)
            return false;
        if (errno != EINTR)
            throw systemFailure(exitInputOutput, file_, errno);
    }
}

}  // namespace qel::programs
