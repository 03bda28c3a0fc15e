#include "ldap_session.h"

#include <cerrno>
#include <poll.h>
#include <strings.h>

#include "ldap_trace.h"

namespace {

using qxldap::Deadline;
using qxldap::failed;
using qxldap::Message;
using Guard = qxldap::Session::Guard;

// libldap 2.5 does not bound the TLS handshake. With a network timeout it
// turns the socket non-blocking and retries the handshake in a loop that
// never looks at the clock: a server that stalls spins the fetch as long as
// it likes. With LDAP_OPT_CONNECT_ASYNC the loop polls within the timeout,
// but the first poll that succeeds turns the socket back to blocking, and
// the next read waits for good. So a layer of our own sits on the socket,
// under TLS: every read and write first waits, in poll(), within the
// deadline of the step under way, and fails once it has passed. It also
// counts the bytes received, so that a message is charged for what it took.
bool ready(Sockbuf_IO_Desc* sbiod, short events) {
    const auto& guard = *static_cast<const Guard*>(sbiod->sbiod_pvt);
    int fd = -1;
    if (ber_sockbuf_ctrl(sbiod->sbiod_sb, LBER_SB_OPT_GET_FD, &fd) != 1)
        return true; // no socket: let the layer below report it
    for (;;) {
        const int wait = guard.step.milliseconds_left();
        if (wait == 0) {
            errno = ETIMEDOUT;
            return false;
        }
        pollfd socket{fd, events, 0};
        const int rc = poll(&socket, 1, wait);
        if (rc > 0)
            return true; // data, room, an error or the end: the layer below tells which
        if (rc < 0 && errno != EINTR)
            return false;
    }
}

// Both layers of our own keep their state where the session says.
int guard_setup(Sockbuf_IO_Desc* sbiod, void* state) {
    sbiod->sbiod_pvt = state;
    return 0;
}

int guard_ctrl(Sockbuf_IO_Desc* sbiod, int option, void* argument) {
    return LBER_SBIOD_CTRL_NEXT(sbiod, option, argument);
}

ber_slen_t guard_read(Sockbuf_IO_Desc* sbiod, void* buffer, ber_len_t length) {
    if (!ready(sbiod, POLLIN))
        return -1;
    const ber_slen_t got = LBER_SBIOD_READ_NEXT(sbiod, buffer, length);
    if (got > 0)
        static_cast<Guard*>(sbiod->sbiod_pvt)->received += static_cast<uint64_t>(got);
    return got;
}

ber_slen_t guard_write(Sockbuf_IO_Desc* sbiod, void* buffer, ber_len_t length) {
    if (!ready(sbiod, POLLOUT))
        return -1;
    return LBER_SBIOD_WRITE_NEXT(sbiod, buffer, length);
}

Sockbuf_IO guard_io = {guard_setup, nullptr, guard_ctrl, guard_read, guard_write, nullptr};

// Above the socket's own layer, below TLS.
constexpr int guard_level = LBER_SBIOD_LEVEL_PROVIDER + 1;

// Above TLS, where the bytes are the directory's messages: a stream that
// stops framing as LDAPMessages fails the read, so libldap never parses it.
ber_slen_t framing_read(Sockbuf_IO_Desc* sbiod, void* buffer, ber_len_t length) {
    const ber_slen_t got = LBER_SBIOD_READ_NEXT(sbiod, buffer, length);
    auto& check = *static_cast<qxldap::FramingCheck*>(sbiod->sbiod_pvt);
    if (got > 0 &&
        !check.take(static_cast<const unsigned char*>(buffer), static_cast<size_t>(got))) {
        errno = EPROTO;
        return -1;
    }
    return got;
}

ber_slen_t framing_write(Sockbuf_IO_Desc* sbiod, void* buffer, ber_len_t length) {
    return LBER_SBIOD_WRITE_NEXT(sbiod, buffer, length);
}

Sockbuf_IO framing_io = {guard_setup, nullptr, guard_ctrl, framing_read, framing_write, nullptr};

Sockbuf* sockbuf_of(LDAP* ld) {
    Sockbuf* sockbuf = nullptr;
    return ldap_get_option(ld, LDAP_OPT_SOCKBUF, &sockbuf) == LDAP_OPT_SUCCESS ? sockbuf : nullptr;
}

} // namespace

