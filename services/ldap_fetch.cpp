// The layer's LDAP fetch callbacks on OpenLDAP's libldap: an anonymous read
// of the CRL attribute at a distribution point's LDAP URL. Every step has a
// deadline, so an unreachable or stalled directory costs at most the
// configured timeouts, and the bytes taken from one fetch are capped, so a
// directory cannot make the layer hold more than it allows. A fetch appends
// to the caller's list only when it succeeds as a whole.
#include <chrono>
#include <csignal>
#include <cstring>
#include <pthread.h>
#include <strings.h>

#include <ldap.h>

#include "qxlayer.h"

namespace {

constexpr char function_name[] = "qxldap_fetch_crldp";
constexpr char crl_binary[] = "certificateRevocationList;binary";
constexpr char crl_plain[] = "certificateRevocationList";
constexpr char any_entry[] = "(objectClass=*)";

// Room a message needs beyond its values: the DN, attribute names and the
// BER framing around them.
constexpr ber_len_t message_overhead = 1u << 20;

constexpr QxLdapFetchSettings default_settings{5000, 10000, 64u * 1024 * 1024};

constexpr CrlFetchCallbacks default_table{&default_settings, qxldap_is_url, qxldap_fetch_crldp};

using Clock = std::chrono::steady_clock;

// libldap writes to its socket with plain write(): a directory that drops
// the connection would raise SIGPIPE and end the host process. The signal is
// held back on this thread for the fetch, and one it caused is taken away.
class SigpipeBlock {
  public:
    SigpipeBlock() {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        alreadyPending_ = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &pipe_, &previous_);
    }
    ~SigpipeBlock() {
        sigset_t pending;
        sigpending(&pending);
        if (!alreadyPending_ && sigismember(&pending, SIGPIPE) == 1) {
            const timespec now{0, 0};
            sigtimedwait(&pipe_, nullptr, &now);
        }
        pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
    }
    SigpipeBlock(const SigpipeBlock&) = delete;
    SigpipeBlock& operator=(const SigpipeBlock&) = delete;

  private:
    sigset_t pipe_;
    sigset_t previous_;
    bool alreadyPending_ = false;
};

timeval to_timeval(std::chrono::microseconds span) {
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(span.count() / 1000000);
    tv.tv_usec = static_cast<suseconds_t>(span.count() % 1000000);
    return tv;
}

timeval milliseconds(uint32_t ms) {
    return to_timeval(std::chrono::milliseconds(ms));
}

// One operation's time; ldap_result is given what is left of it each time.
class Deadline {
  public:
    explicit Deadline(uint32_t ms) : end_(Clock::now() + std::chrono::milliseconds(ms)) {}
    // False once the time is up.
    bool remaining(timeval* tv) const {
        const auto left =
            std::chrono::duration_cast<std::chrono::microseconds>(end_ - Clock::now());
        if (left.count() <= 0)
            return false;
        *tv = to_timeval(left);
        return true;
    }

  private:
    Clock::time_point end_;
};

struct UrlDesc {
    UrlDesc() = default;
    UrlDesc(const UrlDesc&) = delete;
    UrlDesc& operator=(const UrlDesc&) = delete;
    ~UrlDesc() { ldap_free_urldesc(desc); }
    LDAPURLDesc* desc = nullptr;
};

// The connection; every way out of a fetch unbinds.
struct Session {
    Session() = default;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() {
        if (ld != nullptr)
            ldap_unbind_ext_s(ld, nullptr, nullptr);
    }
    LDAP* ld = nullptr;
};

struct Message {
    Message() = default;
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    ~Message() { ldap_msgfree(msg); }
    LDAPMessage* msg = nullptr;
};

struct Values {
    explicit Values(berval** values) : list(values) {}
    Values(const Values&) = delete;
    Values& operator=(const Values&) = delete;
    ~Values() { ldap_value_free_len(list); }
    berval** list;
};

