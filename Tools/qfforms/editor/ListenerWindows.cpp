// The editor server's sockets on Windows (Winsock through Boost.Asio) and the console's
// requests to stop. The server waits with an overlapped accept (AcceptEx on the completion
// port), whose connection stays pending until taken: a wait for readability goes through
// Asio's select reactor instead, which wine's sockets do not wake.
#include "Listener.h"

#include <windows.h>

#include <csignal>
#include <memory>

namespace qfforms::listener {

using tcp = boost::asio::ip::tcp;

namespace {

// Sockets are inheritable by default: programs started with inherited handles would keep
// the listener and the connections open.
void noInherit(SOCKET s) {
    SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
}

// Ctrl+C comes as SIGINT through the C runtime; Ctrl+Break, closing the console window,
// logging off and shutting down come here and become SIGTERM, which the server's signal set
// delivers on its thread. The system ends the process once the handler returns from a
// close, so the handler gives the server its grace before it does.
BOOL WINAPI onConsoleEvent(DWORD event) {
    switch (event) {
    case CTRL_BREAK_EVENT:
        std::raise(SIGTERM);
        return TRUE;
    case CTRL_CLOSE_EVENT:
    case CTRL_LOGOFF_EVENT:
    case CTRL_SHUTDOWN_EVENT:
        std::raise(SIGTERM);
        Sleep(2000);
        return TRUE;
    default:
        return FALSE;
    }
}

} // namespace

void keepPrivate(tcp::acceptor& acceptor) {
    noInherit(acceptor.native_handle());
}

void whenReady(tcp::acceptor& acceptor, Pending& pending,
               std::function<void(const boost::system::error_code&)> ready) {
    auto socket = std::make_shared<tcp::socket>(acceptor.get_executor());
    acceptor.async_accept(*socket, [socket, &pending, ready = std::move(ready)](
                                       const boost::system::error_code& ec) {
        if (ec == boost::asio::error::operation_aborted) return ready(ec);
        if (!ec) {
            noInherit(socket->native_handle());
            pending.socket.emplace(std::move(*socket));
        }
        // A refused connection (out of handles or memory) is the takes' to answer.
        ready({});
    });
}

Taken take(tcp::acceptor& acceptor, Pending& pending, tcp::socket& into) {
    if (pending.socket) {
        into = std::move(*pending.socket);
        pending.socket.reset();
        return Taken::Connection;
    }
    boost::system::error_code ec;
    acceptor.accept(into, ec);
    if (!ec) {
        noInherit(into.native_handle());
        return Taken::Connection;
    }
    if (ec == boost::asio::error::would_block || ec == boost::asio::error::try_again)
        return Taken::Empty;
    if (ec == boost::asio::error::connection_aborted || ec == boost::asio::error::interrupted ||
        ec == boost::asio::error::connection_reset)
        return Taken::Again;
    return Taken::Refused;
}

void watchConsoleStops(boost::asio::signal_set&) {
    SetConsoleCtrlHandler(onConsoleEvent, TRUE);
}

} // namespace qfforms::listener