namespace qxldap {

Session::~Session() {
    if (ld_ != nullptr)
        ldap_unbind_ext_s(ld_, nullptr, nullptr);
}

bool Session::limit_incoming(uint64_t bytes) {
    Sockbuf* sockbuf = sockbuf_of(ld_);
    ber_len_t limit = static_cast<ber_len_t>(bytes);
    // libldap reads 0 as no limit at all.
    return sockbuf != nullptr && limit > 0 &&
           ber_sockbuf_ctrl(sockbuf, LBER_SB_OPT_SET_MAX_INCOMING, &limit) == 1;
}

uint64_t Session::take_received() {
    const uint64_t received = guard_.received;
    guard_.received = 0;
    return received;
}

StatusCode Session::open(const SecurityContext* ctx, const char* url, const LDAPURLDesc& parsed,
                         const QxLdapFetchSettings& settings, Clock::time_point walkEnd,
                         uint64_t maxIncoming) {
    const StatusCode status = initialize(ctx, url, parsed, settings, walkEnd, maxIncoming);
    return status != 0 ? status : bind(ctx, url, settings, walkEnd);
}

StatusCode Session::initialize(const SecurityContext* ctx, const char* url,
                               const LDAPURLDesc& parsed, const QxLdapFetchSettings& settings,
                               Clock::time_point walkEnd, uint64_t maxIncoming) {
    // The distribution point names the directory itself; a URL without a
    // host would send the fetch to whatever libldap's own configuration
    // says, which is no directory the certificate named. ldapi:// without a
    // host is the local default socket.
    if ((parsed.lud_host == nullptr || parsed.lud_host[0] == '\0') &&
        strcasecmp(parsed.lud_scheme, "ldapi") != 0) {
        qxu_print_trace(ctx, function_name, trace_level, "ldap: no host in %s\n", url);
        return QXL_ERR_FETCH;
    }
    // Only the scheme, host and port: libldap escapes the host (an IPv6
    // address, a socket path) itself.
    LDAPURLDesc server{};
    server.lud_scheme = parsed.lud_scheme;
    server.lud_host = parsed.lud_host;
    server.lud_port = parsed.lud_port;
    server.lud_scope = LDAP_SCOPE_DEFAULT;
    char* uri = ldap_url_desc2str(&server);
    if (uri == nullptr) {
        qxu_print_trace(ctx, function_name, trace_level, "ldap: bad server in %s\n", url);
        return QXL_ERR_FETCH;
    }
    int rc = ldap_initialize(&ld_, uri);
    ldap_memfree(uri);
    if (rc != LDAP_SUCCESS)
        return failed(ctx, "initialize", url, rc);

    const int version = LDAP_VERSION3;
    timeval network{};
    if (!Deadline(settings.networkTimeoutMs, walkEnd).remaining(&network))
        return failed(ctx, "connect to", url, LDAP_TIMEOUT);
    const timeval operation = to_timeval(std::chrono::milliseconds(settings.operationTimeoutMs));
    Sockbuf* sockbuf = nullptr;
    if ((rc = ldap_set_option(ld_, LDAP_OPT_PROTOCOL_VERSION, &version)) != LDAP_OPT_SUCCESS ||
        (rc = ldap_set_option(ld_, LDAP_OPT_NETWORK_TIMEOUT, &network)) != LDAP_OPT_SUCCESS ||
        (rc = ldap_set_option(ld_, LDAP_OPT_TIMEOUT, &operation)) != LDAP_OPT_SUCCESS ||
        (rc = ldap_set_option(ld_, LDAP_OPT_REFERRALS, LDAP_OPT_OFF)) != LDAP_OPT_SUCCESS ||
        (sockbuf = sockbuf_of(ld_)) == nullptr)
        return failed(ctx, "options for", url, rc != LDAP_OPT_SUCCESS ? rc : LDAP_OTHER);
    // The connection, when libldap makes it, uses this sockbuf and puts its
    // socket and TLS layers under and over the guard, and under the framing check. Even the bind's
    // answer may take at most what is left of the budget.
    if (ber_sockbuf_add_io(sockbuf, &guard_io, guard_level, &guard_) != 0 ||
        ber_sockbuf_add_io(sockbuf, &framing_io, LBER_SBIOD_LEVEL_APPLICATION, &framing_) != 0 ||
        !limit_incoming(maxIncoming))
        return failed(ctx, "options for", url, LDAP_OTHER);
    return 0;
}

StatusCode Session::bind(const SecurityContext* ctx, const char* url,
                         const QxLdapFetchSettings& settings, Clock::time_point walkEnd) {
    berval empty{0, const_cast<char*>("")};
    int msgid = 0;
    // Connecting and the TLS handshake happen here: libldap bounds the
    // connect by its network timeout, the guard the handshake.
    bound_io_by(Deadline(settings.networkTimeoutMs, walkEnd));
    int rc = ldap_sasl_bind(ld_, nullptr, LDAP_SASL_SIMPLE, &empty, nullptr, nullptr, &msgid);
    if (rc != LDAP_SUCCESS)
        return failed(ctx, "bind to", url, rc);
    const Deadline deadline(settings.operationTimeoutMs, walkEnd);
    bound_io_by(deadline);
    timeval left{};
    Message reply;
    if (!deadline.remaining(&left) ||
        (rc = ldap_result(ld_, msgid, LDAP_MSG_ALL, &left, &reply.msg)) == 0)
        return failed(ctx, "bind to", url, LDAP_TIMEOUT);
    if (rc < 0)
        return failed(ctx, "bind to", url, LDAP_SERVER_DOWN);
    int outcome = LDAP_OTHER;
    rc = ldap_parse_result(ld_, reply.msg, &outcome, nullptr, nullptr, nullptr, nullptr, 0);
    if (rc != LDAP_SUCCESS || outcome != LDAP_SUCCESS)
        return failed(ctx, "bind to", url, rc != LDAP_SUCCESS ? rc : outcome);
    return 0;
}

} // namespace qxldap
