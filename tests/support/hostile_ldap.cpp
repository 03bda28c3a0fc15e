#include "hostile_ldap.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

#include "socket_waits.h"

namespace qxtest {

namespace {

using Clock = ServerClock;

constexpr char crl_binary[] = "certificateRevocationList;binary";
// The longest request a client of these servers sends is a search of a few
// hundred bytes; anything far longer is not one.
constexpr size_t longest_request = 1u << 16;

// BER length octets: short form below 128, else the long form.
std::string ber_length(size_t length) {
    if (length < 0x80)
        return std::string(1, static_cast<char>(length));
    std::string octets;
    for (size_t rest = length; rest != 0; rest >>= 8)
        octets.insert(octets.begin(), static_cast<char>(rest & 0xFF));
    return static_cast<char>(0x80 | octets.size()) + octets;
}

std::string tlv(unsigned char tag, const std::string& content) {
    return static_cast<char>(tag) + ber_length(content.size()) + content;
}

// The SET of values, copies times over.
std::string value_set(const std::vector<HostileLdap::Bytes>& values, size_t copies) {
    size_t size = 0;
    for (const HostileLdap::Bytes& value : values)
        size += value.size() + 6;
    std::string set;
    set.reserve(size * copies);
    for (size_t copy = 0; copy < copies; ++copy) {
        for (const HostileLdap::Bytes& value : values)
            set += tlv(0x04, std::string(value.begin(), value.end()));
    }
    return tlv(0x31, set);
}

// An LDAPResult of the operation with this tag: the code, no matched DN, no message.
std::string result(unsigned char tag, int code) {
    return tlv(tag,
               tlv(0x0A, std::string(1, static_cast<char>(code))) + tlv(0x04, "") + tlv(0x04, ""));
}

std::string entry(const std::string& attributes) {
    return tlv(0x64, tlv(0x04, "cn=hostile") + tlv(0x30, attributes));
}

// A TLS record that announces 80 bytes of ServerHello; a client that has
// any part of it waits for the rest.
std::string server_hello() {
    std::string record = "\x16\x03\x03\x00\x50\x02\x00\x00\x4c\x03\x03";
    record.append(85 - record.size(), '\x11');
    return record;
}

bool read_exactly(int fd, size_t count, std::string& into, int wake, Clock::time_point deadline) {
    const size_t start = into.size();
    into.resize(start + count);
    size_t done = 0;
    while (done < count) {
        if (!ready(fd, POLLIN, wake, deadline))
            return false;
        const ssize_t got = recv(fd, into.data() + start + done, count - done, MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR))
            return false;
        if (got > 0)
            done += static_cast<size_t>(got);
    }
    return true;
}

struct Request {
    std::string messageId; // the INTEGER's content octets, echoed back
    unsigned char operation = 0;
};

// One LDAPMessage from the client: SEQUENCE { INTEGER id, operation ... }.
bool read_request(int fd, Request& request, int wake, Clock::time_point deadline) {
    std::string header;
    if (!read_exactly(fd, 2, header, wake, deadline) || header[0] != 0x30)
        return false;
    size_t length = static_cast<unsigned char>(header[1]);
    if (length & 0x80) {
        const size_t octetCount = length & 0x7F;
        std::string octetsRead;
        if (octetCount == 0 || octetCount > 4 ||
            !read_exactly(fd, octetCount, octetsRead, wake, deadline))
            return false;
        length = 0;
        for (const char octet : octetsRead)
            length = (length << 8) | static_cast<unsigned char>(octet);
    }
    std::string content;
    if (length > longest_request || !read_exactly(fd, length, content, wake, deadline))
        return false;
    if (content.size() < 3 || content[0] != 0x02)
        return false;
    const auto idLength = static_cast<size_t>(static_cast<unsigned char>(content[1]));
    if (idLength == 0 || idLength > 4 || content.size() < 2 + idLength + 1)
        return false;
    request.messageId = content.substr(2, idLength);
    request.operation = static_cast<unsigned char>(content[2 + idLength]);
    return true;
}

std::string message(const std::string& messageId, const std::string& operation) {
    return tlv(0x30, tlv(0x02, messageId) + operation);
}

} // namespace

HostileLdap::HostileLdap(std::unique_ptr<State> state)
    : state_(std::move(state)), port_(bound_port(state_->listener)) {
    thread_ = std::thread(run, std::ref(*state_));
}

HostileLdap::HostileLdap(HostileLdap&& other) noexcept = default;

HostileLdap::~HostileLdap() {
    if (!state_)
        return;
    const char stop = 's';
    // Should the pipe refuse the byte, the thread still ends at its lifetime.
    [[maybe_unused]] const ssize_t woken = write(state_->wake[1], &stop, 1);
    thread_.join();
    for (const int fd : {state_->listener, state_->wake[0], state_->wake[1]})
        close(fd);
}

std::unique_ptr<HostileLdap::State> HostileLdap::listening(Behaviour behaviour) {
    auto state = std::make_unique<State>();
    state->behaviour = behaviour;
    state->listener = listen_on("127.0.0.1", state->wake);
    return state;
}

HostileLdap HostileLdap::silent() {
    return HostileLdap(listening(Behaviour::Silent));
}

