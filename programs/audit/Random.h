#pragma once

#include <cmath>
#include <cstdint>

namespace qel::programs {

/// A small generator of random numbers whose sequence depends on the seed alone: the same on every machine
/// and with every standard library, so that an imagined site can be made again. Not for secrets.
class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(seed) {}

    /// A generator of its own for one thing of the site (a user on a day), independent of the order of
    /// making.
    static Random of(std::uint64_t seed, std::uint64_t a, std::uint64_t b = 0, std::uint64_t c = 0) {
        Random mixed(seed);
        for (const std::uint64_t part : {a, b, c})
            mixed.state_ = mixed.next() ^ (part * 0x9E3779B97F4A7C15u);
        return mixed;
    }

    std::uint64_t next() {
        // SplitMix64, whose constants are those of its publication.
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15u);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
        return z ^ (z >> 31);
    }

    /// 0 to `bound` - 1; `bound` is at least 1.
    int below(int bound) { return static_cast<int>(next() % static_cast<std::uint64_t>(bound)); }
    /// `lowest` to `highest`, both included.
    int between(int lowest, int highest) { return lowest + below(highest - lowest + 1); }
    /// 0 to 1, the end excluded.
    double share() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
    bool chance(double probability) { return share() < probability; }
    /// Bell-shaped around `mean`, never further than three times `spread`.
    double around(double mean, double spread) {
        double sum = 0;
        for (int i = 0; i < 12; ++i)
            sum += share();
        return mean + spread * std::fmax(-3.0, std::fmin(3.0, sum - 6.0));
    }
    /// Positive, with the given mean and a long tail: the pauses between independent events.
    double pause(double mean) { return -mean * std::log(1.0 - share()); }

  private:
    std::uint64_t state_;
};

}  // namespace qel::programs
