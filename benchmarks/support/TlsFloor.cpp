#include "support/TlsFloor.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <thread>

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

/// A file that several threads append to. What they bring while one of them flushes shares the next flush.
class SharedFile {
  public:
    explicit SharedFile(const std::string& file)
        : out_(open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600)) {
        require(out_ >= 0, "open");
    }
    ~SharedFile() { close(out_); }
    SharedFile(const SharedFile&) = delete;
    SharedFile& operator=(const SharedFile&) = delete;

    /// Durable on return.
    void append(const std::string& bytes) {
        std::unique_lock lock(mutex_);
        pending_ += bytes;
        const std::uint64_t mine = ++appended_;
        while (durable_ < mine) {
            if (flushing_)
                changed_.wait(lock);
            else
                flush(lock);
        }
    }

  private:
    void flush(std::unique_lock<std::mutex>& lock) {
        flushing_ = true;
        const std::uint64_t last = appended_;
        taken_.clear();
        taken_.swap(pending_);
        lock.unlock();
        require(write(out_, taken_.data(), taken_.size()) > 0 && fdatasync(out_) == 0, "append");
        lock.lock();
        durable_ = last;
        flushing_ = false;
        changed_.notify_all();
    }

    const int out_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string pending_;
    std::string taken_;
    std::uint64_t appended_ = 0;
    std::uint64_t durable_ = 0;
    bool flushing_ = false;
};

void serveOne(SharedFile& out, Connection& connection) {
    std::string burst;
    while (connection.open) {
        pollfd ready{connection.socket, POLLIN, 0};
        poll(&ready, 1, -1);
        burst.clear();
        readAll(connection);
        takeEvents(connection, burst);
        if (burst.empty())
            continue;
        out.append(burst);
        acknowledge(connection);
    }
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
    SharedFile out(file);
    std::vector<std::thread> threads;
    for (Connection& each : all)
        threads.emplace_back([&out, &each] { serveOne(out, each); });
    for (std::thread& each : threads)
        each.join();
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
        // All the room there is goes as one record, as soon as acknowledgements have made it.
        std::string data;
        while (sent < all && inFlight.size() < floorWindow) {
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
