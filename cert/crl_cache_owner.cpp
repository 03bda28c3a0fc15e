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
    made->owner = CrlCacheOwner{&made->parent, &qxcrl_AddCacheEntry, cache};
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
