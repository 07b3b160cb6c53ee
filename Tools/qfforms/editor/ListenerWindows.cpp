// The editor server's sockets on Windows (Winsock through Boost.Asio) and the console's
// requests to stop.
#include "Listener.h"

#include <windows.h>

#include <csignal>

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

Taken take(tcp::acceptor& acceptor, tcp::socket& into) {
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
