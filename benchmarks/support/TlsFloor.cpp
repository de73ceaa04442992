#include "support/TlsFloor.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <set>

namespace qel::bench {

namespace {

void require(bool done, const char* what) {
    if (done)
        return;
    std::perror(what);
    _exit(3);
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

void setNoDelay(int socket) {
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

struct Connection {
    int socket = -1;
    SSL* ssl = nullptr;
    std::string received;  // events whole and begun, not yet taken out
    std::string acks;
    bool open = true;
};

/// Reads all that is there. Notes when the other end has closed.
void readAll(Connection& connection) {
    char buffer[65536];
    while (true) {
        const int got = SSL_read(connection.ssl, buffer, sizeof buffer);
        if (got <= 0) {
            connection.open = SSL_get_error(connection.ssl, got) == SSL_ERROR_WANT_READ;
            return;
        }
        connection.received.append(buffer, static_cast<std::size_t>(got));
    }
}

/// Takes the whole events out, one by one, and prepares their acknowledgements.
void takeEvents(Connection& connection, std::string& pending) {
    std::size_t at = 0;
    for (; connection.received.size() - at >= floorEvent; at += floorEvent) {
        std::uint64_t number = 0;
        std::memcpy(&number, connection.received.data() + at, sizeof number);
        pending.append(connection.received, at, floorEvent);
        char ack[floorAck] = {};
        std::memcpy(ack, &number, sizeof number);
        connection.acks.append(ack, floorAck);
    }
    connection.received.erase(0, at);
}

void acknowledge(Connection& connection) {
    if (connection.acks.empty())
        return;
    fcntl(connection.socket, F_SETFL, 0);
    require(SSL_write(connection.ssl, connection.acks.data(), static_cast<int>(connection.acks.size())) > 0,
            "acknowledge");
    fcntl(connection.socket, F_SETFL, O_NONBLOCK);
    connection.acks.clear();
}

std::vector<Connection> acceptAll(int listener, int connections, SSL_CTX* context) {
    std::vector<Connection> made;
    for (int i = 0; i < connections; ++i) {
        Connection connection;
        connection.socket = accept(listener, nullptr, nullptr);
        setNoDelay(connection.socket);
        connection.ssl = SSL_new(context);
        SSL_set_fd(connection.ssl, connection.socket);
        require(SSL_accept(connection.ssl) == 1, "SSL_accept");
        fcntl(connection.socket, F_SETFL, O_NONBLOCK);
        made.push_back(connection);
    }
    return made;
}

}  // namespace

void serveFloor(const Child::Line& line, int connections, const std::string& certificate,
                const std::string& key, const std::string& file) {
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION);
    require(SSL_CTX_use_certificate_chain_file(context, certificate.c_str()) == 1 &&
                SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM) == 1,
            "credentials");
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    require(bind(listener, reinterpret_cast<sockaddr*>(&address), size) == 0 && listen(listener, 64) == 0 &&
                getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) == 0,
            "listen");
    line.say(std::to_string(ntohs(address.sin_port)));
    std::vector<Connection> all = acceptAll(listener, connections, context);
    const int out = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::string pending;
    while (std::any_of(all.begin(), all.end(), [](const Connection& each) { return each.open; })) {
        std::vector<pollfd> ready;
        for (const Connection& each : all)
            ready.push_back({each.open ? each.socket : -1, POLLIN, 0});
        poll(ready.data(), ready.size(), -1);
        pending.clear();
        for (std::size_t i = 0; i < all.size(); ++i)
            if (ready[i].revents != 0) {
                readAll(all[i]);
                takeEvents(all[i], pending);
            }
        if (pending.empty())
            continue;
        require(write(out, pending.data(), pending.size()) > 0 && fdatasync(out) == 0, "append");
        for (Connection& each : all)
            if (each.open)
                acknowledge(each);
    }
}

void sendFloor(const Child::Line& line, int port, long events) {
    SSL_CTX* context = SSL_CTX_new(TLS_client_method());
    const int peer = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = loopback(port);
    require(connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "connect");
    setNoDelay(peer);
    SSL* ssl = SSL_new(context);
    SSL_set_fd(ssl, peer);
    require(SSL_connect(ssl) == 1, "SSL_connect");
    line.say("ready");
    line.hear();
    std::set<std::uint64_t> inFlight;
    std::uint64_t sent = 0;
    const auto all = static_cast<std::uint64_t>(events);
    std::string acks;
    char buffer[65536];
    while (sent < all || !inFlight.empty()) {
        // A whole window at a time: refilled piece by piece, windows decay into crumbs that each cost a flush.
        std::string data;
        while (inFlight.empty() ? sent < all : !data.empty() && sent < all && inFlight.size() < floorWindow) {
            char event[floorEvent] = {};
            std::memcpy(event, &sent, sizeof sent);
            data.append(event, floorEvent);
            inFlight.insert(sent++);
        }
        if (!data.empty())
            require(SSL_write(ssl, data.data(), static_cast<int>(data.size())) > 0, "send");
        const int got = SSL_read(ssl, buffer, sizeof buffer);
        require(got > 0, "receive");
        acks.append(buffer, static_cast<std::size_t>(got));
        std::size_t at = 0;
        for (; acks.size() - at >= floorAck; at += floorAck) {
            std::uint64_t number = 0;
            std::memcpy(&number, acks.data() + at, sizeof number);
            inFlight.erase(number);
        }
        acks.erase(0, at);
    }
    line.say("done");
    SSL_shutdown(ssl);
    close(peer);
}

}  // namespace qel::bench
