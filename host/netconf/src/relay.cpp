#include "relay.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tavrik::netconf {
namespace {

// Copies what `from` has to `to`; false at the end of `from` or on error.
bool copy(int from, int to) {
    char buffer[65536];
    const ssize_t n = ::read(from, buffer, sizeof buffer);
    if (n < 0) return errno == EINTR || errno == EAGAIN;
    if (n == 0) return false;
    for (ssize_t done = 0; done < n;) {
        const ssize_t w = ::write(to, buffer + done, static_cast<std::size_t>(n - done));
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        done += w;
    }
    return true;
}

}  // namespace

std::optional<int> relay_stdio(const std::string& path) {
    sockaddr_un addr{};
    if (path.size() >= sizeof addr.sun_path) return std::nullopt;
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return std::nullopt;
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return std::nullopt;
    }
    pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {fd, POLLIN, 0}};
    for (bool input_open = true;;) {
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[1].revents && !copy(fd, STDOUT_FILENO)) break;  // the daemon ended the session
        if (input_open && fds[0].revents && !copy(STDIN_FILENO, fd)) {
            // The client is gone: let the daemon see the end, then drain.
            ::shutdown(fd, SHUT_WR);
            input_open = false;
            fds[0].fd = -1;
        }
    }
    ::close(fd);
    return 0;
}

}  // namespace tavrik::netconf
