// An HTTP/1.1 server on a loopback address for tests of the HTTP fetch.
//
// HttpServer runs one listener on a thread of its own and answers each
// request by its request target (the path, or the whole URL when it is asked
// as a proxy) with the response set for it, 404 for any other, and closes
// the connection after every answer. A response may be sent whole, claim a
// Content-Length it does not keep, trickle its body a byte at a time, or
// send a body that never ends. The requests' header blocks are kept for the
// test to read. Every wait it makes is bounded, and it stops by itself after
// its lifetime even if nobody stops it.
#ifndef QXCRL_TESTS_SUPPORT_HTTP_SERVER_H
#define QXCRL_TESTS_SUPPORT_HTTP_SERVER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace qxtest {

struct HttpResponse {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers; // beside Content-Length
    std::string body;
    // Sent as Content-Length instead of the body's own length.
    std::optional<size_t> claimedLength;
    // No Content-Length: the body ends when the connection does.
    bool noLength = false;
    // The body one byte every interval; 0 sends it at once.
    std::chrono::milliseconds trickle{0};
    // The body sent over and over until the client goes away.
    bool endless = false;

    // 200 with body.
    static HttpResponse ok(const std::string& body);
    static HttpResponse ok(const std::vector<unsigned char>& body);
    // status with a short text body.
    static HttpResponse error(int status);
    // status with a Location header.
    static HttpResponse redirect(const std::string& location, int status = 302);
};

class HttpServer {
  public:
    // Listens on address (a loopback IPv4 address) at a port of the kernel's choice.
    explicit HttpServer(const std::string& address = "127.0.0.1");
    // Stops the thread and closes the connection being served.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // The answer to requests for target from now on.
    void set(const std::string& target, const HttpResponse& response);

    uint16_t port() const { return port_; }
    // scheme://address:port + path
    std::string url(const std::string& path, const std::string& scheme = "http") const;
    // Connections accepted so far.
    size_t accepted() const { return state_->accepted.load(); }
    // The header block of every request read so far, in order.
    std::vector<std::string> requests() const;

    // How long the thread runs at most, and how long it gives one connection.
    static constexpr auto lifetime = std::chrono::seconds(60);
    static constexpr auto per_connection = std::chrono::seconds(20);

  private:
    struct State {
        int listener = -1;
        int wake[2] = {-1, -1};
        std::atomic<size_t> accepted{0};
        mutable std::mutex mutex; // guards the two below
        std::map<std::string, HttpResponse> responses;
        std::vector<std::string> requests;
    };

    static void run(State& state);
    static void serve(State& state, int connection);

    std::unique_ptr<State> state_;
    std::string address_;
    uint16_t port_ = 0;
    std::thread thread_;
};

} // namespace qxtest

#endif
