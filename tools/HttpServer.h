// A small HTTP/1.1 server on the loopback address, for the browser front
// end. One thread reads and writes every connection; the handler runs on a
// few workers, so that slow requests run side by side. While nothing comes,
// all of them wait in the system and use no processor time.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace KymTool {

struct HttpRequest {
    std::string method;
    std::string target;  // path and query, as sent
    std::string host;
    std::string origin;  // empty when the request has none
    std::string body;
};

struct HttpResponse {
    int status = 200;
    std::string contentType = "application/json";
    std::string body;
};

class HttpServer {
public:
    // Called on several threads at once.
    using Handler = std::function<HttpResponse(const HttpRequest&)>;

    // Requests larger than this are answered 413 and the connection closed.
    static constexpr std::size_t MaximumBody = 4 * 1024 * 1024;

    // Listens on 127.0.0.1:port at once; port 0 takes a free one. Throws
    // with the reason when the port cannot be had.
    HttpServer(unsigned short port, Handler handler);
    ~HttpServer();

    unsigned short port() const;
    // Answers requests until stop() or an interrupt (Ctrl-C) or termination signal.
    void run();
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

} // namespace KymTool
