#include "common/MetricsServer.h"

#include <asio.hpp>
#include <chrono>
#include <string_view>
#include <thread>

#include "common/ConfigBinder.h"
#include "common/Failure.h"

namespace qel::programs {
namespace {

constexpr std::size_t largestRequest = 8192;
constexpr auto patience = std::chrono::seconds(10);

const char* reasonOf(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 503:
            return "Service Unavailable";
        default:
            return "Bad Request";
    }
}

std::string render(const MetricsServer::Answer& answer) {
    return "HTTP/1.1 " + std::to_string(answer.status) + ' ' + reasonOf(answer.status) +
           "\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\nContent-Length: " +
           std::to_string(answer.body.size()) + "\r\nConnection: close\r\n\r\n" + answer.body;
}

/// One request and its answer.
class Exchange : public std::enable_shared_from_this<Exchange> {
  public:
    Exchange(asio::ip::tcp::socket socket, const MetricsServer::Pages& pages)
        : socket_(std::move(socket)), timer_(socket_.get_executor()), pages_(pages) {}

    void start() {
        timer_.expires_after(patience);
        timer_.async_wait([self = shared_from_this()](const asio::error_code& error) {
            if (!error)
                self->close();
        });
        asio::async_read_until(socket_, asio::dynamic_buffer(request_, largestRequest), "\r\n\r\n",
                               [self = shared_from_this()](const asio::error_code& error, std::size_t) {
                                   if (error == asio::error::not_found)
                                       self->answer({400, "the request is too large\n"});
                                   else if (!error)
                                       self->answer(self->handle());
                                   else
                                       self->close();
                               });
    }

  private:
    MetricsServer::Answer handle() {
        const std::size_t line = request_.find("\r\n");
        const std::size_t first = request_.find(' ');
        const std::size_t second = first == std::string::npos ? first : request_.find(' ', first + 1);
        if (second == std::string::npos || second > line || request_.compare(second, 6, " HTTP/") != 0)
            return {400, "not a request\n"};
        if (request_.compare(0, first, "GET") != 0)
            return {405, "only GET is answered\n"};
        const std::string_view path(request_.data() + first + 1, second - first - 1);
        if (path == "/metrics")
            return {200, pages_.metrics()};
        if (path == "/-/ready")
            return pages_.ready();
        if (path == "/-/healthy")
            return pages_.healthy();
        return {404, "there are /metrics, /-/ready and /-/healthy\n"};
    }

    void answer(const MetricsServer::Answer& answer) {
        answer_ = render(answer);
        asio::async_write(
            socket_, asio::buffer(answer_),
            [self = shared_from_this()](const asio::error_code&, std::size_t) { self->close(); });
    }

    void close() {
        asio::error_code ignored;
        timer_.cancel();
        socket_.shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
        socket_.close(ignored);
    }

    asio::ip::tcp::socket socket_;
    asio::steady_timer timer_;
    const MetricsServer::Pages& pages_;
    std::string request_;
    std::string answer_;
};

}  // namespace

class MetricsServer::Inner {
  public:
    Inner(const std::string& endpoint, Pages pages) : acceptor_(context_), pages_(std::move(pages)) {
        std::string host;
        std::uint16_t port = 0;
        splitEndpoint(endpoint, host, port);
        try {
            asio::ip::tcp::resolver resolver(context_);
            const asio::ip::tcp::endpoint at =
                resolver.resolve(host, std::to_string(port), asio::ip::tcp::resolver::passive)
                    .begin()
                    ->endpoint();
            acceptor_.open(at.protocol());
            acceptor_.set_option(asio::socket_base::reuse_address(true));
            acceptor_.bind(at);
            acceptor_.listen();
        } catch (const std::system_error& error) {
            throw Failure(exitTemporary, "cannot listen on " + endpoint + ": " + error.code().message());
        }
        const asio::ip::tcp::endpoint bound = acceptor_.local_endpoint();
        const std::string shown = bound.address().to_string();
        address = (bound.address().is_v6() ? '[' + shown + ']' : shown) + ':' + std::to_string(bound.port());
        accept();
        thread_ = std::thread([this] { context_.run(); });
    }

    ~Inner() {
        context_.stop();
        thread_.join();
    }

    std::string address;

  private:
    void accept() {
        acceptor_.async_accept([this](const asio::error_code& error, asio::ip::tcp::socket socket) {
            if (!error)
                std::make_shared<Exchange>(std::move(socket), pages_)->start();
            if (error != asio::error::operation_aborted)
                accept();
        });
    }

    asio::io_context context_;
    asio::ip::tcp::acceptor acceptor_;
    Pages pages_;
    std::thread thread_;
};

MetricsServer::MetricsServer(const std::string& endpoint, Pages pages)
    : inner_(std::make_unique<Inner>(endpoint, std::move(pages))) {}

MetricsServer::~MetricsServer() = default;

const std::string& MetricsServer::address() const {
    return inner_->address;
}

}  // namespace qel::programs
