// The CRLs of one fetch, kept apart from the caller's list until the fetch
// is complete, and charged against the walk's budget as the memory they
// really take: the directory's message while it is held, and for each value
// its node and its DER with the allocator's share.
#ifndef QXCRL_SERVICES_LDAP_CHAIN_H
#define QXCRL_SERVICES_LDAP_CHAIN_H

#include "ldap_crl_values.h"
#include "ldap_walk.h"

namespace qxldap {

// What libldap keeps for one message beside its bytes: the message and its
// BER elements, the buffer's allocator share, and the tag and length read
// ahead of the buffer.
inline constexpr uint64_t message_bookkeeping = 1024;

class Chain final : public CrlValueSink {
  public:
    Chain(SecurityContext* ctx, const QxLdapFetchSettings& settings, Budget& budget)
        : ctx_(ctx), settings_(settings), budget_(budget) {}
    Chain(const Chain&) = delete;
    Chain& operator=(const Chain&) = delete;
    ~Chain();

    // The longest message the directory may send now: what is left of the
    // budget after its bookkeeping; 0 when nothing is.
    uint64_t room_for_message() const;

    // Charges a message that took bytes to receive while it is held;
    // QXL_ERR_FETCH, traced, when it does not fit.
    StatusCode hold_message(uint64_t bytes);
    // The message is released.
    void release_message() { message_ = 0; }

    // Traces that the memory cap is reached; QXL_ERR_FETCH.
    StatusCode over_bytes() const;

    // A node for a non-empty value, charged with the value itself.
    StatusCode take(const berval& value) override;

    // Appends the nodes to the end of *list, where they stay charged to the
    // walk; the chain is empty afterwards.
    void hand_over(FetchedCrlNode** list);

  private:
    uint64_t charged() const { return budget_.bytes + bytes_ + message_; }

    SecurityContext* ctx_;
    const QxLdapFetchSettings& settings_;
    Budget& budget_;
    uint64_t bytes_ = 0;   // the nodes' and DERs' cost
    uint64_t values_ = 0;  // every value taken, empty ones too
    uint64_t message_ = 0; // the message held, with its bookkeeping
    FetchedCrlNode* head_ = nullptr;
    FetchedCrlNode** tail_ = &head_;
};

} // namespace qxldap

#endif
