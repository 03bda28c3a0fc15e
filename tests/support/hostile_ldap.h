// Misbehaving LDAP servers on 127.0.0.1 for tests of the fetch's bounds.
//
// HostileLdap runs one listener on a thread of its own and behaves in one of
// four ways: it accepts and never says a word; it accepts what a client
// takes for an ldaps:// port and never finishes the TLS handshake (sending
// nothing, the first bytes of a ServerHello, or a ServerHello byte by byte
// far apart); it answers the bind and a search with one entry carrying many
// values of certificateRevocationList;binary, then a result; or it answers
// the bind, then the search with bytes that may be anything. Every wait it makes is
// bounded, and it stops by itself after its lifetime even if nobody stops it.
//
// BlackHole is a port whose listen queue is full, so a connect to it never
// completes.
#ifndef QXCRL_TESTS_SUPPORT_HOSTILE_LDAP_H
#define QXCRL_TESTS_SUPPORT_HOSTILE_LDAP_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace qxtest {

class HostileLdap {
  public:
    using Bytes = std::vector<unsigned char>;

    // Accepts connections and holds them open without reading or writing.
    static HostileLdap silent();
    // Accepts, sends the first helloBytes bytes of a TLS ServerHello (0: not
    // a byte), then nothing.
    static HostileLdap stalled_handshake(size_t helloBytes);
    // Accepts and sends a TLS ServerHello one byte every interval, so that
    // no single read ever waits long.
    static HostileLdap trickling_handshake(std::chrono::milliseconds interval);
    // Answers every bind with success and every search with one entry
    // whose certificateRevocationList;binary holds values, in order, copies
    // times over, then a search result with resultCode (0: success).
    static HostileLdap serving(const std::vector<Bytes>& values, size_t copies = 1,
                               int resultCode = 0);
    // The same with an entry whose attribute list holds attributes: BER
    // that may be anything.
    static HostileLdap serving_attributes(const std::string& attributes, int resultCode = 0);
    // Answers every bind with success and the first search with reply as
    // it stands (whole LDAPMessages, their IDs included, or not), then
    // ends the connection.
    static HostileLdap answering_verbatim(const std::string& reply);

    // BER to build attributes with: one element, and a PartialAttribute.
    static std::string tlv(unsigned char tag, const std::string& content);
    static std::string attribute(const std::string& type, const std::vector<Bytes>& values);

    // Stops the thread and closes every connection.
    ~HostileLdap();
    HostileLdap(HostileLdap&& other) noexcept;
    HostileLdap(const HostileLdap&) = delete;
    HostileLdap& operator=(const HostileLdap&) = delete;
    HostileLdap& operator=(HostileLdap&&) = delete;

    uint16_t port() const { return port_; }
    // scheme://127.0.0.1:port/cn=<name>?certificateRevocationList;binary
    std::string url(const std::string& name = "crl", const std::string& scheme = "ldap") const;
    // Connections accepted so far.
    size_t accepted() const { return state_->accepted.load(); }

    // How long the thread runs at most, and how long it gives one
    // connection that it serves.
    static constexpr auto lifetime = std::chrono::seconds(60);
    static constexpr auto per_connection = std::chrono::seconds(10);

  private:
    enum class Behaviour { Silent, StalledHandshake, Serving, Verbatim };
    struct State {
        Behaviour behaviour = Behaviour::Silent;
        int listener = -1;
        int wake[2] = {-1, -1};
        std::string hello;                    // what a handshake sends
        std::chrono::milliseconds trickle{0}; // 0: all of it at once
        std::string entryContent;             // the entry, its message ID left out
        std::string resultContent;            // the search result, likewise
        std::string verbatimReply;            // Verbatim: the search's whole answer
        std::atomic<size_t> accepted{0};
    };

    explicit HostileLdap(std::unique_ptr<State> state);
    static std::unique_ptr<State> listening(Behaviour behaviour);
    static void run(State& state);
    static void serve(State& state, int connection);

    std::unique_ptr<State> state_;
    std::thread thread_;
    uint16_t port_ = 0;
};

// A port on 127.0.0.1 that accepts no more connections: its listener's
// queue is full and never drained, so the kernel drops further attempts
// and a client's connect waits until it gives up.
class BlackHole {
  public:
    BlackHole();
    ~BlackHole();
    BlackHole(const BlackHole&) = delete;
    BlackHole& operator=(const BlackHole&) = delete;
    uint16_t port() const { return port_; }
    bool full() const { return full_; }
    std::string url(const std::string& name = "crl") const;

  private:
    int listener_ = -1;
    uint16_t port_ = 0;
    bool full_ = false;
    std::vector<int> fillers_;
};

} // namespace qxtest

#endif
