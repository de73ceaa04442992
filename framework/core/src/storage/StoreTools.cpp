#include "qelCore/StoreTools.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "qelCore/ItemStore.h"
#include "qelCore/String.h"
#include "storage/LmdbEngine.h"
#include "storage/StoreCopy.h"
#include "storage/StoreCore.h"
#include "storage/StoreFolder.h"

namespace qel {

namespace {

// Steps between two calls of the progress function.
constexpr std::uint64_t progressStep = 4096;

bool goesOn(StoreTools::Outcome& outcome, const StoreTools::Progress& progress) {
    if (progress && outcome.entries % progressStep == 0 && !progress(outcome.entries))
        outcome.stopped = true;
    return !outcome.stopped;
}

CommitResult failure(const std::string& what, int error) {
    return {false, what + ": " + std::strerror(error)};
}

std::string folderOf(const std::string& file) {
    const std::string folder = std::filesystem::path(file).parent_path().string();
    return folder.empty() ? "." : folder;
}

// A name is on disk when its folder is.
bool syncFolder(const std::string& folder) {
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool synced = fd >= 0 && fsync(fd) == 0;
    if (fd >= 0)
        close(fd);
    return synced;
}

CommitResult giveName(const std::string& from, const std::string& to) {
    if (std::rename(from.c_str(), to.c_str()) == 0 && syncFolder(folderOf(to)))
        return {};
    const int error = errno;
    unlink(from.c_str());
    return failure("cannot give the file its name " + to, error);
}

CommitResult copyFile(const std::string& from, const std::string& to) {
    std::error_code error;
    std::filesystem::copy_file(from, to, error);
    if (error)
        return failure("cannot copy " + from + " to " + to, error.value());
    const int fd = open(to.c_str(), O_RDWR | O_CLOEXEC);
    const bool synced = fd >= 0 && fsync(fd) == 0;
    const int reason = errno;
    if (fd >= 0)
        close(fd);
    return synced ? CommitResult() : failure("cannot write " + to, reason);
}

void check(ItemStore& store, const Item& key, const Item& before, StoreTools::Outcome& outcome,
           const StoreTools::Fault& fault) {
    const auto tell = [&](const std::string& sentence) {
        ++outcome.faults;
        if (fault)
            fault(key.asString().str(), sentence);
    };
    if (!key.isWellFormed())
        tell("the key does not decode");
    if (!before.isEmpty() && Item::compare(before, key) >= 0) {
        tell("the key does not sort behind the one before it, " + before.asString().str());
        // A walk that turns back may never end.
        outcome.result = {false, "a damaged page ended the walk at " + key.asString().str()};
    }
    const ConstByteSpan value = store.fetch(key);
    outcome.bytes += key.size() + value.size();
    if (!Item::isWellFormed(value))
        tell("the value of " + std::to_string(value.size()) + " bytes does not decode");
}

}  // namespace

StoreTools::Outcome StoreTools::verify(ItemStore& store, const Fault& fault, const Progress& progress) {
    Outcome outcome;
    storage::Engine& engine = store.core_->engine();
    const std::uint64_t faultsBefore = engine.readFaults;
    Item before;
    Item key;
    while (outcome.result && goesOn(outcome, progress) && store.nextKey(key)) {
        check(store, key, before, outcome, fault);
        ++outcome.entries;
        before = key;
    }
    if (engine.readFaults != faultsBefore) {
        ++outcome.faults;
        outcome.result = {false, "a damaged page ended the walk behind " + before.asString().str()};
        if (fault)
            fault(before.asString().str(), outcome.result.reason);
    }
    return outcome;
}

CommitResult StoreTools::backup(ItemStore& store, const std::string& file, bool compact) {
    struct stat found {};
    // Giving the copy its name would put a file in the place of a device or a pipe.
    if (stat(file.c_str(), &found) == 0 && !S_ISREG(found.st_mode))
        return {false, "cannot replace " + file + " by a backup: it is no regular file"};
    // A leftover of an attempt that was cut off.
    const std::string unfinished = file + ".unfinished";
    unlink(unfinished.c_str());
    const CommitResult copied = store.core_->engine().copyTo(unfinished, compact);
    return copied ? giveName(unfinished, file) : copied;
}

CommitResult StoreTools::restore(const std::string& file, const std::string& path,
                                 const StoreOptions& options) {
    struct stat found {};
    if (stat(file.c_str(), &found) != 0)
        return failure("cannot read the backup " + file, errno);
    if (!S_ISREG(found.st_mode))
        return {false, "the backup " + file + " is no file"};
    std::error_code error;
    const bool isNew = std::filesystem::create_directories(path, error);
    const std::string data = path + "/" + storage::dataFile;
    if (stat(data.c_str(), &found) == 0)
        return {false, "the folder " + path + " holds a store already"};
    const std::string unfinished = data + ".unfinished";
    unlink(unfinished.c_str());
    CommitResult result = copyFile(file, unfinished);
    if (const std::uint64_t lost = result ? storage::LmdbEngine::lostPages(unfinished) : 0; lost != 0)
        result = {false, "the backup " + file + " lacks " + std::to_string(lost) +
                             " pages in use at its end: it was cut on its way"};
    if (result)
        result = giveName(unfinished, data);
    if (result) {
        StoreOptions existing = options;
        existing.create = false;
        const auto store = ItemStore::open("lmdb:" + path, existing, result.reason);
        result.durable = store != nullptr;
    }
    if (!result) {
        for (const char* const name :
             {storage::dataFile, storage::lockFile, storage::pageFile, "shared.gate"})
            unlink((path + "/" + name).c_str());
        unlink(unfinished.c_str());
        if (isNew)
            rmdir(path.c_str());
    }
    return result;
}

StoreTools::CopyOutcome StoreTools::copy(ItemStore& from, ItemStore& to, const Fault& fault,
                                         const Progress& progress) {
    return storage::StoreCopy(from, *from.core_, to, *to.core_, fault, progress).run();
}

}  // namespace qel
