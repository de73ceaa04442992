#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace qel::test {

/// A plain TCP client for what no honest client would send.
class RawClient {
  public:
    /// `address` is "127.0.0.1:PORT".
    explicit RawClient(const std::string& address)
        : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in remote{};
        remote.sin_family = AF_INET;
        remote.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        remote.sin_port =
            htons(static_cast<unsigned short>(std::atoi(address.c_str() + address.rfind(':') + 1)));
        connected_ = ::connect(socket_, reinterpret_cast<sockaddr*>(&remote), sizeof remote) == 0;
    }
    ~RawClient() { ::close(socket_); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool isConnected() const { return connected_; }
    int getSocket() const { return socket_; }
    void send(const std::string& bytes) { (void)!::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
    /// True when the other end closes the connection within the time.
    bool isClosedWithin(int milliseconds) {
        for (;;) {
            pollfd waiting{socket_, POLLIN, 0};
            if (::poll(&waiting, 1, milliseconds) <= 0)
                return false;
            char scrap[4096];
            if (::recv(socket_, scrap, sizeof scrap, 0) <= 0)
                return true;
        }
    }

  private:
    int socket_;
    bool connected_ = false;
};

}  // namespace qel::test
