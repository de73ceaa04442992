#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

namespace qel::test {

/// A relay on the loopback address that cuts each connection after a number of bytes to the client, as when a cable is
/// pulled.
class CutProxy {
  public:
    /// Relays to that port; `bytes` to the client are let through on each connection.
    CutProxy(int target, std::size_t bytes);
    ~CutProxy();
    CutProxy(const CutProxy&) = delete;
    CutProxy& operator=(const CutProxy&) = delete;

    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
    int cuts() const { return cuts_; }

  private:
    void accept();
    void relay(int client);

    const int target_;
    const std::size_t bytes_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopped_{false};
    std::atomic<int> cuts_{0};
    std::vector<std::thread> relays_;
    std::thread acceptor_;
};

}  // namespace qel::test