// The nodes of one fetch, kept apart from the caller's list until the
// fetch is complete; released unless handed over.
class Chain {
  public:
    Chain(SecurityContext* ctx, uint32_t maxBytes) : ctx_(ctx), maxBytes_(maxBytes) {}
    Chain(const Chain&) = delete;
    Chain& operator=(const Chain&) = delete;
    ~Chain() { qxldap_free_list(ctx_, &head_); }

    StatusCode add(const berval& value) {
        // An empty value holds no CRL; there is nothing to hand on.
        if (value.bv_len == 0)
            return 0;
        if (value.bv_len > maxBytes_ - bytes_) {
            qxu_print_trace(ctx_, function_name, 5, "ldap: more than %u bytes of CRLs\n",
                            maxBytes_);
            return QXL_ERR_FETCH;
        }
        const auto length = static_cast<uint32_t>(value.bv_len);
        StatusCode status = 0;
        auto* node = static_cast<FetchedCrlNode*>(qxumalloc(ctx_, sizeof(FetchedCrlNode), &status));
        if (node == nullptr)
            return status;
        node->der = static_cast<unsigned char*>(qxumalloc(ctx_, length, &status));
        if (node->der == nullptr) {
            qxumfree(ctx_, &node);
            return status;
        }
        std::memcpy(node->der, value.bv_val, length);
        node->length = length;
        node->next = nullptr;
        *tail_ = node;
        tail_ = &node->next;
        bytes_ += length;
        return 0;
    }

    // Appends the nodes to the end of *list; the chain is empty afterwards.
    void hand_over(FetchedCrlNode** list) {
        FetchedCrlNode** end = list;
        while (*end != nullptr)
            end = &(*end)->next;
        *end = head_;
        head_ = nullptr;
        tail_ = &head_;
        bytes_ = 0;
    }

  private:
    SecurityContext* ctx_;
    uint32_t maxBytes_;
    uint32_t bytes_ = 0;
    FetchedCrlNode* head_ = nullptr;
    FetchedCrlNode** tail_ = &head_;
};

StatusCode failed(const SecurityContext* ctx, const char* step, const char* url, int rc) {
    qxu_print_trace(ctx, function_name, 5, "ldap: %s %s: %s\n", step, url, ldap_err2string(rc));
    return QXL_ERR_FETCH;
}

const QxLdapFetchSettings& settings_of(const SecurityContext* ctx) {
    // Settings are read only from a table whose fetch is this one: another
    // table's settings may be anything its own callbacks understand.
    const CrlFetchCallbacks* table = ctx->layerContext->crlFetchCallbacks;
    if (table != nullptr && table->settings != nullptr &&
        table->ldap_fetch_crldp == qxldap_fetch_crldp)
        return *static_cast<const QxLdapFetchSettings*>(table->settings);
    return default_settings;
}

// The URL's attributes when it names the CRL attribute, in either form, and
// both forms otherwise: a distribution point's URL often names none.
void requested_attributes(const LDAPURLDesc& url, char* attributes[3]) {
    int count = 0;
    for (char** named = url.lud_attrs; named != nullptr && *named != nullptr && count < 2;
         ++named) {
        if (strcasecmp(*named, crl_binary) == 0 || strcasecmp(*named, crl_plain) == 0)
            attributes[count++] = *named;
    }
    if (count == 0) {
        attributes[count++] = const_cast<char*>(crl_binary);
        attributes[count++] = const_cast<char*>(crl_plain);
    }
    attributes[count] = nullptr;
}

