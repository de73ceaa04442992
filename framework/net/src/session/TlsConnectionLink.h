#pragma once

#include <memory>
#include <string>

#include "session/Connection.h"
#include "session/TlsSocket.h"

namespace qel {

/// Ties a connection to its TLS socket.
class TlsConnectionLink : public Link {
  public:
    explicit TlsConnectionLink(std::shared_ptr<TlsSocket> socket) : socket_(std::move(socket)) {}
    /// A connection that has ended goes on whichever thread lets go of it last, while its socket may still be listened to
    /// on the strand: then nothing of the socket is touched any more.
    ~TlsConnectionLink() override {
        if (!closed_)
            socket_->close();
    }

    /// Whom to call; before the connection starts.
    void setConnection(std::weak_ptr<Connection> connection) { connection_ = std::move(connection); }

    Result read(unsigned char* buffer, std::size_t size) override { return socket_->read(buffer, size); }
    Result write(const char* data, std::size_t size) override { return socket_->write(data, size); }
    void waitReadable() override {
        socket_->wait(asio::ip::tcp::socket::wait_read, [weak = connection_] {
            if (const auto connection = weak.lock())
                connection->readable();
        });
    }
    void waitWritable() override {
        socket_->wait(asio::ip::tcp::socket::wait_write, [weak = connection_] {
            if (const auto connection = weak.lock())
                connection->writable();
        });
    }
    std::string getFailure() const override { return socket_->getFailure(); }
    void close() override {
        closed_ = true;
        socket_->close();
    }

  private:
    std::shared_ptr<TlsSocket> socket_;
    std::weak_ptr<Connection> connection_;
    bool closed_ = false;
};

}  // namespace qel
