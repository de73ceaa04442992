#include "common/Folders.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "common/Failure.h"

namespace qel::programs {
namespace {

/// Configurations, certificates and lists of users are far smaller; a device never ends.
constexpr std::size_t largestTextFile = std::size_t{64} << 20;

}  // namespace

void createFolder(const std::string& folder) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (!error && !std::filesystem::is_directory(folder, error) && !error)
        error = std::make_error_code(std::errc::not_a_directory);
    if (error)
        throw systemFailure(exitCannotCreate, folder, error.value());
}

void createNewFolder(const std::string& folder) {
    std::error_code error;
    const std::filesystem::path parent = std::filesystem::path(folder).parent_path();
    if (!parent.empty())
        std::filesystem::create_directories(parent, error);
    if (error)
        throw systemFailure(exitCannotCreate, parent.string(), error.value());
    if (::mkdir(folder.c_str(), 0700) == 0)
        return;
    const int reason = errno;
    if (reason != EEXIST || !std::filesystem::is_directory(folder, error))
        throw systemFailure(exitCannotCreate, folder, reason);
    if (!std::filesystem::is_empty(folder, error) || error)
        throw Failure(exitCannotCreate, folder + ": is not empty, expected a new or an empty folder");
}

void replaceFile(const std::string& file, const std::string& bytes) {
    const std::string beside = file + ".new";
    std::ofstream out(beside, std::ios::binary | std::ios::trunc);
    if (!out)
        throw systemFailure(exitCannotCreate, file, errno);
    out << bytes;
    out.close();
    if (!out) {
        const int error = errno ? errno : EIO;
        ::unlink(beside.c_str());
        throw systemFailure(exitInputOutput, file, error);
    }
    // Who could read the older file reads the newer one.
    struct stat older {};
    if (::stat(file.c_str(), &older) == 0)
        ::chmod(beside.c_str(), older.st_mode & 07777);
    if (std::rename(beside.c_str(), file.c_str()) != 0)
        throw systemFailure(exitCannotCreate, file, errno);
}

std::string readTextFile(const std::string& file) {
    std::error_code ignored;
    if (std::filesystem::is_directory(file, ignored))
        throw systemFailure(exitInputMissing, file, EISDIR);
    std::ifstream in(file, std::ios::binary);
    if (!in)
        throw inputFailure(file, errno);
    std::string text;
    std::string piece(1 << 16, '\0');
    while (in.read(piece.data(), static_cast<std::streamsize>(piece.size())) || in.gcount() > 0) {
        text.append(piece, 0, static_cast<std::size_t>(in.gcount()));
        if (text.size() > largestTextFile)
            throw Failure(exitBadData,
                          file + ": is larger than " + std::to_string(largestTextFile >> 20) + " MiB");
    }
    if (in.bad())
        throw systemFailure(exitInputMissing, file, EIO);
    return text;
}

}  // namespace qel::programs