StatusCode connect(const SecurityContext* ctx, const char* url, const LDAPURLDesc& parsed,
                   const QxLdapFetchSettings& settings, Session& session) {
    // The distribution point names the directory itself; a URL without a
    // host would send the fetch to whatever libldap's own configuration
    // says, which is no directory the certificate named. ldapi:// without a
    // host is the local default socket.
    if ((parsed.lud_host == nullptr || parsed.lud_host[0] == '\0') &&
        strcasecmp(parsed.lud_scheme, "ldapi") != 0) {
        qxu_print_trace(ctx, function_name, 5, "ldap: no host in %s\n", url);
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
        qxu_print_trace(ctx, function_name, 5, "ldap: bad server in %s\n", url);
        return QXL_ERR_FETCH;
    }
    int rc = ldap_initialize(&session.ld, uri);
    ldap_memfree(uri);
    if (rc != LDAP_SUCCESS)
        return failed(ctx, "initialize", url, rc);

    const int version = LDAP_VERSION3;
    const timeval network = milliseconds(settings.networkTimeoutMs);
    const timeval operation = milliseconds(settings.operationTimeoutMs);
    // One message may hold at most what the fetch may take, so the cap holds
    // while the message is read, not only after.
    ber_len_t maxIncoming = static_cast<ber_len_t>(settings.maxBytes) + message_overhead;
    Sockbuf* sockbuf = nullptr;
    if ((rc = ldap_set_option(session.ld, LDAP_OPT_PROTOCOL_VERSION, &version)) !=
            LDAP_OPT_SUCCESS ||
        (rc = ldap_set_option(session.ld, LDAP_OPT_NETWORK_TIMEOUT, &network)) !=
            LDAP_OPT_SUCCESS ||
        (rc = ldap_set_option(session.ld, LDAP_OPT_TIMEOUT, &operation)) != LDAP_OPT_SUCCESS ||
        (rc = ldap_set_option(session.ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF)) != LDAP_OPT_SUCCESS ||
        (rc = ldap_get_option(session.ld, LDAP_OPT_SOCKBUF, &sockbuf)) != LDAP_OPT_SUCCESS ||
        ber_sockbuf_ctrl(sockbuf, LBER_SB_OPT_SET_MAX_INCOMING, &maxIncoming) != 1)
        return failed(ctx, "options for", url, rc != LDAP_OPT_SUCCESS ? rc : LDAP_OTHER);
    return 0;
}

StatusCode bind_anonymously(const SecurityContext* ctx, const char* url,
                            const QxLdapFetchSettings& settings, LDAP* ld) {
    const Deadline deadline(settings.operationTimeoutMs);
    berval empty{0, const_cast<char*>("")};
    int msgid = 0;
    // Connecting happens here, bounded by the network timeout.
    int rc = ldap_sasl_bind(ld, nullptr, LDAP_SASL_SIMPLE, &empty, nullptr, nullptr, &msgid);
    if (rc != LDAP_SUCCESS)
        return failed(ctx, "bind to", url, rc);
    timeval left{};
    Message reply;
    if (!deadline.remaining(&left) ||
        (rc = ldap_result(ld, msgid, LDAP_MSG_ALL, &left, &reply.msg)) == 0)
        return failed(ctx, "bind to", url, LDAP_TIMEOUT);
    if (rc < 0)
        return failed(ctx, "bind to", url, LDAP_SERVER_DOWN);
    int outcome = LDAP_OTHER;
    rc = ldap_parse_result(ld, reply.msg, &outcome, nullptr, nullptr, nullptr, nullptr, 0);
    if (rc != LDAP_SUCCESS || outcome != LDAP_SUCCESS)
        return failed(ctx, "bind to", url, rc != LDAP_SUCCESS ? rc : outcome);
    return 0;
}

