// The budget of a walk over a certificate's distribution points: one
// deadline, one memory cap and one cap on the CRLs read, with what the
// walk's fetches have taken so far, for LDAP and HTTP fetches alike. The
// caps are the walk settings' when the walk begins. Walks are kept per
// thread, keyed by the SecurityContext that began them; a fetch outside a
// walk has a budget of its own.
#ifndef QXCRL_SERVICES_FETCH_WALK_H
#define QXCRL_SERVICES_FETCH_WALK_H

#include "fetch_deadline.h"
#include "qxlayer.h"

namespace qxfetch {

struct Budget {
    Clock::time_point deadline;
    uint32_t maxBytes = 0;  // memory the walk may hold
    uint32_t maxValues = 0; // CRLs the walk may read
    uint64_t bytes = 0;     // memory held by the CRLs handed over so far
    uint64_t values = 0;    // CRLs read by the fetches that succeeded
};

// A budget under the walk bounds of ctx's settings that starts now.
Budget fresh_budget(const SecurityContext* ctx);

// The budget of ctx's walk on this thread; nullptr when ctx is in none.
Budget* walk_budget(const SecurityContext* ctx);

// fetch(budget) with the budget of ctx's walk on this thread, or with a
// fresh one when ctx is in none: a fetch outside a walk is a walk of its own.
template <typename Fetch> StatusCode in_walk(const SecurityContext* ctx, Fetch fetch) {
    if (Budget* walk = walk_budget(ctx))
        return fetch(*walk);
    Budget own = fresh_budget(ctx);
    return fetch(own);
}

} // namespace qxfetch

#endif
