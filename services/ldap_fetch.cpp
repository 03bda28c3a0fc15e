// The layer's LDAP fetch callbacks on OpenLDAP's libldap: an anonymous read
// of the CRL attribute at a distribution point's LDAP URL. Every step has a
// deadline and so has the walk over a certificate's points; the memory the
// fetched CRLs take, with the message they come in, and the number of
// values are capped for the walk as a whole, so that a directory can make
// the layer neither wait nor hold more than it allows. A fetch appends to
// the caller's list only when it succeeds as a whole.
#include <cstring>
#include <strings.h>

#include "fetch_chain.h"
#include "ldap_crl_values.h"
#include "ldap_session.h"
#include "ldap_settings.h"
#include "ldap_trace.h"
#include "sigpipe_block.h"
#include "url_scheme.h"

using namespace qxldap;
using qxfetch::Budget;
using qxfetch::Chain;

namespace {

constexpr char any_entry[] = "(objectClass=*)";

// What libldap keeps for one message beside its bytes: the message and its
// BER elements, the buffer's allocator share, and the tag and length read
// ahead of the buffer.
constexpr uint64_t message_bookkeeping = 1024;
// The tag and length octets that a message's length does not count.
constexpr uint64_t message_header = 16;
constexpr uint64_t message_overhead = message_bookkeeping + message_header;

constexpr qxfetch::Tracing tracing{function_name, "ldap"};

// The values of an entry go to the fetch's chain.
class ChainSink final : public CrlValueSink {
  public:
    explicit ChainSink(Chain& chain) : chain_(chain) {}
    StatusCode take(const berval& value) override {
        return chain_.take(reinterpret_cast<const unsigned char*>(value.bv_val), value.bv_len);
    }

  private:
    Chain& chain_;
};

struct UrlDesc {
    UrlDesc() = default;
    UrlDesc(const UrlDesc&) = delete;
    UrlDesc& operator=(const UrlDesc&) = delete;
    ~UrlDesc() { ldap_free_urldesc(desc); }
    LDAPURLDesc* desc = nullptr;
};

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

// Reads the entries one message at a time, each no longer than what is left
// of the budget, so the caps stop the fetch at the first message or value
// past them.
StatusCode search(SecurityContext* ctx, const char* url, const LDAPURLDesc& parsed,
                  const QxLdapFetchSettings& settings, Clock::time_point walkEnd, Session& session,
                  Chain& chain) {
    const Deadline deadline(settings.operationTimeoutMs, walkEnd);
    session.bound_io_by(deadline);
    char* attributes[3];
    requested_attributes(parsed, attributes);
    // Sent to the directory too, as its time limit.
    timeval limit = to_timeval(std::chrono::milliseconds(settings.operationTimeoutMs));
    int msgid = 0;
    int rc = ldap_search_ext(session.ld(), parsed.lud_dn != nullptr ? parsed.lud_dn : "",
                             parsed.lud_scope,
                             parsed.lud_filter != nullptr ? parsed.lud_filter : any_entry,
                             attributes, 0, nullptr, nullptr, &limit, LDAP_NO_LIMIT, &msgid);
    if (rc != LDAP_SUCCESS)
        return failed(ctx, "search of", url, rc);
    session.take_received(); // the handshake and the bind are no entry's
    for (;;) {
        const uint64_t room = chain.room(message_overhead);
        if (room == 0)
            return chain.over_bytes();
        if (!session.limit_incoming(room))
            return failed(ctx, "options for", url, LDAP_OTHER);
        timeval left{};
        Message reply;
        if (!deadline.remaining(&left) ||
            (rc = ldap_result(session.ld(), msgid, LDAP_MSG_ONE, &left, &reply.msg)) == 0)
            return failed(ctx, "search of", url, LDAP_TIMEOUT);
        if (rc < 0)
            return failed(ctx, "search of", url, LDAP_SERVER_DOWN);
        const uint64_t received = session.take_received();
        if (rc == LDAP_RES_SEARCH_RESULT) {
            int outcome = LDAP_OTHER;
            rc = ldap_parse_result(session.ld(), reply.msg, &outcome, nullptr, nullptr, nullptr,
                                   nullptr, 0);
            if (rc != LDAP_SUCCESS || outcome != LDAP_SUCCESS)
                return failed(ctx, "search of", url, rc != LDAP_SUCCESS ? rc : outcome);
            return 0;
        }
        if (rc != LDAP_RES_SEARCH_ENTRY)
            continue; // references are not followed
        StatusCode status = chain.hold(received + message_bookkeeping);
        ChainSink sink(chain);
        if (status == 0)
            status = read_crl_values(ctx, url, session.ld(), reply.msg, sink);
        if (status != 0)
            return status;
        chain.release(); // reply goes with this turn of the loop
    }
}

StatusCode fetch(SecurityContext* ctx, const char* url, const QxLdapFetchSettings& settings,
                 Budget& budget, FetchedCrlNode** list) {
    if (Clock::now() >= budget.deadline) {
        qxu_print_trace(ctx, function_name, trace_level, "ldap: no time left for %s\n", url);
        return QXL_ERR_FETCH;
    }
    UrlDesc parsed;
    const int rc = ldap_url_parse(url, &parsed.desc);
    if (rc != LDAP_URL_SUCCESS) {
        qxu_print_trace(ctx, function_name, trace_level, "ldap: cannot parse %s (%d)\n", url, rc);
        return QXL_ERR_FETCH;
    }
    Chain chain(ctx, tracing, budget);
    const uint64_t room = chain.room(message_overhead);
    if (room == 0)
        return chain.over_bytes();
    const qxfetch::SigpipeBlock quiet; // outlives the session, whose end also writes
    Session session;
    StatusCode status = session.open(ctx, url, *parsed.desc, settings, budget.deadline, room);
    if (status == 0)
        status = search(ctx, url, *parsed.desc, settings, budget.deadline, session, chain);
    if (status == 0)
        chain.hand_over(list);
    return status;
}

} // namespace

extern "C" int qxldap_is_url(const char* url) {
    return qxfetch::has_scheme(url, {"ldap://", "ldaps://", "ldapi://"});
}

extern "C" StatusCode qxldap_fetch_crldp(SecurityContext* ctx, const char* url,
                                         FetchedCrlNode** list) {
    if (ctx == nullptr || ctx->layerContext == nullptr || url == nullptr || list == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    const QxLdapFetchSettings& settings = settings_of(ctx);
    return qxfetch::in_walk(
        ctx, [&](Budget& budget) { return fetch(ctx, url, settings, budget, list); });
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
