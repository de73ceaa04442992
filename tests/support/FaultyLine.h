#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace qel::test {

/// A relay on the loopback address that mistreats the connections that pass through it. What each one suffers is asked of
/// the test when it begins; the first is number 1.
class FaultyLine {
  public:
    struct Fault {
        static constexpr std::size_t never = ~std::size_t{0};
        std::size_t cutAfter = never;      ///< bytes, both directions together, then both ends are reset
        std::size_t swallowAfter = never;  ///< bytes, then nothing passes and nobody is told: half-open
        const std::atomic<bool>* swallowWhen = nullptr;  ///< the same as soon as that is true
        std::size_t muteAfter = never;  ///< bytes of the service, which is heard no more and goes on hearing
        int delayMilliseconds = 0;      ///< in each direction
    };
    using Chooser = std::function<Fault(int connection)>;

    /// Relays to that port.
    FaultyLine(int target, Chooser chooser);
    ~FaultyLine();
    FaultyLine(const FaultyLine&) = delete;
    FaultyLine& operator=(const FaultyLine&) = delete;

    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
    int connections() const { return connections_; }

  private:
    void accept();
    void relay(int client, Fault fault);

    const int target_;
    const Chooser chooser_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopped_{false};
    std::atomic<int> connections_{0};
    std::vector<std::thread> relays_;
    std::thread acceptor_;
};

}  // namespace qel::test
