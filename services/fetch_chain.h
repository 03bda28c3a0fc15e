// The CRLs of one fetch, kept apart from the caller's list until the fetch
// is complete, and charged against the walk's budget as the memory they
// really take: what the fetch holds while it reads (a directory's message,
// an HTTP body), and for each CRL its node and its DER with the allocator's
// share. LDAP and HTTP fetches share it, each tracing under its own name.
#ifndef QXCRL_SERVICES_FETCH_CHAIN_H
#define QXCRL_SERVICES_FETCH_CHAIN_H

#include "fetch_walk.h"

namespace qxfetch {

// What a block of the layer's allocator takes from malloc: the layer's
// header and malloc's size word, in malloc's 16-byte granules, 32 at least.
constexpr uint64_t block_cost(uint64_t size) {
    constexpr uint64_t headers = 16 + 8, granule = 16, smallest = 32;
    const uint64_t rounded = (size + headers + granule - 1) / granule * granule;
    return rounded < smallest ? smallest : rounded;
}

// Whose chain it is, for its trace: the fetch's trace name and the prefix
// of its messages ("ldap", "http").
struct Tracing {
    const char* function;
    const char* prefix;
};

class Chain {
  public:
    Chain(SecurityContext* ctx, const Tracing& tracing, Budget& budget)
        : ctx_(ctx), tracing_(tracing), budget_(budget) {}
    Chain(const Chain&) = delete;
    Chain& operator=(const Chain&) = delete;
    ~Chain();

    // What is left of the budget after overhead bytes; 0 when nothing is.
    uint64_t room(uint64_t overhead) const;

    // Charges bytes held while the fetch reads, in place of what was held
    // before; QXL_ERR_FETCH, traced, when they do not fit.
    StatusCode hold(uint64_t bytes);
    // What was held is released.
    void release() { held_ = 0; }

    // Traces that the memory cap is reached; QXL_ERR_FETCH.
    StatusCode over_bytes() const;

    // Counts one more CRL of at most length bytes of DER against the caps,
    // before anything is made for it; QXL_ERR_FETCH, traced, when it does
    // not fit.
    StatusCode admit(uint64_t length);
    // Takes der, a block of ctx's allocator holding length bytes of an
    // admitted CRL, as the next node; releases it when the node cannot be
    // made.
    StatusCode adopt(unsigned char* der, uint32_t length);
    // admit, then adopt a copy of length bytes at der; an empty value
    // counts but makes no node.
    StatusCode take(const unsigned char* der, size_t length);

    // Appends the nodes to the end of *list, where they stay charged to the
    // walk; the chain is empty afterwards.
    void hand_over(FetchedCrlNode** list);

  private:
    uint64_t charged() const { return budget_.bytes + bytes_ + held_; }

    SecurityContext* ctx_;
    Tracing tracing_;
    Budget& budget_;
    uint64_t bytes_ = 0;  // the nodes' and DERs' cost
    uint64_t values_ = 0; // every CRL admitted, empty LDAP values too
    uint64_t held_ = 0;   // what the fetch holds while it reads
    FetchedCrlNode* head_ = nullptr;
    FetchedCrlNode** tail_ = &head_;
};

} // namespace qxfetch

#endif
