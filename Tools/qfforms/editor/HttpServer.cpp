#include "HttpServer.h"

// Sockets are POSIX here; a Windows build puts Winsock behind the same few calls.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace qfforms {

namespace {

// How long a connection may take to send its request.
constexpr int kReadTimeoutSeconds = 10;

const char* reason(int status) {
    switch (status) {
    case 200: return "OK";
    case 400: return "Bad Request";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 409: return "Conflict";
    case 413: return "Payload Too Large";
    case 422: return "Unprocessable Content";
    case 500: return "Internal Server Error";
    case 503: return "Service Unavailable";
    default: return "Status";
    }
}

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

std::string trim(const std::string& s) {
    const size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos) return {};
    return s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

// %-decoding ("+" stays: the editor's own URLs never use it for spaces). Nothing on a
// malformed escape.
bool decode(const std::string& in, std::string& out) {
    out.clear();
    for (size_t i = 0; i < in.size(); ++i) {
        if (in[i] != '%') {
            out += in[i];
            continue;
        }
        if (i + 2 >= in.size() || !std::isxdigit(static_cast<unsigned char>(in[i + 1])) ||
            !std::isxdigit(static_cast<unsigned char>(in[i + 2])))
            return false;
        out += static_cast<char>(std::stoi(in.substr(i + 1, 2), nullptr, 16));
        i += 2;
    }
    return true;
}

void sendAll(int fd, const std::string& data) {
    size_t sent = 0;
    while (sent < data.size()) {
        const ssize_t n = ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return; // the peer went away
        sent += static_cast<size_t>(n);
    }
}

void respond(int fd, const HttpResponse& r) {
    std::string head = "HTTP/1.1 " + std::to_string(r.status) + " " + reason(r.status) + "\r\n";
    head += "Content-Type: " + r.contentType + "\r\n";
    head += "Content-Length: " + std::to_string(r.body.size()) + "\r\n";
    head += "Cache-Control: no-store\r\nX-Content-Type-Options: nosniff\r\n";
    head += "Connection: close\r\n";
    for (const auto& [name, value] : r.headers) head += name + ": " + value + "\r\n";
    sendAll(fd, head + "\r\n" + r.body);
}

// Reads one request; the status to refuse it with, or 0.
int readRequest(int fd, HttpRequest& request) {
    std::string data;
    size_t headEnd = std::string::npos;
    char buffer[8192];
    while (headEnd == std::string::npos) {
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return 400;
        data.append(buffer, static_cast<size_t>(n));
        headEnd = data.find("\r\n\r\n");
        if (headEnd == std::string::npos && data.size() > HttpServer::kMaxHead) return 413;
    }
    if (headEnd > HttpServer::kMaxHead) return 413;

    const std::string head = data.substr(0, headEnd);
    size_t lineEnd = head.find("\r\n");
    const std::string requestLine = head.substr(0, lineEnd);
    const size_t sp1 = requestLine.find(' ');
    const size_t sp2 = requestLine.find(' ', sp1 + 1);
    if (sp1 == std::string::npos || sp2 == std::string::npos) return 400;
    const std::string version = requestLine.substr(sp2 + 1);
    if (version != "HTTP/1.1" && version != "HTTP/1.0") return 400;
    request.method = requestLine.substr(0, sp1);
    const std::string target = requestLine.substr(sp1 + 1, sp2 - sp1 - 1);
    if (target.empty() || target[0] != '/') return 400;
    const size_t q = target.find('?');
    if (!decode(target.substr(0, q), request.path)) return 400;
    if (q != std::string::npos) {
        const std::string query = target.substr(q + 1);
        size_t at = 0;
        while (at <= query.size()) {
            const size_t amp = std::min(query.find('&', at), query.size());
            const std::string pair = query.substr(at, amp - at);
            const size_t eq = pair.find('=');
            std::string key, value;
            if (!decode(pair.substr(0, eq), key) ||
                !decode(eq == std::string::npos ? "" : pair.substr(eq + 1), value))
                return 400;
            if (!key.empty()) request.query[key] = value;
            at = amp + 1;
        }
    }
    while (lineEnd != std::string::npos) {
        const size_t next = head.find("\r\n", lineEnd + 2);
        const std::string line = head.substr(lineEnd + 2, next == std::string::npos
                                                                ? std::string::npos
                                                                : next - lineEnd - 2);
        lineEnd = next;
        const size_t colon = line.find(':');
        if (colon == std::string::npos || colon == 0) return 400;
        const std::string name = lower(line.substr(0, colon));
        if (request.headers.count(name) && (name == "host" || name == "content-length"))
            return 400; // two answers to one question
        request.headers[name] = trim(line.substr(colon + 1));
    }
    if (request.headers.count("transfer-encoding")) return 400; // not spoken here

    size_t length = 0;
    if (const std::string cl = request.header("content-length"); !cl.empty()) {
        if (cl.size() > 10 || cl.find_first_not_of("0123456789") != std::string::npos)
            return 400;
        length = std::stoul(cl);
        if (length > HttpServer::kMaxBody) return 413;
    }
    request.body = data.substr(headEnd + 4);
    while (request.body.size() < length) {
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return 400;
        request.body.append(buffer, static_cast<size_t>(n));
    }
    if (request.body.size() > length) return 400; // one request per connection
    return 0;
}

} // namespace

