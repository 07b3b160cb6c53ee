// The editor's HTTP/1.1 server, over Boost.Beast: loopback only, keep-alive, bounded heads
// and bodies, a deadline for each whole request and each whole answer, a cap on
// connections, and SIGINT and SIGTERM watched. One network thread runs every socket; the
// handler is called on it and must not block: it answers at once or hands the request on,
// and the answer may then come from any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qfforms {

struct HttpRequest {
    std::string method;                         // "GET", "POST", ...
    std::string path;                           // the target's path, %-decoded
    std::map<std::string, std::string> query;   // the target's query, %-decoded
    std::map<std::string, std::string> headers; // names in lower case
    std::string body;

    // A header's value, "" when absent.
    std::string header(const std::string& lowerName) const;
    // A cookie's value, "" when absent.
    std::string cookie(const std::string& name) const;
};

struct HttpResponse {
    int status = 200;
    std::string contentType = "text/plain; charset=utf-8";
    std::string body;
    // When not empty, the body is this file's bytes instead, read a little at a time as
    // they are sent; a file that cannot be opened answers 404.
    std::filesystem::path file;
    std::vector<std::pair<std::string, std::string>> headers; // added as they are

    static HttpResponse text(int status, std::string body);
    static HttpResponse json(int status, std::string body);
};

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

class HttpServer {
  public:
    // A head or a body larger than these is refused with 413.
    static constexpr size_t kMaxHead = 16 * 1024;
    static constexpr size_t kMaxBody = 4 * 1024 * 1024;
    // Connections served at once. One more is answered 503, unless a connection has been
    // waiting for a request for kEvictAfter: that one is closed to make room.
    static constexpr size_t kMaxConnections = 64;
    static constexpr std::chrono::milliseconds kEvictAfter{1000};
    // A connection waits this long for the first byte of a request (also between
    // requests); from that byte the whole request, head and body, must arrive within
    // kRequestTimeout, and the whole answer must be taken within kWriteTimeout. A
    // connection past a deadline is closed.
    static constexpr std::chrono::seconds kIdleTimeout{15};
    static constexpr std::chrono::seconds kRequestTimeout{5};
    static constexpr std::chrono::seconds kWriteTimeout{20};
    // After stop(), answers being written get this long before their connections close.
    static constexpr std::chrono::milliseconds kStopGrace{1000};

    // Answers one request. Call it once, from any thread; the answer is written on the
    // network thread. A reply dropped without being called answers 503. No reply may
    // outlive its server.
    using Reply = std::function<void(HttpResponse)>;
    // Called on the network thread for every request read in full. Must not block; an
    // exception it throws answers 500.
    using Handler = std::function<void(HttpRequest, Reply)>;

    // Listens on 127.0.0.1:port (0: a free port) and takes over SIGINT and SIGTERM from
    // now on. headers go into every answer, the server's own refusals included. Throws
    // std::runtime_error when it cannot listen.
    HttpServer(uint16_t port, Handler handler, HttpHeaders headers);
    // stop().
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    uint16_t port() const;
    // Starts the network thread. onSignal is called on it for every SIGINT and SIGTERM
    // (also those that came since the constructor); the server serves on until stop().
    void start(std::function<void()> onSignal);
    // Stops accepting, closes the connections waiting for or reading a request, gives
    // answers under way kStopGrace, then closes the rest and joins the network thread.
    // Idempotent; not on the network thread.
    void stop();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace qfforms
