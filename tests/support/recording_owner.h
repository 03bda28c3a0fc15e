// A cache owner for tests whose addCrl records what it was given and answers
// as told. One owner at a time: the record of calls is shared.
#ifndef QXCRL_TESTS_SUPPORT_RECORDING_OWNER_H
#define QXCRL_TESTS_SUPPORT_RECORDING_OWNER_H

#include <utility>
#include <vector>

#include "qxcrl.h"

namespace qxtest {

struct Owner {
    static inline StatusCode answer = 0;
    // Answer 0 from the first call on, then this status from call refuseFrom on (1-based).
    static inline size_t refuseFrom = 0;
    static inline std::vector<std::pair<CrlObject*, CrlCache*>> calls;

    static StatusCode accept(CrlObject* crl, CrlCache* cache) {
        calls.emplace_back(crl, cache);
        return refuseFrom != 0 && calls.size() < refuseFrom ? 0 : answer;
    }

    explicit Owner(SecurityContext* ctx) : parent{"tests", nullptr, ctx} {
        answer = 0;
        refuseFrom = 0;
        calls.clear();
    }

    // Whether call i (from 0) was answered 0, so that its record is the owner's;
    // a refused record was released by the caller and must not be touched.
    static bool accepted(size_t i) { return refuseFrom != 0 ? i + 1 < refuseFrom : answer == 0; }

    // Destroys the records the owner accepted.
    void release_accepted(SecurityContext* ctx) {
        for (size_t i = 0; i < calls.size(); ++i) {
            if (accepted(i))
                qxcrl_Destroy(ctx, &calls[i].first);
        }
        calls.clear();
    }

    LayerComponent parent;
    CrlCache cache{};
    CrlCacheOwner owner{&parent, &Owner::accept, &cache};
};

} // namespace qxtest

#endif
