// The budget of a walk over a certificate's distribution points: one
// deadline, and the memory and values its fetches have taken. Walks are
// kept per thread, keyed by the SecurityContext that began them; a fetch
// outside a walk has a budget of its own.
#ifndef QXCRL_SERVICES_LDAP_WALK_H
#define QXCRL_SERVICES_LDAP_WALK_H

#include "ldap_deadline.h"
#include "qxlayer.h"

namespace qxldap {

struct Budget {
    Clock::time_point deadline;
    uint64_t bytes = 0;  // memory held by the CRLs handed over so far
    uint64_t values = 0; // values read by the fetches that succeeded
};

// A budget that starts now.
Budget fresh_budget(const QxLdapFetchSettings& settings);

// The budget of ctx's walk on this thread; nullptr when ctx is in none.
Budget* walk_budget(const SecurityContext* ctx);

} // namespace qxldap

#endif
