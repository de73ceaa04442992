#include "common/SecretFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "common/Failure.h"

namespace qel::programs {
namespace {

bool isCredential(const std::string& file) {
    const char* directory = std::getenv("CREDENTIALS_DIRECTORY");
    if (!directory || !*directory)
        return false;
    const auto relative = std::filesystem::path(file).lexically_relative(directory);
    return !relative.empty() && *relative.begin() != "..";
}

std::string octal(mode_t mode) {
    std::string text = "0000";
    for (std::size_t digit = text.size(); digit-- > 0; mode >>= 3)
        text[digit] = static_cast<char>('0' + (mode & 7));
    return text;
}

void writeNew(const std::string& file, const std::string& bytes, mode_t mode) {
    const int descriptor = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (descriptor < 0)
        throw systemFailure(exitCannotCreate, file, errno);
    // Whatever the umask of whoever runs this: the service's user reads configurations and certificates, too.
    ::fchmod(descriptor, mode);
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count = ::write(descriptor, bytes.data() + written, bytes.size() - written);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0) {
            const int error = errno;
            ::close(descriptor);
            ::unlink(file.c_str());
            throw systemFailure(exitCannotCreate, file, error);
        }
        written += static_cast<std::size_t>(count);
    }
    const bool synced = ::fsync(descriptor) == 0;
    const int error = errno;
    ::close(descriptor);
    if (!synced)
        throw systemFailure(exitCannotCreate, file, error);
}

}  // namespace

std::string secretFileFault(const std::string& file) {
    struct stat status {};
    if (::stat(file.c_str(), &status) != 0)
        return systemFailure(exitInputMissing, file, errno).what();
    if (!S_ISREG(status.st_mode))
        return file + ": expected a regular file";
    const mode_t mode = status.st_mode & 07777;
    if (mode & 07)
        return file + ": others may touch it (mode " + octal(mode) + "), expected 0600; cure: chmod 600 " +
               file;
    if ((mode & 070) && !isCredential(file))
        return file + ": its group may touch it (mode " + octal(mode) + "), expected 0600; cure: chmod 600 " +
               file;
    return {};
}

void requireSecretFile(const std::string& file) {
    if (::access(file.c_str(), R_OK) != 0)
        throw inputFailure(file, errno);
    const std::string fault = secretFileFault(file);
    if (!fault.empty())
        throw Failure(exitConfiguration, fault);
}

void writeSecretFile(const std::string& file, const std::string& bytes) {
    writeNew(file, bytes, 0600);
}

void writeNewFile(const std::string& file, const std::string& bytes) {
    writeNew(file, bytes, 0644);
}

}  // namespace qel::programs
