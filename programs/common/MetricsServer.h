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
    /// Called on the server's thread with the path of the request.
    using Handler = std::function<Answer(const std::string& path)>;

    /// Listens on "HOST:PORT" (port 0 picks a free one). Throws Failure(75) when the address cannot be had.
    MetricsServer(const std::string& endpoint, Handler handler);
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
