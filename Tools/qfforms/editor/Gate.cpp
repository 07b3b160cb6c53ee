#include "Gate.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <random>
#include <utility>

namespace qfforms {

namespace fs = std::filesystem;

namespace {

// Compares without stopping at the first difference.
bool sameSecret(const std::string& a, const std::string& b) {
    if (a.size() != b.size() || a.empty()) return false;
    unsigned char diff = 0;
    for (size_t i = 0; i < a.size(); ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

std::string contentTypeOf(const fs::path& file) {
    const std::string ext = file.extension().string();
    if (ext == ".html") return "text/html; charset=utf-8";
    if (ext == ".js" || ext == ".mjs") return "text/javascript; charset=utf-8";
    if (ext == ".css") return "text/css; charset=utf-8";
    if (ext == ".svg") return "image/svg+xml";
    if (ext == ".png") return "image/png";
    if (ext == ".json" || ext == ".map") return "application/json";
    if (ext == ".wasm") return "application/wasm";
    return "application/octet-stream";
}

// The file under root named by the relative URL path rest; nothing for a path that leaves
// root or names no file.
std::optional<fs::path> fileUnder(const fs::path& root, const std::string& rest) {
    fs::path path = root;
    size_t at = 0;
    while (at <= rest.size()) {
        const size_t slash = std::min(rest.find('/', at), rest.size());
        const std::string part = rest.substr(at, slash - at);
        if (part.empty() || part == "." || part == ".." || part.find('\\') != std::string::npos ||
            part.find('\0') != std::string::npos)
            return std::nullopt;
        path /= fs::u8path(part);
        at = slash + 1;
    }
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) return std::nullopt;
    return path;
}

HttpResponse forbidden(std::string why) { return HttpResponse::text(403, std::move(why) + "\n"); }

} // namespace

Gate::Gate(std::string token, fs::path web, MainQueue& queue, Api api)
    : token_(std::move(token)), pageToken_(newToken()), web_(std::move(web)), queue_(queue),
      api_(std::move(api)) {}

void Gate::setPort(uint16_t port) { port_ = port; }

HttpHeaders Gate::securityHeaders() {
    // pdf.js compiles its image decoders from WebAssembly ('wasm-unsafe-eval' allows
    // that and no JavaScript from text); the overlays are SVG put into the page, with
    // neither scripts nor styles of their own.
    return {{"Content-Security-Policy",
             "default-src 'self'; script-src 'self' 'wasm-unsafe-eval'; style-src 'self'; "
             "img-src 'self' data: blob:; font-src 'self' data:; connect-src 'self'; "
             "worker-src 'self'; object-src 'none'; base-uri 'none'; form-action 'self'; "
             "frame-ancestors 'none'"},
            {"X-Content-Type-Options", "nosniff"},
            {"Referrer-Policy", "no-referrer"},
            {"Cross-Origin-Resource-Policy", "same-origin"},
            {"Cache-Control", "no-store"}};
}

std::string Gate::newToken() {
    std::random_device device;
    std::string out;
    for (int i = 0; i < 4; ++i) {
        char word[9];
        std::snprintf(word, sizeof word, "%08x", static_cast<unsigned>(device()));
        out += word;
    }
    return out;
}

std::string Gate::cookieName() const {
    // Cookies do not tell ports apart: one name per editor, so that two at once keep theirs.
    return "qf_page_" + std::to_string(port_);
}

void Gate::operator()(HttpRequest request, HttpServer::Reply reply) const {
    if (auto refused = refusal(request)) return reply(std::move(*refused));
    if (request.path.rfind("/api/", 0) != 0) return reply(file(request));
    auto job = [this, request = std::move(request), reply] {
        HttpResponse answer;
        try {
            answer = api_(request);
        } catch (const std::exception& e) {
            answer = HttpResponse::text(500, std::string(e.what()) + "\n");
        }
        reply(std::move(answer));
    };
    if (!queue_.post(std::move(job))) reply(HttpResponse::text(503, "the editor is stopping\n"));
}

std::optional<HttpResponse> Gate::refusal(const HttpRequest& request) const {
    // A name of another site that resolves to 127.0.0.1 brings its own Host.
    const std::string host = request.header("host");
    const std::string port = std::to_string(port_);
    if (host != "127.0.0.1:" + port && host != "localhost:" + port)
        return forbidden("this server answers to 127.0.0.1:" + port + " only");

    // A page of another site (another port of this machine is one) can make the browser
    // send requests here, the cookie with them; the browser says where they come from.
    const std::string origin = request.header("origin");
    const std::string site = request.header("sec-fetch-site");
    if ((!origin.empty() && origin != "http://" + host) || site == "cross-site" ||
        site == "same-site")
        return forbidden("this editor answers its own page only, not requests from other sites");

    // A request that changes something carries the token in a header, which only the
    // editor's own page can add: a form or a fetch of another page cannot without the
    // browser asking here first (a preflight, refused above for its Origin).
    const std::string header = request.header("x-qf-token");
    if (!header.empty()) {
        if (sameSecret(header, token_)) return std::nullopt;
        return forbidden("the session token is wrong: open the address that `qfforms edit` "
                         "printed");
    }
    if (request.method != "GET")
        return forbidden("a request that changes something needs the session token in the "
                         "X-QF-Token header");
    const auto query = request.query.find("token");
    if (query != request.query.end() && sameSecret(query->second, token_)) return std::nullopt;
    if (request.path.rfind("/api/", 0) != 0 &&
        sameSecret(request.cookie(cookieName()), pageToken_))
        return std::nullopt;
    return forbidden("this editor needs its session token: open the address that `qfforms "
                     "edit` printed");
}

HttpResponse Gate::file(const HttpRequest& request) const {
    if (request.method != "GET") return HttpResponse::text(405, "not allowed\n");
    const std::string& path = request.path;
    const bool page = path == "/" || path == "/index.html";
    std::optional<fs::path> file;
    if (page) {
        file = fileUnder(web_, "index.html");
    } else if (path.rfind("/app/", 0) == 0) {
        file = fileUnder(web_ / "app", path.substr(5));
    } else if (path.rfind("/vendor/pdfjs/", 0) == 0) {
        const fs::path pdfjs = web_ / "node_modules" / "pdfjs-dist";
        file = fileUnder(pdfjs / "build", path.substr(14));
        if (!file) file = fileUnder(pdfjs, path.substr(14));
    }
    if (!file) return HttpResponse::text(404, "no such file\n");
    HttpResponse r;
    r.contentType = contentTypeOf(*file);
    r.file = std::move(*file);
    if (page)
        r.headers.emplace_back("Set-Cookie", cookieName() + "=" + pageToken_ +
                                                 "; Path=/; HttpOnly; SameSite=Strict");
    return r;
}

} // namespace qfforms
