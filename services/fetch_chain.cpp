#include "fetch_chain.h"

#include <cstring>

namespace {

constexpr uint64_t node_cost = qxfetch::block_cost(sizeof(FetchedCrlNode));
// The fetches' progress level, at which they trace every failure.
constexpr uint32_t trace_level = 5;

} // namespace

namespace qxfetch {

Chain::~Chain() {
    qxldap_free_list(ctx_, &head_);
}

StatusCode Chain::over_bytes() const {
    qxu_print_trace(ctx_, tracing_.function, trace_level, "%s: more than %u bytes of memory\n",
                    tracing_.prefix, budget_.maxBytes);
    return QXL_ERR_FETCH;
}

uint64_t Chain::room(uint64_t overhead) const {
    const uint64_t needed = charged() + overhead;
    return budget_.maxBytes > needed ? budget_.maxBytes - needed : 0;
}

StatusCode Chain::hold(uint64_t bytes) {
    held_ = bytes;
    return charged() > budget_.maxBytes ? over_bytes() : 0;
}

StatusCode Chain::admit(uint64_t length) {
    // Counted before anything is made, so the cap also bounds the work.
    if (budget_.values + values_ >= budget_.maxValues) {
        qxu_print_trace(ctx_, tracing_.function, trace_level, "%s: more than %u values\n",
                        tracing_.prefix, budget_.maxValues);
        return QXL_ERR_FETCH;
    }
    ++values_;
    if (length > 0 && charged() + node_cost + block_cost(length) > budget_.maxBytes)
        return over_bytes();
    return 0;
}

StatusCode Chain::adopt(unsigned char* der, uint32_t length) {
    StatusCode status = 0;
    auto* node = static_cast<FetchedCrlNode*>(qxumalloc(ctx_, sizeof(FetchedCrlNode), &status));
    if (node == nullptr) {
        qxumfree(ctx_, &der);
        return status;
    }
    node->der = der;
    node->length = length;
    node->next = nullptr;
    *tail_ = node;
    tail_ = &node->next;
    bytes_ += node_cost + block_cost(length);
    return 0;
}

StatusCode Chain::take(const unsigned char* der, size_t length) {
    StatusCode status = admit(length);
    // An empty value holds no CRL; there is nothing to hand on.
    if (status != 0 || length == 0)
        return status;
    const auto size = static_cast<uint32_t>(length); // below maxBytes
    auto* copy = static_cast<unsigned char*>(qxumalloc(ctx_, size, &status));
    if (copy == nullptr)
        return status;
    std::memcpy(copy, der, size);
    return adopt(copy, size);
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
    bytes_ = values_ = held_ = 0;
}

} // namespace qxfetch
