#pragma once

#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <functional>
#include <memory>

#include "session/AsioExecutor.h"
#include "session/Link.h"
#include "wire/TlsDiagnosis.h"

namespace qel {

/// A TCP socket with TLS 1.3 on it. First `handshake`, then a connection reads and writes through it.
/// OpenSSL works on the socket itself, without buffers in between: one read takes what the kernel has, one write makes
/// one record. Used on its strand.
class TlsSocket : public std::enable_shared_from_this<TlsSocket> {
  public:
    /// An accepted socket when `host` is empty, else one connected to a server that must bear that name.
    TlsSocket(asio::ip::tcp::socket socket, std::shared_ptr<AsioExecutor> executor,
              std::shared_ptr<const Credentials::State> credentials, const std::string& host);
    ~TlsSocket();

    /// Calls `done` with an empty text, or with why it failed, unless `abandon` comes first.
    void handshake(std::function<void(const std::string& error)> done);
    /// "certificate", "garbage" or "lost": the kind of the last failure.
    const char* getFailureKind() const { return diagnosis_.kind(); }
    const std::string& getFailure() const { return failure_; }
    /// The names in the certificate of the other end.
    std::string getRemoteUser() const;
    std::string getRemoteDevice() const;

    Link::Result read(unsigned char* buffer, std::size_t size);
    Link::Result write(const char* data, std::size_t size);
    /// `ready` is called once when the socket is worth trying again; not after `close`.
    void wait(asio::ip::tcp::socket::wait_type kind, std::function<void()> ready);

    /// Ends the stream: what was written arrives, and so does the reason, because what still comes in is read and
    /// thrown away for a moment instead of resetting the connection.
    void close();
    /// At once, without ceremony.
    void abandon();

  private:
    void stepHandshake();
    Link::Result judge(int result);
    void linger();

    asio::ip::tcp::socket socket_;
    std::shared_ptr<AsioExecutor> executor_;
    asio::steady_timer timer_;
    std::shared_ptr<const Credentials::State> credentials_;
    tls::Stream stream_;
    TlsDiagnosis diagnosis_;
    std::string failure_;
    std::function<void(const std::string&)> done_;
    std::size_t lingered_ = 0;
    bool closed_ = false;
    bool broken_ = false;  // TLS itself failed: nothing more may be written
};

}  // namespace qel
