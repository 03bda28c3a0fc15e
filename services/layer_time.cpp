// The time a layer instance judges at: the clock's, or one the caller fixes,
// as a verifier asked to judge at a past moment needs.
#include "toolkit_access.h"

extern "C" StatusCode qxlayer_set_time(SecurityContext* ctx, const int64_t* seconds) {
    if (ctx == nullptr || ctx->layerContext == nullptr ||
        ctx->layerContext->toolkitContexts == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    const LayerContext* layer = ctx->layerContext;
    // Every toolkit context of the instance, so that no operation reads
    // another time than its neighbours whatever slot it works in.
    for (uint32_t slot = 0; slot < layer->toolkitContextCount; ++slot)
        if (R_LIB_CTX_set_time(layer->toolkitContexts[slot], seconds != nullptr ? 1 : 0,
                               seconds != nullptr ? *seconds : 0) != R_ERROR_NONE)
            return QXL_ERR_TOOLKIT;
    return 0;
}