HostileLdap HostileLdap::stalled_handshake(size_t helloBytes) {
    auto state = listening(Behaviour::StalledHandshake);
    state->hello = server_hello().substr(0, helloBytes);
    return HostileLdap(std::move(state));
}

HostileLdap HostileLdap::trickling_handshake(std::chrono::milliseconds interval) {
    auto state = listening(Behaviour::StalledHandshake);
    state->hello = server_hello();
    state->trickle = interval;
    return HostileLdap(std::move(state));
}

HostileLdap HostileLdap::serving(const std::vector<Bytes>& values, size_t copies, int resultCode) {
    return serving_attributes(
        qxtest::tlv(0x30, qxtest::tlv(0x04, crl_binary) + value_set(values, copies)), resultCode);
}

HostileLdap HostileLdap::serving_attributes(const std::string& attributes, int resultCode) {
    auto state = listening(Behaviour::Serving);
    state->entryContent = entry(attributes);
    state->resultContent = result(0x65, resultCode);
    return HostileLdap(std::move(state));
}

HostileLdap HostileLdap::answering_verbatim(const std::string& reply) {
    auto state = listening(Behaviour::Verbatim);
    state->verbatimReply = reply;
    return HostileLdap(std::move(state));
}

std::string HostileLdap::tlv(unsigned char tag, const std::string& content) {
    return qxtest::tlv(tag, content);
}

std::string HostileLdap::attribute(const std::string& type, const std::vector<Bytes>& values) {
    return qxtest::tlv(0x30, qxtest::tlv(0x04, type) + value_set(values, 1));
}

std::string HostileLdap::url(const std::string& name, const std::string& scheme) const {
    return scheme + "://127.0.0.1:" + std::to_string(port_) + "/cn=" + name + "?" + crl_binary;
}

void HostileLdap::run(State& state) {
    const Clock::time_point end = Clock::now() + lifetime;
    struct Held {
        int fd;
        size_t sent; // bytes of the hello
    };
    std::vector<Held> held;
    const bool trickling = state.trickle.count() > 0;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        if (left.count() <= 0)
            break;
        pollfd fds[2] = {{state.listener, POLLIN, 0}, {state.wake[0], POLLIN, 0}};
        const auto wait = trickling ? std::min(left, state.trickle) : left;
        if (poll(fds, 2, static_cast<int>(wait.count())) < 0 && errno != EINTR)
            break;
        if (fds[1].revents != 0)
            break;
        const int connection =
            fds[0].revents != 0 ? accept4(state.listener, nullptr, nullptr, SOCK_NONBLOCK) : -1;
        if (connection >= 0) {
            state.accepted.fetch_add(1);
            if (state.behaviour == Behaviour::Serving || state.behaviour == Behaviour::Verbatim) {
                serve(state, connection);
                close(connection);
            } else {
                const size_t first = trickling ? 0 : state.hello.size();
                send(connection, state.hello.data(), first, MSG_DONTWAIT | MSG_NOSIGNAL);
                held.push_back({connection, first});
            }
        }
        for (Held& connectionHeld : held) {
            if (trickling && connectionHeld.sent < state.hello.size() &&
                send(connectionHeld.fd, state.hello.data() + connectionHeld.sent, 1,
                     MSG_DONTWAIT | MSG_NOSIGNAL) == 1)
                ++connectionHeld.sent;
        }
    }
    for (const Held& connectionHeld : held)
        close(connectionHeld.fd);
}

void HostileLdap::serve(State& state, int connection) {
    const Clock::time_point end = Clock::now() + per_connection;
    Request request;
    while (read_request(connection, request, state.wake[0], end)) {
        constexpr unsigned char bind_request = 0x60, search_request = 0x63, unbind = 0x42;
        std::string reply;
        if (request.operation == bind_request)
            reply = message(request.messageId, result(0x61, 0));
        else if (request.operation == search_request && state.behaviour == Behaviour::Verbatim) {
            // The client reads to the end of what is sent, and no further.
            write_all(connection, state.verbatimReply, state.wake[0], end);
            shutdown(connection, SHUT_WR);
            return;
        } else if (request.operation == search_request)
            reply = message(request.messageId, state.entryContent) +
                    message(request.messageId, state.resultContent);
        else if (request.operation == unbind)
            return;
        if (!write_all(connection, reply, state.wake[0], end))
            return;
    }
}

BlackHole::BlackHole() {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (listener_ < 0 ||
        bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener_, 0) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0)
        return;
    port_ = ntohs(address.sin_port);
    // Fill the queue until a connection no longer completes.
    for (int filler = 0; filler < 64 && !full_; ++filler) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        fillers_.push_back(fd);
        const int rc = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        pollfd waiting{fd, POLLOUT, 0};
        full_ = rc != 0 && poll(&waiting, 1, 100) == 0;
    }
}

BlackHole::~BlackHole() {
    for (const int fd : fillers_)
        close(fd);
    if (listener_ >= 0)
        close(listener_);
}

std::string BlackHole::url(const std::string& name) const {
    return "ldap://127.0.0.1:" + std::to_string(port_) + "/cn=" + name;
}

} // namespace qxtest
