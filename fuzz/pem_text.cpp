// PEM text of any shape delivered into a cache.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_layer.h"

namespace {

// Large enough for any input of the run, so decoded CRLs stay cached and
// are released by the owner.
constexpr uint32_t cache_capacity = 8u << 20;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size >= UINT32_MAX)
        return 0;
    SecurityContext* ctx = qxfuzz::layer();
    qxfuzz::BlockCheck check(ctx);
    std::vector<char> text(size + 1);
    if (size != 0)
        std::memcpy(text.data(), data, size);
    text[size] = '\0';

    CrlCacheOwner* owner = nullptr;
    if (qxcrl_CreateCacheOwner(ctx, cache_capacity, &owner) != 0)
        std::abort();
    qxcrl_SetB64Crl(owner, text.data(), static_cast<uint32_t>(size));
    // What the cache holds must add up.
    uint32_t used = 0;
    for (const CrlCacheEntry* entry = owner->crlCache->head; entry != nullptr; entry = entry->next)
        used += entry->size;
    if (used != owner->crlCache->used || used > owner->crlCache->capacity)
        std::abort();
    qxcrl_DestroyCacheOwner(&owner);
    return 0;
}
