#include "common/ReportFolder.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>
#include <vector>

#include "common/Failure.h"
#include "common/Folders.h"
#include "qelCore/Resources.h"

namespace qel::programs {
namespace {

/// The files beside every page, each from the resource of its name behind this prefix.
constexpr const char* resourcePrefix = "tmpl-";
constexpr const char* resourceFiles[] = {"d3.min.js", "zorvik-icon.png", "zorvik-slogan.png"};

constexpr std::string_view pageEnd = "</body>\n\n";

/// The last bytes of a file, at most `count`; empty when it cannot be read.
std::string endOf(const std::string& file, std::size_t count) {
    std::ifstream in(file, std::ios::binary | std::ios::ate);
    const std::streamoff size = in.tellg();
    if (!in || size < static_cast<std::streamoff>(count))
        return {};
    std::string end(count, '\0');
    in.seekg(size - static_cast<std::streamoff>(count));
    in.read(end.data(), static_cast<std::streamsize>(count));
    return in ? end : std::string();
}

/// Why a folder takes no more bytes, found out by writing some; 0 when it takes them now.
int reasonOf(const std::string& folder) {
    const std::string probe = folder + "/probe";
    const int file = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0)
        return errno;
    const std::vector<char> block(1 << 20);
    const ssize_t written = ::write(file, block.data(), block.size());
    const int reason = written < 0 ? errno : written < static_cast<ssize_t>(block.size()) ? ENOSPC : 0;
    ::close(file);
    ::unlink(probe.c_str());
    return reason;
}

}  // namespace

ReportFolder::ReportFolder(const std::string& folder) : folder_(folder) {
    createFolder(folder);
    work_ = folder + "/.report-XXXXXX";
    if (::mkdtemp(work_.data()) == nullptr)
        throw systemFailure(exitCannotCreate, folder, errno);
}

ReportFolder::~ReportFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(work_, ignored);
}

std::string ReportFolder::publish(const std::string& page) const {
    requireWholePage(page);
    for (const char* file : resourceFiles)
        requireResource(resourcePrefix + std::string(file), file);
    std::vector<std::string> files(std::begin(resourceFiles), std::end(resourceFiles));
    files.push_back(page);  // last, so that a new page always finds its files
    for (const std::string& file : files)
        if (std::rename((work_ + '/' + file).c_str(), (folder_ + '/' + file).c_str()) != 0)
            throw systemFailure(exitCannotCreate, folder_ + '/' + file, errno);
    return folder_ + '/' + page;
}

void ReportFolder::requireWholePage(const std::string& page) const {
    if (endOf(work_ + '/' + page, pageEnd.size()) != pageEnd)
        reportLoss(page);
}

void ReportFolder::requireResource(const std::string& resource, const std::string& file) const {
    const ConstByteSpan bytes = resources::find(resource.c_str());
    if (bytes.isNull())
        throw Failure(exitInputOutput, folder_ + '/' + file +
                                           ": this program was built without it, expected \"" + resource +
                                           "\" among its resources");
    std::error_code error;
    const auto size = std::filesystem::file_size(work_ + '/' + file, error);
    if (error || size != bytes.size() || endOf(work_ + '/' + file, bytes.size()) != bytes.view())
        reportLoss(file);
}

void ReportFolder::reportLoss(const std::string& file) const {
    const int reason = reasonOf(work_);
    if (reason != 0)
        throw systemFailure(exitInputOutput, folder_ + '/' + file, reason);
    throw Failure(exitInputOutput, folder_ + '/' + file + ": could not be written whole");
}

}  // namespace qel::programs
