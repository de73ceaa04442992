#pragma once

#include <functional>
#include <memory>
#include <string>

namespace qel::programs {

/// Answers GET requests of Prometheus and of health checks on one address, one thread of its own. Requests are bounded
/// in size and time; anything but a GET is refused.
class MetricsServer {
  public:
    struct Answer {
        int status = 200;
        std::string body;
    };
    /// What stands at each path, asked on the server's thread.
    struct Pages {
        std::function<std::string()> metrics;  // at /metrics
        std::function<Answer()> ready;         // at /-/ready
        std::function<Answer()> healthy;       // at /-/healthy
    };

    /// Listens on "HOST:PORT" (port 0 picks a free one). Throws Failure(75) when the address cannot be had.
    MetricsServer(const std::string& endpoint, Pages pages);
    ~MetricsServer();
    MetricsServer(const MetricsServer&) = delete;
    MetricsServer& operator=(const MetricsServer&) = delete;

    /// "HOST:PORT" with the port in use.
    const std::string& address() const;

  private:
    class Inner;
    std::unique_ptr<Inner> inner_;
};

}  // namespace qel::programs
