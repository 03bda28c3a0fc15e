// The CRL cache: a recency-ordered list bounded by the DER bytes it holds,
// refusing what does not fit, evicting from the tail when made smaller.
#include <cstring>

#include "frame.h"

using namespace qxcrl;

namespace {

constexpr uint32_t name_limit = 1025;

// The context whose memory the cache's blocks come from.
SecurityContext* cache_context(const CrlCache* cache) {
    const CrlCacheOwner* owner = cache->owner;
    return owner != nullptr && owner->parent != nullptr ? owner->parent->securityContext : nullptr;
}

// Takes entry out of the list and out of used; its blocks stay.
void unlink(CrlCache* cache, CrlCacheEntry* entry) {
    if (entry->prev != nullptr)
        entry->prev->next = entry->next;
    else
        cache->head = entry->next;
    if (entry->next != nullptr)
        entry->next->prev = entry->prev;
    else
        cache->tail = entry->prev;
    cache->used -= entry->size;
}

// Releases an entry's CRL, its record and the entry; false when the toolkit
// could not free the CRL (the record and entry are then left alone).
bool release(SecurityContext* ctx, CrlCacheEntry* entry) {
    if (R_CRL_free(entry->crlObject->crl) != R_ERROR_NONE)
        return false;
    qxumfree(ctx, &entry->crlObject);
    qxumfree(ctx, &entry);
    return true;
}

// Evicts least recently used entries until the CRLs fit; a CRL the toolkit
// cannot free is dropped all the same, since eviction must complete.
void evict_until_fits(CrlCache* cache) {
    SecurityContext* ctx = cache_context(cache);
    while (cache->used > cache->capacity && cache->tail != nullptr) {
        CrlCacheEntry* entry = cache->tail;
        unlink(cache, entry);
        R_CRL_free(entry->crlObject->crl);
        qxumfree(ctx, &entry->crlObject);
        qxumfree(ctx, &entry);
    }
}

} // namespace

extern "C" StatusCode qxcrl_AddCacheEntry(CrlObject* crl, CrlCache* cache) {
    if (crl == nullptr || cache == nullptr || crl->crl == nullptr)
        return QXERR_BAD_PARAMETER;
    uint32_t size = 0;
    if (R_CRL_to_binary(crl->crl, 0, nullptr, &size) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    // Refused, not made room for: the cache never drops CRLs to take one.
    if (uint64_t{cache->used} + size > cache->capacity)
        return QXERR_CACHE_FULL;
    StatusCode result = 0;
    auto* entry = static_cast<CrlCacheEntry*>(
        qxumalloc(cache_context(cache), sizeof(CrlCacheEntry), &result));
    if (entry == nullptr)
        return result;
    *entry = CrlCacheEntry{crl, size, cache->head, nullptr};
    if (cache->head != nullptr)
        cache->head->prev = entry;
    else
        cache->tail = entry;
    cache->head = entry;
    cache->used += size;
    return 0;
}

extern "C" StatusCode qxcrl_ResizeCache(uint32_t newCapacity, CrlCache* cache) {
    if (cache == nullptr)
        return QXERR_BAD_PARAMETER;
    cache->capacity = newCapacity;
    evict_until_fits(cache);
    return 0;
}

extern "C" StatusCode qxcrl_DeleteCRLCacheEntry(CrlCacheOwner* owner,
                                                const unsigned char* issuerName,
                                                uint32_t issuerNameLength) {
    if (owner == nullptr || owner->crlCache == nullptr || owner->parent == nullptr ||
        issuerName == nullptr)
        return QXERR_BAD_PARAMETER;
    CrlCache* cache = owner->crlCache;
    SecurityContext* ctx = owner->parent->securityContext;
    bool removed = false;
    for (CrlCacheEntry* entry = cache->head; entry != nullptr;) {
        char text[name_limit] = {};
        if (qxcrl_GetDetails(ctx, entry->crlObject, QXCRL_DETAIL_ISSUER_NAME, 0, text) != 0)
            return QXERR_TOOLKIT_FAILURE;
        CrlCacheEntry* next = entry->next;
        if (std::strlen(text) == issuerNameLength &&
            std::memcmp(issuerName, text, issuerNameLength) == 0) {
            unlink(cache, entry);
            if (!release(ctx, entry))
                return QXERR_TOOLKIT_FAILURE;
            removed = true;
        }
        entry = next;
    }
    return removed ? 0 : QXERR_CACHE_ENTRY_NOT_FOUND;
}

extern "C" StatusCode qxcrl_DestroyCache(CrlCache** cache) {
    if (cache == nullptr || *cache == nullptr)
        return QXERR_BAD_PARAMETER;
    SecurityContext* ctx = cache_context(*cache);
    (*cache)->capacity = 0;
    evict_until_fits(*cache);
    qxumfree(ctx, cache);
    return 0;
}
