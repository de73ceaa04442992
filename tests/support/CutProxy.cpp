#include "support/CutProxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace qel::test {

namespace {

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool sendAll(int descriptor, const char* at, std::size_t size) {
    while (size > 0) {
        const ssize_t sent = ::send(descriptor, at, size, MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        at += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

}  // namespace

CutProxy::CutProxy(int target, std::size_t bytes) : target_(target), bytes_(bytes) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 || ::listen(listener_, 16) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0)
        throw std::runtime_error("the relay cannot listen");
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { accept(); });
}

CutProxy::~CutProxy() {
    stopped_ = true;
    acceptor_.join();
    for (std::thread& each : relays_)
        each.join();
    ::close(listener_);
}

void CutProxy::accept() {
    while (!stopped_) {
        pollfd waiting{listener_, POLLIN, 0};
        if (::poll(&waiting, 1, 20) <= 0)
            continue;
        const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client >= 0)
            relays_.emplace_back([this, client] { relay(client); });
    }
}

void CutProxy::relay(int client) {
    const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(target_);
    bool open = ::connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    std::size_t left = bytes_;
    std::vector<char> buffer(32768);
    while (open && !stopped_) {
        pollfd ready[2] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
        if (::poll(ready, 2, 20) <= 0)
            continue;
        for (const bool toServer : {true, false}) {
            if (ready[toServer ? 0 : 1].revents == 0)
                continue;
            const ssize_t got = ::recv(toServer ? client : server, buffer.data(), buffer.size(), 0);
            std::size_t most = got > 0 ? static_cast<std::size_t>(got) : 0;
            if (!toServer) {
                most = std::min(most, left);
                left -= most;
            }
            open = open && got > 0 && sendAll(toServer ? server : client, buffer.data(), most);
        }
        if (left == 0) {
            ++cuts_;
            open = false;
        }
    }
    ::close(server);
    ::close(client);
}

}  // namespace qel::test
