// The editor server's seam to the system's sockets and console: one source per system
// (ListenerPosix.cpp, ListenerWindows.cpp). Called on the network thread only.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>

#include <functional>
#include <optional>

namespace qfforms::listener {

// Keeps the open listening socket from the programs this process starts.
void keepPrivate(boost::asio::ip::tcp::acceptor& acceptor);

// A connection the system handed over while the server waited, not taken yet (Windows
// accepts as it waits). Lives beside the acceptor, on the same io_context.
struct Pending {
    std::optional<boost::asio::ip::tcp::socket> socket;
};

// Calls ready on the acceptor's io_context once a connection waits in the backlog (or is
// pending), or with operation_aborted when the acceptor closes.
void whenReady(boost::asio::ip::tcp::acceptor& acceptor, Pending& pending,
               std::function<void(const boost::system::error_code&)> ready);

enum class Taken {
    Connection, // into holds a new connection, kept from started programs too
    Again,      // the connection went away before it was taken: try the next
    Empty,      // the backlog is empty
    Refused,    // the system has no descriptor or memory for it: it stays in the backlog
};

// Takes the pending connection, else one from the backlog of the non-blocking acceptor,
// into into (closed).
Taken take(boost::asio::ip::tcp::acceptor& acceptor, Pending& pending,
           boost::asio::ip::tcp::socket& into);

// Adds to signals (SIGINT, SIGTERM) the system's other ways of asking a console program to
// stop; signals must stay alive while the process runs.
void watchConsoleStops(boost::asio::signal_set& signals);

} // namespace qfforms::listener
