// A connection to the directory a distribution point names, bound
// anonymously. Connecting and the TLS handshake are bounded by the network
// timeout, the bind by the operation timeout, and both by the walk's
// deadline; every read and write waits at most until the end of the step
// under way. The bytes received are counted so that each message the
// directory sends can be charged for the memory it takes.
#ifndef QXCRL_SERVICES_LDAP_SESSION_H
#define QXCRL_SERVICES_LDAP_SESSION_H

#include <ldap.h>

#include "fetch_deadline.h"
#include "ldap_framing.h"
#include "qxlayer.h"

namespace qxldap {

using qxfetch::Clock;
using qxfetch::Deadline;
using qxfetch::to_timeval;

// A message from the directory, released with its holder.
struct Message {
    Message() = default;
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    ~Message() { ldap_msgfree(msg); }
    LDAPMessage* msg = nullptr;
};

class Session {
  public:
    Session() = default;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    // Every way out of a fetch unbinds.
    ~Session();

    // Connects to the server in parsed (scheme, host and port only) and
    // binds anonymously; messages may be at most maxIncoming bytes long.
    // QXL_ERR_FETCH, traced under url, when it cannot.
    StatusCode open(const SecurityContext* ctx, const char* url, const LDAPURLDesc& parsed,
                    const QxLdapFetchSettings& settings, Clock::time_point walkEnd,
                    uint64_t maxIncoming);

    LDAP* ld() const { return ld_; }

    // No read from or write to the directory waits past step's end.
    void bound_io_by(const Deadline& step) { guard_.step = step; }

    // Sets the longest message the directory may send from now on; false
    // when libldap refuses.
    bool limit_incoming(uint64_t bytes);

    // Bytes received since the last call.
    uint64_t take_received();

    // What the layer below TLS keeps: the deadline of the step under way
    // and the bytes received.
    struct Guard {
        Deadline step{0, Clock::time_point::min()};
        uint64_t received = 0;
    };

  private:
    StatusCode initialize(const SecurityContext* ctx, const char* url, const LDAPURLDesc& parsed,
                          const QxLdapFetchSettings& settings, Clock::time_point walkEnd,
                          uint64_t maxIncoming);
    StatusCode bind(const SecurityContext* ctx, const char* url,
                    const QxLdapFetchSettings& settings, Clock::time_point walkEnd);

    LDAP* ld_ = nullptr;
    // ld_'s sockbuf points to both; the destructor unbinds first.
    Guard guard_;
    FramingCheck framing_;
};

} // namespace qxldap

#endif
