// A small HTTP/1.1 server for the editor: loopback only, one request per connection,
// bounded heads and bodies. Requests are read on a few worker threads and answered by the
// handler, which may be called on any of them at once.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
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
    std::vector<std::pair<std::string, std::string>> headers; // added as they are

    static HttpResponse text(int status, std::string body);
    static HttpResponse json(int status, std::string body);
};

class HttpServer {
  public:
    static constexpr size_t kMaxHead = 16 * 1024;
    static constexpr size_t kMaxBody = 4 * 1024 * 1024;
    static constexpr int kWorkers = 4;

    using Handler = std::function<HttpResponse(const HttpRequest&)>;

    // Listens on 127.0.0.1:port (0: a free port). Throws std::runtime_error when it cannot.
    HttpServer(uint16_t port, Handler handler);
    // stop().
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    uint16_t port() const { return port_; }
    // Starts accepting on a thread of its own and the workers.
    void start();
    // Stops accepting, drops connections not yet read and joins every thread; a request
    // being answered is answered first. Idempotent.
    void stop();

  private:
    void acceptLoop();
    void workerLoop();
    void serve(int connection);

    Handler handler_;
    int listener_ = -1;
    uint16_t port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread acceptor_;
    std::vector<std::thread> workers_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<int> connections_;
};

} // namespace qfforms
