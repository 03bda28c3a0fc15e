#include "socket_waits.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace qxtest {

bool ready(int fd, short events, int wake, ServerClock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - ServerClock::now());
        if (left.count() <= 0)
            return false;
        pollfd fds[2] = {{fd, events, 0}, {wake, POLLIN, 0}};
        const int rc = poll(fds, 2, static_cast<int>(left.count()));
        if (rc < 0 && errno != EINTR)
            return false;
        if (rc > 0)
            return fds[1].revents == 0 && fds[0].revents != 0;
    }
}

bool write_all(int fd, const std::string& bytes, int wake, ServerClock::time_point deadline) {
    size_t done = 0;
    while (done < bytes.size()) {
        if (!ready(fd, POLLOUT, wake, deadline))
            return false;
        const ssize_t sent =
            send(fd, bytes.data() + done, bytes.size() - done, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0 && errno != EAGAIN && errno != EINTR)
            return false;
        if (sent > 0)
            done += static_cast<size_t>(sent);
    }
    return true;
}

int listen_on(const char* address, int wake[2]) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    // A server closes its connections first, so each leaves its port in
    // TIME_WAIT for a minute; without reuse, a run that starts servers by the
    // thousand (a fuzz target) runs out of ports to bind.
    const int reuse = 1;
    if (listener < 0 || setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) != 0 ||
        inet_pton(AF_INET, address, &local.sin_addr) != 1 ||
        bind(listener, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 ||
        listen(listener, 64) != 0 || pipe(wake) != 0) {
        if (listener >= 0)
            close(listener);
        throw std::runtime_error(std::string("cannot listen on ") + address);
    }
    return listener;
}

uint16_t bound_port(int fd) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0)
        throw std::runtime_error("getsockname failed");
    return ntohs(address.sin_port);
}

} // namespace qxtest
