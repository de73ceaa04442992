#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qel::test {

/// Stands between the engine and the operating system: the test program's own `pwrite`, `writev` and `fdatasync` pass
/// everything on and, while a tap is open, note what goes to one file. One tap at a time.
class DiskTap {
  public:
    struct Event {
        enum class Kind { write, synchronousWrite, flush, note };
        Kind kind;
        std::uint64_t offset = 0;
        std::string bytes;
        /// Of a note: what the test said then.
        long long number = 0;
    };

    explicit DiskTap(const std::string& file);
    ~DiskTap();
    DiskTap(const DiskTap&) = delete;
    DiskTap& operator=(const DiskTap&) = delete;

    /// Adds the test's own remark to the events, in order with the writes.
    void note(long long number);
    std::vector<Event> take();

    /// Called before each write of this process to any file, with whether its descriptor is synchronous; for the one that
    /// wants to stop or fail there. Returns 0, or the error that the write is to end with.
    static void setBeforeWrite(std::function<int(bool synchronous)> hook);
};

}  // namespace qel::test
