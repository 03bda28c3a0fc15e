// What the fetch targets share: the bounds an input gives a walk, the
// deadlines that only bound a client waiting for more than a server sends,
// and the check of what one fetch delivered.
#ifndef QXCRL_FUZZ_FETCH_BOUNDS_H
#define QXCRL_FUZZ_FETCH_BOUNDS_H

#include <cstdint>
#include <string_view>

#include "fuzz_layer.h"

namespace qxfuzz {

// An input that ends the connection early fails at once.
constexpr uint32_t connect_timeout_ms = 2000;
constexpr uint32_t step_timeout_ms = 3000;
constexpr uint32_t walk_timeout_ms = 4000;

struct FetchBounds {
    uint32_t maxCrls;
    uint32_t maxBytes;
};

// From 1 to 64 CRLs, and from 64 bytes to 8 MiB.
inline FetchBounds fetch_bounds_from(unsigned char crls, unsigned char bytes) {
    return {1u + crls % 64u, 64u << (bytes % 18u)};
}

// Every node of list holds DER that holds(der) accepts, and the nodes keep
// to the bounds.
template <typename Holds>
void check_delivered(const FetchedCrlNode* list, const FetchBounds& bounds, Holds holds) {
    uint32_t count = 0;
    uint64_t bytes = 0;
    for (const FetchedCrlNode* node = list; node != nullptr; node = node->next) {
        require(node->der != nullptr && node->length > 0, "an empty node delivered");
        require(holds(std::string_view(reinterpret_cast<const char*>(node->der), node->length)),
                "a delivered CRL that the answer does not hold");
        ++count;
        bytes += node->length;
    }
    require(count <= bounds.maxCrls, "more CRLs delivered than the walk allows");
    require(bytes <= bounds.maxBytes, "more bytes delivered than the walk allows");
}

} // namespace qxfuzz

#endif
