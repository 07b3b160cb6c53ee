#include "HttpServer.h"
#include "Listener.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/file_body.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <list>
#include <optional>
#include <stdexcept>
#include <thread>

namespace qfforms {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using Clock = std::chrono::steady_clock;

namespace {

// What a connection reads at a time while it waits for a request.
constexpr size_t kReadChunk = 4096;
// After a refusal or the last answer of a connection, what the client still sends is read
// and dropped for up to this long before the connection closes, so that the client reads
// the answer instead of a reset.
constexpr std::chrono::milliseconds kLinger{1000};
// Accepting again after the system refused a connection (out of descriptors, memory).
constexpr std::chrono::milliseconds kMinBackoff{50};
constexpr std::chrono::milliseconds kMaxBackoff{1000};

std::string_view view(beast::string_view s) { return {s.data(), s.size()}; }

std::string lower(std::string_view s) {
    std::string out(s);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string trim(const std::string& s) {
    const size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos) return {};
    return s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

// %-decoding ("+" stays: the editor's own URLs never use it for spaces). Nothing on a
// malformed escape.
bool decode(std::string_view in, std::string& out) {
    out.clear();
    for (size_t i = 0; i < in.size(); ++i) {
        if (in[i] != '%') {
            out += in[i];
            continue;
        }
        if (i + 2 >= in.size() || !std::isxdigit(static_cast<unsigned char>(in[i + 1])) ||
            !std::isxdigit(static_cast<unsigned char>(in[i + 2])))
            return false;
        out += static_cast<char>(std::stoi(std::string(in.substr(i + 1, 2)), nullptr, 16));
        i += 2;
    }
    return true;
}

// The path and query of an origin-form target ("/path?a=b"); false for another form or a
// malformed escape.
bool parseTarget(std::string_view target, HttpRequest& request) {
    if (target.empty() || target[0] != '/') return false;
    const size_t q = target.find('?');
    if (!decode(target.substr(0, q), request.path)) return false;
    if (q == std::string_view::npos) return true;
    const std::string_view query = target.substr(q + 1);
    size_t at = 0;
    while (at <= query.size()) {
        const size_t amp = std::min(query.find('&', at), query.size());
        const std::string_view pair = query.substr(at, amp - at);
        const size_t eq = pair.find('=');
        std::string key, value;
        if (!decode(pair.substr(0, eq), key) ||
            !decode(eq == std::string_view::npos ? std::string_view() : pair.substr(eq + 1),
                    value))
            return false;
        if (!key.empty()) request.query[key] = value;
        at = amp + 1;
    }
    return true;
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

// Everything below runs on the network thread, but Owed, which a reply carries to
// whichever thread answers.
struct HttpServer::Impl {
    class Connection;
    struct Owed;

    Impl(Handler h, HttpHeaders hs) : handler(std::move(h)), headers(std::move(hs)) {}

    void listen(uint16_t port);
    void accept();
    void acceptReady(const boost::system::error_code& ec);
    void acceptSome();
    void retryLater();
    void admit(tcp::socket socket);
    bool evictIdle();
    void markIdle(Connection& c);
    void unmarkIdle(Connection& c);
    void forget(Connection& c);
    void waitForSignal();
    void shutdown();
    void closeAll();

    // First, so that it goes last: the connections' sockets and timers belong to it.
    asio::io_context io{1};
    tcp::acceptor acceptor{io};
    listener::Pending pending;
    asio::signal_set signals{io, SIGINT, SIGTERM};
    asio::steady_timer backoff{io};
    asio::steady_timer grace{io};
    std::chrono::milliseconds backoffDelay{0};
    Handler handler;
    const HttpHeaders headers;
    std::function<void()> onSignal;
    std::list<std::shared_ptr<Connection>> connections; // every open one
    std::list<Connection*> idle; // those waiting for a request, the longest waiting first
    size_t serving = 0;          // connections not being refused
    bool stopping = false;
    uint16_t port = 0;
    std::thread thread;
};

// The answer a request is owed. The reply that holds it may go to any thread; the answer
// goes back to the network thread.
struct HttpServer::Impl::Owed {
    std::shared_ptr<Connection> connection;

    ~Owed();
    void pay(HttpResponse answer);
};

// One client's connection: requests read one after the other (keep-alive), each handed to
// the handler, its answer written before the next request is read.
class HttpServer::Impl::Connection : public std::enable_shared_from_this<Connection> {
  public:
    enum class Phase { Idle, Reading, Handling, Writing, Lingering, Closed };

    Connection(Impl& server, tcp::socket socket)
        : server_(server), executor_(server.io.get_executor()), stream_(std::move(socket)) {}

    // Waits for a request: a byte of it within kIdleTimeout, the rest of it within
    // kRequestTimeout of that byte.
    void awaitRequest() {
        if (buffer_.size() > 0) return readRequest(); // it came with the last one
        phase_ = Phase::Idle;
        server_.markIdle(*this);
        stream_.expires_after(kIdleTimeout);
        stream_.async_read_some(buffer_.prepare(kReadChunk),
                                [self = shared_from_this()](beast::error_code ec, size_t n) {
                                    if (self->phase_ == Phase::Closed) return;
                                    self->server_.unmarkIdle(*self);
                                    if (ec) return self->finish();
                                    self->buffer_.commit(n);
                                    self->readRequest();
                                });
    }

    // Answers status with its reason and closes.
    void refuse(int status) {
        http::response<http::string_body> r{static_cast<http::status>(status), 11};
        r.set(http::field::content_type, "text/plain; charset=utf-8");
        r.body() = std::string(http::obsolete_reason(r.result())) + "\n";
        write(response_, std::move(r), false);
    }

    // The handler's answer to the request of this connection.
    void respond(HttpResponse answer) {
        if (phase_ != Phase::Handling) return; // closed meanwhile
        const auto status = static_cast<http::status>(answer.status);
        if (!answer.file.empty()) {
            // Read as it is sent, so that a large file neither stalls the other
            // connections while it is read nor sits in memory whole.
            http::response<http::file_body> r{status, 11};
            beast::error_code ec;
            r.body().open(answer.file.string().c_str(), beast::file_mode::scan, ec);
            if (ec) return respond(HttpResponse::text(404, "cannot read the file\n"));
            fill(r, answer);
            return write(fileResponse_, std::move(r), keepAlive_);
        }
        http::response<http::string_body> r{status, 11};
        fill(r, answer);
        r.body() = std::move(answer.body);
        write(response_, std::move(r), keepAlive_);
    }

    // Closes at once; what is pending ends with operation_aborted.
    void finish() {
        if (phase_ == Phase::Closed) return;
        phase_ = Phase::Closed;
        const auto keep = shared_from_this(); // the server's list may hold the last one
        server_.unmarkIdle(*this);
        beast::error_code ignored;
        stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
        stream_.close();
        server_.forget(*this);
    }

    // An answer is owed or being written.
    bool answering() const { return phase_ == Phase::Handling || phase_ == Phase::Writing; }
    const asio::io_context::executor_type& executor() const { return executor_; }

    std::list<std::shared_ptr<Connection>>::iterator place; // in the server's list
    std::optional<std::list<Connection*>::iterator> idleEntry;
    Clock::time_point idleSince;
    bool counted = false; // among the connections served, not one being refused

  private:
    void readRequest() {
        phase_ = Phase::Reading;
        stream_.expires_after(kRequestTimeout); // for the head and the body together
        parser_.emplace();
        parser_->header_limit(static_cast<uint32_t>(kMaxHead));
        parser_->body_limit(kMaxBody);
        http::async_read_header(stream_, buffer_, *parser_,
                                [self = shared_from_this()](beast::error_code ec, size_t) {
                                    if (self->phase_ != Phase::Closed) self->headRead(ec);
                                });
    }

    void headRead(beast::error_code ec) {
        if (ec) return readFailed(ec);
        const auto& head = parser_->get();
        // Two answers to one question, a body length this server does not take, or a
        // version it does not speak.
        if (head.count(http::field::host) > 1 || head.count(http::field::content_length) > 1 ||
            head.count(http::field::transfer_encoding) > 0 ||
            (head.version() != 10 && head.version() != 11))
            return refuse(400);
        if (parser_->is_done()) return dispatch();
        http::async_read(stream_, buffer_, *parser_,
                         [self = shared_from_this()](beast::error_code e, size_t) {
                             if (self->phase_ == Phase::Closed) return;
                             if (e) return self->readFailed(e);
                             self->dispatch();
                         });
    }

    void readFailed(beast::error_code ec) {
        if (ec == http::error::header_limit || ec == http::error::body_limit) return refuse(413);
        // A client gone, or past its deadline (the stream closed itself): nobody to answer.
        if (ec == http::error::end_of_stream || ec == http::error::partial_message ||
            ec.category() != http::make_error_code(http::error::bad_target).category())
            return finish();
        refuse(400); // malformed
    }

    void dispatch() {
        auto& message = parser_->get();
        HttpRequest request;
        if (!parseTarget(view(message.target()), request)) return refuse(400);
        request.method = std::string(message.method_string());
        for (const auto& field : message) {
            const std::string value(field.value());
            auto [it, added] = request.headers.try_emplace(lower(view(field.name_string())), value);
            if (!added) it->second += ", " + value; // a list, as HTTP reads repeated fields
        }
        request.body = std::move(message.body());
        keepAlive_ = message.keep_alive();
        parser_.reset();
        phase_ = Phase::Handling;
        stream_.expires_never();

        auto owed = std::make_shared<Owed>();
        owed->connection = shared_from_this();
        Reply reply = [owed](HttpResponse answer) { owed->pay(std::move(answer)); };
        try {
            server_.handler(std::move(request), reply);
        } catch (const std::exception& e) {
            reply(HttpResponse::text(500, std::string(e.what()) + "\n"));
        }
    }

    template <class Body>
    static void fill(http::response<Body>& r, const HttpResponse& answer) {
        r.set(http::field::content_type, answer.contentType);
        for (const auto& [name, value] : answer.headers) r.insert(name, value);
    }

    // Writes r, kept in slot until it is written.
    template <class Body>
    void write(http::response<Body>& slot, http::response<Body> r, bool keepAlive) {
        phase_ = Phase::Writing;
        keepAlive_ = keepAlive && !server_.stopping;
        for (const auto& [name, value] : server_.headers) r.set(name, value);
        r.keep_alive(keepAlive_);
        r.prepare_payload();
        slot = std::move(r);
        stream_.expires_after(kWriteTimeout);
        http::async_write(stream_, slot, [self = shared_from_this()](beast::error_code ec, size_t) {
            if (self->phase_ != Phase::Closed) self->written(ec);
        });
    }

    void written(beast::error_code ec) {
        response_ = {};
        fileResponse_ = {};
        if (ec || server_.stopping) return finish();
        if (!keepAlive_) return linger();
        awaitRequest();
    }

    // Stops sending and reads what still comes until the client closes or kLinger passes.
    void linger() {
        phase_ = Phase::Lingering;
        beast::error_code ignored;
        stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
        stream_.expires_after(kLinger);
        drain();
    }

    void drain() {
        buffer_.clear();
        stream_.async_read_some(buffer_.prepare(kReadChunk),
                                [self = shared_from_this()](beast::error_code ec, size_t) {
                                    if (self->phase_ == Phase::Closed) return;
                                    if (ec) return self->finish();
                                    self->drain();
                                });
    }

    Impl& server_;
    const asio::io_context::executor_type executor_;
    beast::tcp_stream stream_;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::string_body>> parser_;
    http::response<http::string_body> response_; // the one being written, or
    http::response<http::file_body> fileResponse_;
    Phase phase_ = Phase::Idle;
    bool keepAlive_ = false;
};

HttpServer::Impl::Owed::~Owed() { pay(HttpResponse::text(503, "the server is stopping\n")); }

void HttpServer::Impl::Owed::pay(HttpResponse answer) {
    const std::shared_ptr<Connection> c = std::move(connection);
    connection.reset();
    if (!c) return; // paid already
    asio::post(c->executor(),
               [c, answer = std::move(answer)]() mutable { c->respond(std::move(answer)); });
}

void HttpServer::Impl::listen(uint16_t requested) {
    const tcp::endpoint endpoint(asio::ip::address_v4::loopback(), requested);
    boost::system::error_code ec;
    acceptor.open(endpoint.protocol(), ec);
    if (!ec) listener::keepPrivate(acceptor);
    if (!ec) acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
    if (!ec) acceptor.bind(endpoint, ec);
    if (!ec) acceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (!ec) acceptor.non_blocking(true, ec);
    if (ec)
        throw std::runtime_error("cannot listen on 127.0.0.1:" + std::to_string(requested) +
                                 ": " + ec.message());
    port = acceptor.local_endpoint().port();
}

void HttpServer::Impl::accept() {
    listener::whenReady(acceptor, pending,
                        [this](const boost::system::error_code& ec) { acceptReady(ec); });
}

// The reactor reports the listener when it becomes ready, not while it stays ready: a wait
// starts only once accept has found the backlog empty, else connections left in it would
// wait for the next one to come.
void HttpServer::Impl::acceptReady(const boost::system::error_code& ec) {
    if (stopping || ec == asio::error::operation_aborted) return;
    // Nothing else takes connections: whatever fails here (the wait itself, memory for a
    // connection, the reactor refusing a socket), accept is tried again after a pause.
    if (ec) return retryLater();
    try {
        acceptSome();
    } catch (const std::exception&) {
        retryLater();
    }
}

void HttpServer::Impl::retryLater() {
    backoffDelay = std::clamp(backoffDelay * 2, kMinBackoff, kMaxBackoff);
    backoff.expires_after(backoffDelay);
    backoff.async_wait([this](const boost::system::error_code& e) {
        if (!e) acceptReady({});
    });
}

void HttpServer::Impl::acceptSome() {
    // A few at a time, so that the connections already open get their turn.
    for (int i = 0; i < 32; ++i) {
        tcp::socket socket(io);
        const listener::Taken taken = listener::take(acceptor, pending, socket);
        if (taken == listener::Taken::Again) continue;
        if (taken == listener::Taken::Empty) return accept();
        if (taken == listener::Taken::Refused) {
            // Out of descriptors or memory: the connection stays in the backlog. A
            // connection that has long waited for a request gives its descriptor back;
            // else accept is tried again after a pause, not at once and for ever.
            if (evictIdle()) continue;
            return retryLater();
        }
        backoffDelay = {};
        admit(std::move(socket));
    }
    // More may be waiting: the rest after the handlers already queued.
    asio::post(io, [this] { acceptReady({}); });
}

void HttpServer::Impl::admit(tcp::socket socket) {
    const bool room = serving < kMaxConnections || evictIdle();
    // Past twice the cap not even a refusal is written: the socket just closes.
    if (!room && connections.size() >= 2 * kMaxConnections) return;
    // An answer's last piece goes at once, not after the browser acknowledges the one
    // before (which it may hold back for 40 ms).
    boost::system::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    auto c = std::make_shared<Connection>(*this, std::move(socket));
    connections.push_front(c);
    c->place = connections.begin();
    if (!room) return c->refuse(503);
    c->counted = true;
    ++serving;
    c->awaitRequest();
}

bool HttpServer::Impl::evictIdle() {
    if (idle.empty() || Clock::now() - idle.front()->idleSince < kEvictAfter) return false;
    idle.front()->finish();
    return true;
}

void HttpServer::Impl::markIdle(Connection& c) {
    c.idleSince = Clock::now();
    c.idleEntry = idle.insert(idle.end(), &c);
}

void HttpServer::Impl::unmarkIdle(Connection& c) {
    if (!c.idleEntry) return;
    idle.erase(*c.idleEntry);
    c.idleEntry.reset();
}

void HttpServer::Impl::forget(Connection& c) {
    if (c.counted) --serving;
    connections.erase(c.place);
    if (stopping && connections.empty()) grace.cancel();
}

void HttpServer::Impl::waitForSignal() {
    signals.async_wait([this](const boost::system::error_code& ec, int) {
        if (ec) return;
        if (onSignal) onSignal();
        waitForSignal();
    });
}

void HttpServer::Impl::shutdown() {
    stopping = true;
    boost::system::error_code ignored;
    acceptor.close(ignored);
    signals.cancel(ignored);
    backoff.cancel();
    const std::vector<std::shared_ptr<Connection>> all(connections.begin(), connections.end());
    for (const auto& c : all)
        if (!c->answering()) c->finish();
    if (connections.empty()) return;
    grace.expires_after(kStopGrace);
    grace.async_wait([this](const boost::system::error_code& ec) {
        if (!ec) closeAll();
    });
}

void HttpServer::Impl::closeAll() {
    const std::vector<std::shared_ptr<Connection>> all(connections.begin(), connections.end());
    for (const auto& c : all) c->finish();
}

HttpServer::HttpServer(uint16_t port, Handler handler, HttpHeaders headers)
    : impl_(std::make_unique<Impl>(std::move(handler), std::move(headers))) {
    impl_->listen(port);
}

HttpServer::~HttpServer() { stop(); }

uint16_t HttpServer::port() const { return impl_->port; }

void HttpServer::start(std::function<void()> onSignal) {
    impl_->onSignal = std::move(onSignal);
    impl_->acceptReady({}); // those that came since the constructor too
    listener::watchConsoleStops(impl_->signals);
    impl_->waitForSignal();
    impl_->thread = std::thread([impl = impl_.get()] {
        for (;;) {
            try {
                impl->io.run();
                return;
            } catch (const std::exception&) {
                // Out of memory in a handler: that connection is lost, the others go on.
            }
        }
    });
}

void HttpServer::stop() {
    if (!impl_->thread.joinable()) return;
    asio::post(impl_->io, [impl = impl_.get()] { impl->shutdown(); });
    impl_->thread.join();
}

} // namespace qfforms
