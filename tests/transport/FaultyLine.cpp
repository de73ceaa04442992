#include "support/FaultyLine.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <utility>

namespace qel::test {
namespace {

using Clock = std::chrono::steady_clock;

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<unsigned short>(port));
    return address;
}

/// Closes with a reset, as a dead router does.
void reset(int socket) {
    const linger hard{1, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    ::close(socket);
}

struct Piece {
    Clock::time_point due;
    int to;
    std::string bytes;
};

}  // namespace

FaultyLine::FaultyLine(int target, Chooser chooser) : target_(target), chooser_(std::move(chooser)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), size) == 0 && ::listen(listener_, 64) == 0)
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { accept(); });
}

FaultyLine::~FaultyLine() {
    stopped_ = true;
    ::shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    for (std::thread& relay : relays_)
        relay.join();
    ::close(listener_);
}

void FaultyLine::accept() {
    while (!stopped_) {
        pollfd waiting{listener_, POLLIN, 0};
        if (::poll(&waiting, 1, 20) <= 0)
            continue;
        const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0)
            continue;
        const Fault fault = chooser_(++connections_);
        relays_.emplace_back([this, client, fault] { relay(client, fault); });
    }
}

void FaultyLine::relay(int client, Fault fault) {
    const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(target_);
    bool open = ::connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    std::size_t passed = 0;
    std::size_t heard = 0;
    const auto isForgotten = [&] {
        return passed >= fault.swallowAfter || (fault.swallowWhen && *fault.swallowWhen);
    };
    pollfd ends[] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
    std::deque<Piece> pieces;
    while (open && !stopped_) {
        ::poll(ends, 2, 5);
        for (int i = 0; i < 2 && open; ++i) {
            if (ends[i].fd < 0 || ends[i].revents == 0)
                continue;
            char buffer[4096];
            const ssize_t count = ::recv(ends[i].fd, buffer, sizeof buffer, 0);
            if (count > 0)
                pieces.push_back({Clock::now() + std::chrono::milliseconds(fault.delayMilliseconds),
                                  i == 0 ? server : client,
                                  std::string(buffer, static_cast<std::size_t>(count))});
            else if (isForgotten())
                ends[i].fd = -1;  // the other end does not hear of that either
            else
                open = false;
        }
        while (!pieces.empty() && pieces.front().due <= Clock::now()) {
            std::string bytes = std::move(pieces.front().bytes);
            const int to = pieces.front().to;
            pieces.pop_front();
            if (isForgotten() || (to == client && heard >= fault.muteAfter))
                continue;
            if (to == client)
                heard += bytes.size();
            if (passed + bytes.size() >= fault.cutAfter) {
                bytes.resize(fault.cutAfter - passed);
                open = false;
            }
            passed += bytes.size();
            (void)!::send(to, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (!open)
                break;
        }
    }
    // What lies on the wire may still arrive, as the bytes before a cut do.
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    reset(client);
    reset(server);
}

}  // namespace qel::test
