#include "ldap_chain.h"

#include <cstring>

#include "ldap_trace.h"

namespace {

// What a block of the layer's allocator takes from malloc: the layer's
// header and malloc's size word, in malloc's 16-byte granules, 32 at least.
constexpr uint64_t block_cost(uint64_t size) {
    constexpr uint64_t headers = 16 + 8, granule = 16, smallest = 32;
    const uint64_t rounded = (size + headers + granule - 1) / granule * granule;
    return rounded < smallest ? smallest : rounded;
}

// The tag and length octets that a message's length does not count.
constexpr uint64_t message_header = 16;

} // namespace

namespace qxldap {

Chain::~Chain() {
    qxldap_free_list(ctx_, &head_);
}

StatusCode Chain::over_bytes() const {
    qxu_print_trace(ctx_, function_name, trace_level, "ldap: more than %u bytes of memory\n",
                    settings_.maxBytes);
    return QXL_ERR_FETCH;
}

uint64_t Chain::room_for_message() const {
    const uint64_t needed = charged() + message_bookkeeping + message_header;
    return settings_.maxBytes > needed ? settings_.maxBytes - needed : 0;
}

StatusCode Chain::hold_message(uint64_t bytes) {
    message_ = bytes + message_bookkeeping;
    return charged() > settings_.maxBytes ? over_bytes() : 0;
}

StatusCode Chain::take(const berval& value) {
    // Counted before anything is made, so the cap also bounds the work.
    if (budget_.values + values_ >= settings_.maxValues) {
        qxu_print_trace(ctx_, function_name, trace_level, "ldap: more than %u values\n",
                        settings_.maxValues);
        return QXL_ERR_FETCH;
    }
    ++values_;
    // An empty value holds no CRL; there is nothing to hand on.
    if (value.bv_len == 0)
        return 0;
    const uint64_t cost = block_cost(sizeof(FetchedCrlNode)) + block_cost(value.bv_len);
    if (charged() + cost > settings_.maxBytes)
        return over_bytes();
    const auto length = static_cast<uint32_t>(value.bv_len); // below maxBytes
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
    bytes_ += cost;
    return 0;
}

void Chain::hand_over(FetchedCrlNode** list) {
    FetchedCrlNode** end = list;
    while (*end != nullptr)
        end = &(*end)->next;
    *end = head_;
    head_ = nullptr;
    tail_ = &head_;
    budget_.bytes += bytes_;
    budget_.values += values_;
    bytes_ = values_ = message_ = 0;
}

} // namespace qxldap
