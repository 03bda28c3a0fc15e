// Bounded socket waits for the tests' servers: each returns once the socket
// is ready, the deadline has passed, or the server's wake pipe says stop.
#ifndef QXCRL_TESTS_SUPPORT_SOCKET_WAITS_H
#define QXCRL_TESTS_SUPPORT_SOCKET_WAITS_H

#include <chrono>
#include <cstdint>
#include <string>

namespace qxtest {

using ServerClock = std::chrono::steady_clock;

// True once fd is ready for events; false when the deadline passes or the
// server is told to stop (wake becomes readable).
bool ready(int fd, short events, int wake, ServerClock::time_point deadline);

// Sends all of bytes; false when the peer goes, the deadline passes or the
// server is told to stop.
bool write_all(int fd, const std::string& bytes, int wake, ServerClock::time_point deadline);

// A non-blocking listener on address (a loopback IPv4 address) at a port of
// the kernel's choice, and the wake pipe; throws when either cannot be made.
int listen_on(const char* address, int wake[2]);

// The port fd is bound to.
uint16_t bound_port(int fd);

} // namespace qxtest

#endif
