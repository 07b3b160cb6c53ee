// The editor server's sockets on POSIX systems. accept4 and fcntl: descriptors are opened
// close-on-exec, so that the programs the host starts (the clipboard's) do not inherit the
// listener or the connections.
#include "Listener.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace qfforms::listener {

using tcp = boost::asio::ip::tcp;

void keepPrivate(tcp::acceptor& acceptor) {
    ::fcntl(acceptor.native_handle(), F_SETFD, FD_CLOEXEC);
}

// The reactor reports the listener when it becomes readable; nothing is ever pending.
void whenReady(tcp::acceptor& acceptor, Pending&,
               std::function<void(const boost::system::error_code&)> ready) {
    acceptor.async_wait(tcp::acceptor::wait_read, std::move(ready));
}

Taken take(tcp::acceptor& acceptor, Pending&, tcp::socket& into) {
    const int fd = ::accept4(acceptor.native_handle(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        if (errno == EINTR || errno == ECONNABORTED) return Taken::Again;
        if (errno == EAGAIN || errno == EWOULDBLOCK) return Taken::Empty;
        return Taken::Refused;
    }
    boost::system::error_code assigned;
    into.assign(tcp::v4(), fd, assigned);
    if (assigned) {
        ::close(fd);
        return Taken::Again;
    }
    return Taken::Connection;
}

// SIGINT and SIGTERM are how a terminal and a service manager ask.
void watchConsoleStops(boost::asio::signal_set&) {}

} // namespace qfforms::listener
