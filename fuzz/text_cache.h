// What the targets that deliver PEM text into a cache share: the input as
// the NUL-terminated text qxcrl_SetB64Crl reads, a cache owner that lasts
// one input, and the checks of the cache's list seen from outside.
#ifndef QXCRL_FUZZ_TEXT_CACHE_H
#define QXCRL_FUZZ_TEXT_CACHE_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_layer.h"

namespace qxfuzz {

inline std::vector<char> terminated_text(const uint8_t* data, size_t size) {
    std::vector<char> text(size + 1);
    if (size != 0)
        std::memcpy(text.data(), data, size);
    text[size] = '\0';
    return text;
}

class InputCache {
  public:
    InputCache(SecurityContext* ctx, uint32_t capacity) {
        require(qxcrl_CreateCacheOwner(ctx, capacity, &owner_) == 0, "cache owner not made");
    }
    InputCache(const InputCache&) = delete;
    InputCache& operator=(const InputCache&) = delete;
    ~InputCache() { qxcrl_DestroyCacheOwner(&owner_); }
    CrlCacheOwner* owner() const { return owner_; }

  private:
    CrlCacheOwner* owner_ = nullptr;
};

// The entries are linked the same way in both directions, their sizes add up
// to what the cache says it holds, and that fits its capacity.
inline void check_cache(const CrlCache* cache) {
    uint64_t used = 0;
    const CrlCacheEntry* previous = nullptr;
    for (const CrlCacheEntry* entry = cache->head; entry != nullptr; entry = entry->next) {
        require(entry->prev == previous, "cache entry linked back to the wrong entry");
        require(entry->crlObject != nullptr && entry->crlObject->crl != nullptr,
                "cache entry without a CRL");
        used += entry->size;
        previous = entry;
    }
    require(cache->tail == previous, "cache tail is not the last entry");
    require(used == cache->used, "cache sizes do not add up");
    require(used <= cache->capacity, "cache holds more than its capacity");
}

} // namespace qxfuzz

#endif
