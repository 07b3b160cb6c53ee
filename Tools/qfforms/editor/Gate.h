// The editor's door, on the network thread: it refuses what does not come from the
// editor's own page (another Host, another site, no session token), serves the page and its
// files, and hands every API request to the main thread. It never calls the host or the
// module itself.
#pragma once

#include "HttpServer.h"
#include "MainQueue.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace qfforms {

class Gate {
  public:
    // Answers an API request; runs on the main thread, taken from the queue.
    using Api = std::function<HttpResponse(const HttpRequest&)>;

    // token: the session's secret, printed in the editor's address; web: the folder of the
    // page (index.html, app/, node_modules/pdfjs-dist). queue and api must outlive the
    // gate, the gate the server it answers for.
    Gate(std::string token, std::filesystem::path web, MainQueue& queue, Api api);

    // The port the server listens on, before it starts: Host and Origin name it.
    void setPort(uint16_t port);
    // The server's handler. [network thread]
    void operator()(HttpRequest request, HttpServer::Reply reply) const;

    // The headers of every answer of the editor's server: no framing, scripts from the
    // editor's own origin only, no sniffing, no referrer, nothing cached.
    static HttpHeaders securityHeaders();
    // A new secret: 128 random bits in hex.
    static std::string newToken();

  private:
    std::optional<HttpResponse> refusal(const HttpRequest& request) const;
    HttpResponse file(const HttpRequest& request) const;
    std::string cookieName() const;

    const std::string token_;
    // What the page's cookie holds: it opens the page's files (module scripts and pdf.js's
    // worker and data are fetched without the header), never the API, so that a server on
    // another port of this machine, to which the browser sends the cookie too, learns
    // nothing that matters.
    const std::string pageToken_;
    const std::filesystem::path web_;
    MainQueue& queue_;
    const Api api_;
    uint16_t port_ = 0;
};

} // namespace qfforms
