#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace qel::programs {

/// A bar with rate and time left on standard error while it is a terminal, and nothing otherwise.
/// Used by one thread; the destructor wipes the bar.
class Progress {
  public:
    /// `total` in the same unit as `update`; 0 when it is not known beforehand.
    Progress(std::string label, std::uint64_t total, bool quiet);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Whether there is a terminal to draw on.
    static bool isShown(bool quiet);

    /// Cheap enough for every event: the clock is looked at once in a few hundred calls.
    void update(std::uint64_t done);

    /// For callers that come a few times a second only.
    void show(std::uint64_t done);

    double seconds() const;

  private:
    void draw(std::uint64_t done);

    std::string label_;
    std::uint64_t total_;
    bool shown_;
    bool drawn_ = false;
    unsigned calls_ = 0;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point last_;
};

/// 1234567 as "1,234,567".
std::string grouped(std::uint64_t number);

/// Events per second as "12,345/s".
std::string rateOf(std::uint64_t count, double seconds);

}  // namespace qel::programs
