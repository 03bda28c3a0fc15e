#include "toolkit_access.h"

R_LIB_CTX* qxl_toolkit_context(const SecurityContext* ctx) {
    if (ctx == nullptr || ctx->layerContext == nullptr)
        return nullptr;
    const LayerContext* layer = ctx->layerContext;
    const uint32_t slot = layer->toolkitMode == 1 ? 3 : 2;
    if (layer->toolkitContexts == nullptr || layer->toolkitContextCount <= slot)
        return nullptr;
    return layer->toolkitContexts[slot];
}

StatusCode qxl_toolkit_now(const SecurityContext* ctx, int64_t* now) {
    R_LIB_CTX* libCtx = qxl_toolkit_context(ctx);
    if (libCtx == nullptr || now == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    R_TIME_CTX* timeCtx = nullptr;
    R_TIME* time = nullptr;
    unsigned char buffer[8] = {};
    uint32_t length = 0;
    int status = R_TIME_CTX_new(libCtx, 0, &timeCtx);
    if (status == R_ERROR_NONE)
        status = R_TIME_new(timeCtx, &time);
    if (status == R_ERROR_NONE)
        status = R_TIME_time(time);
    // The toolkit's seconds leave it only through an export.
    if (status == R_ERROR_NONE)
        status = R_TIME_export(time, R_TIME_FORMAT_SECONDS_BE, buffer, &length, sizeof buffer);
    R_TIME_free(time);
    R_TIME_CTX_free(timeCtx);
    if (status != R_ERROR_NONE || length != sizeof buffer || (buffer[0] & 0x80) != 0)
        return QXL_ERR_TOOLKIT;
    uint64_t seconds = 0;
    for (unsigned char byte : buffer)
        seconds = seconds << 8 | byte;
    *now = static_cast<int64_t>(seconds);
    return 0;
}
