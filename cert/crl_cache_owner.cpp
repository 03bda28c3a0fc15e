// A cache and the owner that feeds it, made in one call, so that a program
// needs no layer code of its own to keep CRLs. It lives beside the cache,
// not in the layer, because its owner's addCrl is this module's add.
#include "frame.h"

using namespace qxcrl;

namespace {

// The owner, its parent record and its cache in one block of the layer.
struct OwnedCache {
    CrlCacheOwner owner;
    LayerComponent parent;
};

constexpr char component_name[] = "qxcrl cache";

// The cache's add behind a check that the cache can compare the CRL's
// issuer name: lookups and deletes by issuer stop at the first cached CRL
// whose name does not fit their buffers, so one such CRL would make them
// fail for every issuer.
StatusCode add_comparable(CrlObject* crl, CrlCache* cache) {
    if (crl != nullptr && crl->crl != nullptr && cache != nullptr && cache->owner != nullptr) {
        SecurityContext* ctx = cache->owner->parent->securityContext;
        // The text is what a delete compares; reading it also fits the DER
        // into the 1,025 bytes a lookup compares.
        char text[1025];
        const StatusCode read = qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_ISSUER_NAME, 0, text);
        if (read != 0)
            return read == QXERR_TOOLKIT_FAILURE ? QXL_ERR_ISSUER_TOO_LONG : read;
    }
    return qxcrl_AddCacheEntry(crl, cache);
}

} // namespace

extern "C" StatusCode qxcrl_CreateCacheOwner(SecurityContext* ctx, uint32_t capacity,
                                             CrlCacheOwner** owner) {
    if (ctx == nullptr || ctx->layerContext == nullptr || owner == nullptr)
        return QXERR_BAD_PARAMETER;
    *owner = nullptr;
    StatusCode result = 0;
    LayerBlock<OwnedCache> made(ctx, qxumalloc(ctx, sizeof(OwnedCache), &result));
    if (!made)
        return result;
    auto* cache = static_cast<CrlCache*>(qxumalloc(ctx, sizeof(CrlCache), &result));
    if (cache == nullptr)
        return result;
    made->parent = LayerComponent{component_name, nullptr, ctx};
    made->owner = CrlCacheOwner{&made->parent, &add_comparable, cache};
    *cache = CrlCache{capacity, 0, nullptr, nullptr, &made->owner};
    *owner = &made.release()->owner;
    return 0;
}

extern "C" StatusCode qxcrl_DestroyCacheOwner(CrlCacheOwner** owner) {
    if (owner == nullptr || *owner == nullptr)
        return QXERR_BAD_PARAMETER;
    SecurityContext* ctx = (*owner)->parent->securityContext;
    if ((*owner)->crlCache != nullptr)
        qxcrl_DestroyCache(&(*owner)->crlCache);
    // The owner is the first member of the block it was made in.
    auto* block = reinterpret_cast<OwnedCache*>(*owner);
    qxumfree(ctx, &block);
    *owner = nullptr;
    return 0;
}
