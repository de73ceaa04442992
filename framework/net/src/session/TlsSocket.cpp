#include "session/TlsSocket.h"

#include <openssl/err.h>

#include <array>
#include <cerrno>
#include <utility>

#include "session/CloseOnExec.h"
#include "wire/CredentialsState.h"
#include "wire/SocketBio.h"

namespace qel {
namespace {

// How long, and for how many bytes, a closed connection is still listened to.
constexpr std::chrono::milliseconds lingerTime{1000};
constexpr std::size_t lingerBytes = 256UL * 1024;

}  // namespace

TlsSocket::TlsSocket(asio::ip::tcp::socket socket, std::shared_ptr<AsioExecutor> executor,
                     std::shared_ptr<const Credentials::State> credentials, const std::string& host)
    : socket_(std::move(socket)),
      executor_(std::move(executor)),
      timer_(executor_->strand()),
      credentials_(credentials),
      stream_(host.empty() ? credentials->makeServerStream() : credentials->makeClientStream(host)),
      diagnosis_(std::move(credentials), host) {
    asio::error_code ignored;
    socket_.non_blocking(true, ignored);
    closeOnExec(socket_.native_handle());
    // A window of unacknowledged events lives on latency: no segment waits for company.
    socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
    diagnosis_.attach(stream_.get());
    BIO* const bio = tls::makeSocketBio(static_cast<int>(socket_.native_handle()));
    SSL_set_bio(stream_.get(), bio, bio);
    if (host.empty())
        SSL_set_accept_state(stream_.get());
    else
        SSL_set_connect_state(stream_.get());
}

TlsSocket::~TlsSocket() = default;

void TlsSocket::wait(asio::ip::tcp::socket::wait_type kind, std::function<void()> ready) {
    if (closed_)
        return;
    socket_.async_wait(kind, [self = shared_from_this(), ready = std::move(ready)](asio::error_code error) {
        if (!error && !self->closed_)
            ready();
    });
}

void TlsSocket::handshake(std::function<void(const std::string&)> done) {
    done_ = std::move(done);
    stepHandshake();
}

void TlsSocket::stepHandshake() {
    ERR_clear_error();
    errno = 0;
    const int result = SSL_do_handshake(stream_.get());
    const auto retry = [this] { stepHandshake(); };
    if (result != 1) {
        const int code = SSL_get_error(stream_.get(), result);
        if (code == SSL_ERROR_WANT_READ)
            return wait(asio::ip::tcp::socket::wait_read, retry);
        if (code == SSL_ERROR_WANT_WRITE)
            return wait(asio::ip::tcp::socket::wait_write, retry);
        failure_ = diagnosis_.explain(stream_.get(), code);
        broken_ = true;
    }
    if (const auto done = std::exchange(done_, nullptr))
        done(failure_);
}

std::string TlsSocket::getRemoteUser() const {
    const tls::Certificate certificate(SSL_get1_peer_certificate(stream_.get()));
    return certificate ? tls::subjectEntry(certificate.get(), NID_commonName) : std::string();
}

std::string TlsSocket::getRemoteDevice() const {
    const tls::Certificate certificate(SSL_get1_peer_certificate(stream_.get()));
    return certificate ? tls::subjectEntry(certificate.get(), NID_organizationalUnitName) : std::string();
}

Link::Result TlsSocket::judge(int result) {
    const int code = SSL_get_error(stream_.get(), result);
    if (code == SSL_ERROR_WANT_READ || code == SSL_ERROR_WANT_WRITE)
        return {Link::State::wait, 0};
    failure_ = diagnosis_.explain(stream_.get(), code);
    broken_ = code != SSL_ERROR_ZERO_RETURN;
    return {Link::State::lost, 0};
}

Link::Result TlsSocket::read(unsigned char* buffer, std::size_t size) {
    ERR_clear_error();
    errno = 0;
    std::size_t count = 0;
    const int result = SSL_read_ex(stream_.get(), buffer, size, &count);
    return result == 1 ? Link::Result{Link::State::done, count} : judge(result);
}

Link::Result TlsSocket::write(const char* data, std::size_t size) {
    ERR_clear_error();
    errno = 0;
    std::size_t count = 0;
    const int result = SSL_write_ex(stream_.get(), data, size, &count);
    return result == 1 ? Link::Result{Link::State::done, count} : judge(result);
}

void TlsSocket::close() {
    if (std::exchange(closed_, true))
        return;
    done_ = nullptr;
    asio::error_code ignored;
    ERR_clear_error();
    if (!broken_)
        SSL_shutdown(stream_.get());
    ERR_clear_error();
    socket_.cancel(ignored);
    socket_.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    timer_.expires_after(lingerTime);
    timer_.async_wait([self = shared_from_this()](asio::error_code error) {
        asio::error_code unimportant;
        if (!error)
            self->socket_.close(unimportant);
    });
    linger();
}

void TlsSocket::linger() {
    std::array<char, 4096> scrap;
    for (;;) {
        asio::error_code error;
        const std::size_t count = socket_.read_some(asio::buffer(scrap), error);
        lingered_ += count;
        if (error == asio::error::would_block || error == asio::error::try_again)
            break;
        if (error || lingered_ > lingerBytes)
            return abandon();
    }
    socket_.async_wait(asio::ip::tcp::socket::wait_read, [self = shared_from_this()](asio::error_code error) {
        if (!error)
            self->linger();
    });
}

void TlsSocket::abandon() {
    closed_ = true;
    done_ = nullptr;
    asio::error_code ignored;
    timer_.cancel();
    socket_.close(ignored);
}

}  // namespace qel
