#include "HttpServer.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <array>
#include <chrono>
#include <csignal>
#include <optional>

namespace KymTool {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

namespace {

// A browser keeps connections open; one that sends nothing is closed after this.
constexpr std::chrono::seconds IdleTimeout{30};
// How long the rest of a refused request is read before the connection closes anyway.
constexpr std::chrono::seconds DrainTimeout{10};

class Session : public std::enable_shared_from_this<Session> {
public:
    Session(tcp::socket socket, const HttpServer::Handler& handler, asio::thread_pool& workers)
        : mStream(std::move(socket)), mHandler(handler), mWorkers(workers) {}

    void start() { read(); }

private:
    void read() {
        mParser.emplace();
        mParser->header_limit(64 * 1024);
        mParser->body_limit(HttpServer::MaximumBody);
        mStream.expires_after(IdleTimeout);
        http::async_read(mStream, mBuffer, *mParser,
                         [self = shared_from_this()](beast::error_code error, std::size_t) { self->onRead(error); });
    }

    void onRead(beast::error_code error) {
        if (error == http::error::end_of_stream || error == beast::error::timeout || error == asio::error::eof ||
            error == asio::error::connection_reset || error == asio::error::operation_aborted) {
            close();
            return;
        }
        if (error == http::error::body_limit || error == http::error::header_limit) {
            answer({413, "application/json", "{\"error\": \"The request is too large.\", \"status\": 413}"}, false,
                   true);
            return;
        }
        if (error) {
            answer({400, "application/json", "{\"error\": \"The request is not valid HTTP.\", \"status\": 400}"}, false);
            return;
        }
        const http::request<http::string_body>& request = mParser->get();
        HttpRequest given;
        given.method = std::string(request.method_string());
        given.target = std::string(request.target());
        given.host = std::string(request[http::field::host]);
        given.origin = std::string(request[http::field::origin]);
        given.body = request.body();
        // Answered by a worker, so that the requests of a page run side by
        // side; the answer is written back on the connection's own thread.
        const bool keepAlive = request.keep_alive();
        asio::post(mWorkers, [self = shared_from_this(), given = std::move(given), keepAlive] {
            HttpResponse response;
            try {
                response = self->mHandler(given);
            } catch (const std::exception&) {
                response = {500, "application/json", "{\"error\": \"The server failed.\", \"status\": 500}"};
            }
            asio::post(self->mStream.get_executor(), [self, response = std::move(response), keepAlive]() mutable {
                self->answer(std::move(response), keepAlive);
            });
        });
    }

    // With unread, what is left of the request is read and dropped after the
    // answer: closing with it unread would reset the connection, and the
    // client would lose the answer.
    void answer(HttpResponse response, bool keepAlive, bool unread = false) {
        mResponse = {};
        mResponse.version(11);
        mResponse.result(static_cast<http::status>(response.status));
        mResponse.set(http::field::content_type, response.contentType);
        // Nothing the server sends may be kept or framed by another site.
        mResponse.set(http::field::cache_control, "no-store");
        mResponse.set("X-Content-Type-Options", "nosniff");
        mResponse.set("X-Frame-Options", "DENY");
        mResponse.set("Content-Security-Policy",
                      "default-src 'self'; frame-ancestors 'none'; base-uri 'none'; form-action 'none'");
        mResponse.set("Referrer-Policy", "no-referrer");
        mResponse.keep_alive(keepAlive);
        mResponse.body() = std::move(response.body);
        mResponse.prepare_payload();
        mStream.expires_after(IdleTimeout);
        http::async_write(mStream, mResponse,
                          [self = shared_from_this(), keepAlive, unread](beast::error_code error, std::size_t) {
                              if (!error && keepAlive)
                                  self->read();
                              else if (!error && unread)
                                  self->drain();
                              else
                                  self->close();
                          });
    }

    void drain() {
        beast::error_code ignored;
        mStream.socket().shutdown(tcp::socket::shutdown_send, ignored);
        mStream.expires_after(DrainTimeout);
        discard();
    }

    void discard() {
        mStream.async_read_some(asio::buffer(mDiscarded), [self = shared_from_this()](beast::error_code error, std::size_t) {
            if (error)
                self->close();
            else
                self->discard();
        });
    }

    void close() {
        beast::error_code ignored;
        mStream.socket().shutdown(tcp::socket::shutdown_both, ignored);
        mStream.close();
    }

    beast::tcp_stream mStream;
    beast::flat_buffer mBuffer;
    std::optional<http::request_parser<http::string_body>> mParser;
    http::response<http::string_body> mResponse;
    std::array<char, 64 * 1024> mDiscarded;
    const HttpServer::Handler& mHandler;
    asio::thread_pool& mWorkers;
};

} // namespace

struct HttpServer::Impl {
    Impl(unsigned short port, Handler handler)
        : handler(std::move(handler)),
          acceptor(context),
          signals(context, SIGINT, SIGTERM) {
        const tcp::endpoint endpoint(asio::ip::make_address("127.0.0.1"), port);
        acceptor.open(endpoint.protocol());
        // A restarted server gets its port back at once; on Windows the same
        // option would let another program take the port from it.
#ifndef _WIN32
        acceptor.set_option(asio::socket_base::reuse_address(true));
#endif
        acceptor.bind(endpoint);
        acceptor.listen();
        signals.async_wait([this](beast::error_code error, int) {
            if (!error) context.stop();
        });
    }

    void accept() {
        acceptor.async_accept([this](beast::error_code error, tcp::socket socket) {
            if (error == asio::error::operation_aborted) return;
            if (!error) std::make_shared<Session>(std::move(socket), handler, workers)->start();
            accept();
        });
    }

    Handler handler;
    asio::io_context context{1};
    // Requests wait here for their commands; idle workers wait without using the processor.
    asio::thread_pool workers{4};
    tcp::acceptor acceptor;
    asio::signal_set signals;
};

HttpServer::HttpServer(unsigned short port, Handler handler) {
    try {
        mImpl = std::make_unique<Impl>(port, std::move(handler));
    } catch (const boost::system::system_error& error) {
        throw std::runtime_error("Cannot listen on 127.0.0.1:" + std::to_string(port) + ": " + error.code().message() +
                                 ".");
    }
}

HttpServer::~HttpServer() = default;

unsigned short HttpServer::port() const {
    return mImpl->acceptor.local_endpoint().port();
}

void HttpServer::run() {
    mImpl->accept();
    mImpl->context.run();
    mImpl->workers.join();
}

void HttpServer::stop() {
    asio::post(mImpl->context, [this] { mImpl->context.stop(); });
}

} // namespace KymTool