std::string HttpRequest::header(const std::string& lowerName) const {
    auto it = headers.find(lowerName);
    return it == headers.end() ? std::string() : it->second;
}

std::string HttpRequest::cookie(const std::string& name) const {
    const std::string all = header("cookie");
    size_t at = 0;
    while (at < all.size()) {
        const size_t end = std::min(all.find(';', at), all.size());
        const std::string pair = trim(all.substr(at, end - at));
        const size_t eq = pair.find('=');
        if (eq != std::string::npos && pair.substr(0, eq) == name) return pair.substr(eq + 1);
        at = end + 1;
    }
    return {};
}

HttpResponse HttpResponse::text(int status, std::string body) {
    HttpResponse r;
    r.status = status;
    r.body = std::move(body);
    return r;
}

HttpResponse HttpResponse::json(int status, std::string body) {
    HttpResponse r;
    r.status = status;
    r.contentType = "application/json";
    r.body = std::move(body);
    return r;
}

HttpServer::HttpServer(uint16_t port, Handler handler) : handler_(std::move(handler)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener_ < 0) throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
    const int on = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 64) != 0) {
        const std::string why = std::strerror(errno);
        ::close(listener_);
        throw std::runtime_error("cannot listen on 127.0.0.1:" + std::to_string(port) + ": " +
                                 why);
    }
    socklen_t size = sizeof address;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
}

HttpServer::~HttpServer() {
    stop();
    if (listener_ >= 0) ::close(listener_);
}

void HttpServer::start() {
    for (int i = 0; i < kWorkers; ++i) workers_.emplace_back([this] { workerLoop(); });
    acceptor_ = std::thread([this] { acceptLoop(); });
}

void HttpServer::stop() {
    if (stopping_.exchange(true)) return;
    ready_.notify_all();
    if (acceptor_.joinable()) acceptor_.join();
    for (std::thread& w : workers_) w.join();
    workers_.clear();
    std::lock_guard lock(mutex_);
    for (int fd : connections_) ::close(fd);
    connections_.clear();
}

void HttpServer::acceptLoop() {
    while (!stopping_) {
        pollfd p{listener_, POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0) continue; // wakes to see stopping_
        const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        timeval timeout{kReadTimeoutSeconds, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        {
            std::lock_guard lock(mutex_);
            connections_.push_back(fd);
        }
        ready_.notify_one();
    }
}

void HttpServer::workerLoop() {
    for (;;) {
        int fd = -1;
        {
            std::unique_lock lock(mutex_);
            ready_.wait(lock, [this] { return stopping_ || !connections_.empty(); });
            if (stopping_) return;
            fd = connections_.front();
            connections_.pop_front();
        }
        serve(fd);
        ::close(fd);
    }
}

void HttpServer::serve(int fd) {
    HttpRequest request;
    const int refused = readRequest(fd, request);
    if (refused) {
        respond(fd, HttpResponse::text(refused, std::string(reason(refused)) + "\n"));
        return;
    }
    HttpResponse response;
    try {
        response = handler_(request);
    } catch (const std::exception& e) {
        response = HttpResponse::text(500, std::string(e.what()) + "\n");
    }
    respond(fd, response);
}

} // namespace qfforms