// Reads the entries as they arrive, so the byte cap stops the fetch at the
// first value past it.
StatusCode search(SecurityContext* ctx, const char* url, const LDAPURLDesc& parsed,
                  const QxLdapFetchSettings& settings, LDAP* ld, Chain& chain) {
    const Deadline deadline(settings.operationTimeoutMs);
    char* attributes[3];
    requested_attributes(parsed, attributes);
    // Sent to the directory too, as its time limit.
    timeval limit = milliseconds(settings.operationTimeoutMs);
    int msgid = 0;
    int rc = ldap_search_ext(ld, parsed.lud_dn != nullptr ? parsed.lud_dn : "", parsed.lud_scope,
                             parsed.lud_filter != nullptr ? parsed.lud_filter : any_entry,
                             attributes, 0, nullptr, nullptr, &limit, LDAP_NO_LIMIT, &msgid);
    if (rc != LDAP_SUCCESS)
        return failed(ctx, "search of", url, rc);
    for (;;) {
        timeval left{};
        Message reply;
        if (!deadline.remaining(&left) ||
            (rc = ldap_result(ld, msgid, LDAP_MSG_ONE, &left, &reply.msg)) == 0)
            return failed(ctx, "search of", url, LDAP_TIMEOUT);
        if (rc < 0)
            return failed(ctx, "search of", url, LDAP_SERVER_DOWN);
        if (rc == LDAP_RES_SEARCH_RESULT) {
            int outcome = LDAP_OTHER;
            rc = ldap_parse_result(ld, reply.msg, &outcome, nullptr, nullptr, nullptr, nullptr, 0);
            if (rc != LDAP_SUCCESS || outcome != LDAP_SUCCESS)
                return failed(ctx, "search of", url, rc != LDAP_SUCCESS ? rc : outcome);
            return 0;
        }
        if (rc != LDAP_RES_SEARCH_ENTRY)
            continue; // references are not followed
        for (const char* name : {crl_binary, crl_plain}) {
            const Values values(ldap_get_values_len(ld, reply.msg, name));
            for (berval** value = values.list; value != nullptr && *value != nullptr; ++value) {
                const StatusCode status = chain.add(**value);
                if (status != 0)
                    return status;
            }
        }
    }
}

} // namespace

extern "C" void qxldap_default_settings(QxLdapFetchSettings* settings) {
    if (settings != nullptr)
        *settings = default_settings;
}

extern "C" int qxldap_is_url(const char* url) {
    if (url == nullptr)
        return 0;
    for (const char* scheme : {"ldap://", "ldaps://", "ldapi://"}) {
        if (strncasecmp(url, scheme, std::strlen(scheme)) == 0)
            return 1;
    }
    return 0;
}

extern "C" StatusCode qxldap_fetch_crldp(SecurityContext* ctx, const char* url,
                                         FetchedCrlNode** list) {
    if (ctx == nullptr || ctx->layerContext == nullptr || url == nullptr || list == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    const QxLdapFetchSettings& settings = settings_of(ctx);
    UrlDesc parsed;
    const int rc = ldap_url_parse(url, &parsed.desc);
    if (rc != LDAP_URL_SUCCESS) {
        qxu_print_trace(ctx, function_name, 5, "ldap: cannot parse %s (%d)\n", url, rc);
        return QXL_ERR_FETCH;
    }
    const SigpipeBlock quiet; // outlives the session, whose end also writes
    Session session;
    StatusCode status = connect(ctx, url, *parsed.desc, settings, session);
    if (status == 0)
        status = bind_anonymously(ctx, url, settings, session.ld);
    Chain chain(ctx, settings.maxBytes);
    if (status == 0)
        status = search(ctx, url, *parsed.desc, settings, session.ld, chain);
    if (status == 0)
        chain.hand_over(list);
    return status;
}

extern "C" const CrlFetchCallbacks* qxldap_fetch_callbacks(void) {
    return &default_table;
}

extern "C" void qxlayer_set_fetch_callbacks(SecurityContext* ctx, const CrlFetchCallbacks* table) {
    if (ctx != nullptr && ctx->layerContext != nullptr)
        ctx->layerContext->crlFetchCallbacks = table;
}

extern "C" void qxldap_free_list(SecurityContext* ctx, FetchedCrlNode** list) {
    if (list == nullptr)
        return;
    while (FetchedCrlNode* node = *list) {
        *list = node->next;
        qxumfree(ctx, &node->der);
        qxumfree(ctx, &node);
    }
}
