#include "wire/SecretFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qel::tls {
namespace {

constexpr std::size_t largestFile = 1024UL * 1024;

std::string sentence(const char* what, const std::string& file, int code) {
    return std::string(what) + " " + file + ": " + std::strerror(code);
}

bool mayBeReadByGroup(const std::string& file) {
    const char* folder = std::getenv("CREDENTIALS_DIRECTORY");
    return folder && *folder && file.rfind(std::string(folder) + "/", 0) == 0;
}

bool checkRights(int handle, const std::string& file, std::string& error) {
    struct stat status {};
    if (fstat(handle, &status) != 0) {
        error = sentence("cannot look at", file, errno);
        return false;
    }
    const mode_t forbidden = mayBeReadByGroup(file) ? 07u : 077u;
    if ((status.st_mode & forbidden) == 0)
        return true;
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777u));
    error = "the secret file " + file + " has mode " + mode + " and is open to others; expected 0600";
    return false;
}

bool readAll(int handle, const std::string& file, std::string& content, std::string& error) {
    content.clear();
    char buffer[16384];
    for (;;) {
        const ssize_t count = ::read(handle, buffer, sizeof buffer);
        if (count == 0)
            return true;
        if (count < 0) {
            error = sentence("cannot read", file, errno);
            return false;
        }
        content.append(buffer, static_cast<std::size_t>(count));
        if (content.size() > largestFile) {
            error = "the file " + file + " is larger than 1 MiB";
            return false;
        }
    }
}

bool readChecked(const std::string& file, bool secret, std::string& content, std::string& error) {
    const int handle = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (handle < 0) {
        error = sentence("cannot open", file, errno);
        return false;
    }
    const bool done = (!secret || checkRights(handle, file, error)) && readAll(handle, file, content, error);
    ::close(handle);
    return done;
}

bool writeAll(int handle, std::string_view content) {
    while (!content.empty()) {
        const ssize_t count = ::write(handle, content.data(), content.size());
        if (count < 0)
            return false;
        content.remove_prefix(static_cast<std::size_t>(count));
    }
    return ::fsync(handle) == 0;
}

}  // namespace

bool readFile(const std::string& file, std::string& content, std::string& error) {
    return readChecked(file, false, content, error);
}

bool readSecretFile(const std::string& file, std::string& content, std::string& error) {
    return readChecked(file, true, content, error);
}

bool writeFile(const std::string& file, std::string_view content, unsigned mode, std::string& error) {
    const std::string fresh = file + ".new";
    ::unlink(fresh.c_str());
    const int handle = ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (handle < 0) {
        error = sentence("cannot create", fresh, errno);
        return false;
    }
    // Whatever the umask of whoever runs this: certificates and lists are read by the service's user, too.
    bool done = ::fchmod(handle, mode) == 0 && writeAll(handle, content);
    int code = errno;
    ::close(handle);
    if (done && std::rename(fresh.c_str(), file.c_str()) != 0) {
        done = false;
        code = errno;
    }
    if (!done) {
        error = sentence("cannot write", file, code);
        ::unlink(fresh.c_str());
    }
    return done;
}

}  // namespace qel::tls
