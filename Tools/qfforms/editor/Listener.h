// The editor server's seam to the system's sockets and console: one source per system
// (ListenerPosix.cpp, ListenerWindows.cpp). Called on the network thread only.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>

namespace qfforms::listener {

// Keeps the open listening socket from the programs this process starts.
void keepPrivate(boost::asio::ip::tcp::acceptor& acceptor);

enum class Taken {
    Connection, // into holds a new connection, kept from started programs too
    Again,      // the connection went away before it was taken: try the next
    Empty,      // the backlog is empty
    Refused,    // the system has no descriptor or memory for it: it stays in the backlog
};

// Takes one connection from the backlog of a non-blocking acceptor into into (closed).
Taken take(boost::asio::ip::tcp::acceptor& acceptor, boost::asio::ip::tcp::socket& into);

// Adds to signals (SIGINT, SIGTERM) the system's other ways of asking a console program to
// stop; signals must stay alive while the process runs.
void watchConsoleStops(boost::asio::signal_set& signals);

} // namespace qfforms::listener
