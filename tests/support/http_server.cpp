#include "http_server.h"

#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "socket_waits.h"

namespace qxtest {

namespace {

// No request of the fetch's comes near this; anything longer is not one.
constexpr size_t longest_request = 1u << 16;
// What an endless body sends at a time.
constexpr size_t endless_chunk = 1u << 16;

// The request's header block, up to and with its blank line; empty when
// none arrives whole in time.
std::string read_request(int fd, int wake, ServerClock::time_point deadline) {
    std::string request;
    char buffer[4096];
    while (request.find("\r\n\r\n") == std::string::npos) {
        if (request.size() > longest_request || !ready(fd, POLLIN, wake, deadline))
            return {};
        const ssize_t got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR))
            return {};
        if (got > 0)
            request.append(buffer, static_cast<size_t>(got));
    }
    return request;
}

// The request target: what stands between the method and the version.
std::string target_of(const std::string& request) {
    const size_t first = request.find(' ');
    const size_t second = first == std::string::npos ? first : request.find(' ', first + 1);
    return second == std::string::npos ? std::string()
                                       : request.substr(first + 1, second - first - 1);
}

std::string head_of(const HttpResponse& response) {
    std::string head = "HTTP/1.1 " + std::to_string(response.status) + " Test\r\n";
    for (const auto& [name, value] : response.headers)
        head += name + ": " + value + "\r\n";
    if (!response.noLength && !response.endless)
        head += "Content-Length: " +
                std::to_string(response.claimedLength.value_or(response.body.size())) + "\r\n";
    return head + "Connection: close\r\n\r\n";
}

// Sleeps for interval unless the server is told to stop first.
bool pause(std::chrono::milliseconds interval, int wake) {
    pollfd stop{wake, POLLIN, 0};
    return poll(&stop, 1, static_cast<int>(interval.count())) == 0;
}

void send_body(int fd, const HttpResponse& response, int wake, ServerClock::time_point deadline) {
    if (response.endless) {
        std::string chunk;
        while (!response.body.empty() && chunk.size() < endless_chunk)
            chunk += response.body;
        while (!chunk.empty() && write_all(fd, chunk, wake, deadline)) {
        }
        return;
    }
    if (response.trickle.count() == 0) {
        write_all(fd, response.body, wake, deadline);
        return;
    }
    for (const char byte : response.body) {
        if (!pause(response.trickle, wake) || !write_all(fd, std::string(1, byte), wake, deadline))
            return;
    }
}

} // namespace

HttpResponse HttpResponse::ok(const std::string& body) {
    HttpResponse response;
    response.body = body;
    return response;
}

HttpResponse HttpResponse::ok(const std::vector<unsigned char>& body) {
    return ok(std::string(body.begin(), body.end()));
}

HttpResponse HttpResponse::error(int status) {
    HttpResponse response;
    response.status = status;
    response.body = "status " + std::to_string(status) + "\n";
    return response;
}

HttpResponse HttpResponse::redirect(const std::string& location, int status) {
    HttpResponse response;
    response.status = status;
    response.headers = {{"Location", location}};
    return response;
}

HttpServer::HttpServer(const std::string& address)
    : state_(std::make_unique<State>()), address_(address) {
    state_->listener = listen_on(address.c_str(), state_->wake);
    port_ = bound_port(state_->listener);
    thread_ = std::thread(run, std::ref(*state_));
}

HttpServer::~HttpServer() {
    const char stop = 's';
    // Should the pipe refuse the byte, the thread still ends at its lifetime.
    [[maybe_unused]] const ssize_t woken = write(state_->wake[1], &stop, 1);
    thread_.join();
    for (const int fd : {state_->listener, state_->wake[0], state_->wake[1]})
        close(fd);
}

void HttpServer::set(const std::string& target, const HttpResponse& response) {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    state_->responses[target] = response;
}

std::string HttpServer::url(const std::string& path, const std::string& scheme) const {
    return scheme + "://" + address_ + ":" + std::to_string(port_) + path;
}

std::vector<std::string> HttpServer::requests() const {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->requests;
}

void HttpServer::run(State& state) {
    const ServerClock::time_point end = ServerClock::now() + lifetime;
    while (ready(state.listener, POLLIN, state.wake[0], end)) {
        const int connection = accept4(state.listener, nullptr, nullptr, SOCK_NONBLOCK);
        if (connection < 0)
            continue;
        state.accepted.fetch_add(1);
        serve(state, connection);
        close(connection);
    }
}

void HttpServer::serve(State& state, int connection) {
    const ServerClock::time_point end = ServerClock::now() + per_connection;
    const std::string request = read_request(connection, state.wake[0], end);
    if (request.empty())
        return;
    HttpResponse response = HttpResponse::error(404);
    {
        const std::lock_guard<std::mutex> lock(state.mutex);
        state.requests.push_back(request.substr(0, request.find("\r\n\r\n") + 4));
        const auto found = state.responses.find(target_of(request));
        if (found != state.responses.end())
            response = found->second;
    }
    if (write_all(connection, head_of(response), state.wake[0], end))
        send_body(connection, response, state.wake[0], end);
    shutdown(connection, SHUT_WR);
}

} // namespace qxtest
