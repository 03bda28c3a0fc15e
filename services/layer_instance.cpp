// Layer instances: a SecurityContext with its LayerContext, the toolkit
// library contexts, the certificate context and the memory account.
#include <cstring>
#include <new>

#include "../toolkit/r_toolkit.h"
#include "memory_account.h"

namespace {

constexpr char default_store_path[] = "qxstore.db";

// Slot 3 is isolated so that objects made under toolkitMode 1 never share
// provider state with the others.
constexpr uint32_t slot_kind(uint32_t slot) {
    return slot == 3 ? R_LIB_CTX_ISOLATED : R_LIB_CTX_SHARED;
}

void release(SecurityContext* ctx) {
    if (ctx == nullptr)
        return;
    if (LayerContext* layer = ctx->layerContext) {
        R_CERT_CTX_free(layer->certContext);
        if (layer->toolkitContexts != nullptr) {
            for (uint32_t slot = 0; slot < layer->toolkitContextCount; ++slot)
                R_LIB_CTX_free(layer->toolkitContexts[slot]);
            delete[] layer->toolkitContexts;
        }
        qxum_account_free(layer->memory);
        delete[] layer->storePath;
        delete layer;
    }
    delete ctx;
}

StatusCode build(const QxLayerConfig& config, SecurityContext* ctx) {
    ctx->traceSink = config.traceSink;
    ctx->traceSinkArg = config.traceSinkArg;
    ctx->traceLevel = config.traceLevel;
    auto* layer = new (std::nothrow) LayerContext{};
    if (layer == nullptr)
        return QXL_ERR_OUT_OF_MEMORY;
    ctx->layerContext = layer;
    layer->toolkitMode = config.toolkitMode;
    layer->crlPolicy = config.crlPolicy;
    layer->maxFileBytes = config.maxFileBytes;
    layer->fileContext = qxfile_posix_interface();
    layer->crlFetchCallbacks = qxldap_fetch_callbacks();
    layer->memory = qxum_account_new();
    // The layer keeps its own copy: the caller's configuration may be gone
    // long before the store is used.
    const char* storePath = config.storePath != nullptr ? config.storePath : default_store_path;
    const size_t pathSize = std::strlen(storePath) + 1;
    layer->storePath = new (std::nothrow) char[pathSize];
    if (layer->storePath == nullptr)
        return QXL_ERR_OUT_OF_MEMORY;
    std::memcpy(layer->storePath, storePath, pathSize);
    layer->toolkitContexts = new (std::nothrow) R_LIB_CTX* [QX_TOOLKIT_CONTEXT_COUNT] {};
    if (layer->memory == nullptr || layer->toolkitContexts == nullptr)
        return QXL_ERR_OUT_OF_MEMORY;
    layer->toolkitContextCount = QX_TOOLKIT_CONTEXT_COUNT;
    for (uint32_t slot = 0; slot < QX_TOOLKIT_CONTEXT_COUNT; ++slot) {
        if (R_LIB_CTX_new(slot_kind(slot), &layer->toolkitContexts[slot]) != R_ERROR_NONE)
            return QXL_ERR_TOOLKIT;
    }
    // Names are made in the context the module's objects are made in.
    R_LIB_CTX* certLib = layer->toolkitContexts[layer->toolkitMode == 1 ? 3 : 2];
    if (R_CERT_CTX_new(certLib, &layer->certContext) != R_ERROR_NONE)
        return QXL_ERR_TOOLKIT;
    return 0;
}

} // namespace

extern "C" void qxlayer_default_config(QxLayerConfig* config) {
    if (config == nullptr)
        return;
    *config = QxLayerConfig{};
    config->traceLevel = QX_TRACE_LEVEL_FROM_ENV;
    config->storePath = default_store_path;
    config->maxFileBytes = QX_DEFAULT_MAX_FILE_BYTES;
}

extern "C" StatusCode qxlayer_create(const QxLayerConfig* config, SecurityContext** out) {
    if (out == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    *out = nullptr;
    QxLayerConfig defaults;
    qxlayer_default_config(&defaults);
    auto* ctx = new (std::nothrow) SecurityContext{};
    if (ctx == nullptr)
        return QXL_ERR_OUT_OF_MEMORY;
    const StatusCode status = build(config != nullptr ? *config : defaults, ctx);
    if (status != 0) {
        release(ctx);
        return status;
    }
    *out = ctx;
    return 0;
}

extern "C" void qxlayer_destroy(SecurityContext** ctx) {
    if (ctx == nullptr)
        return;
    release(*ctx);
    *ctx = nullptr;
}

extern "C" StatusCode qxGCC_GetCertcCtx(const SecurityContext* ctx, R_CERT_CTX** certCtx) {
    if (ctx == nullptr || ctx->layerContext == nullptr || certCtx == nullptr ||
        ctx->layerContext->certContext == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    *certCtx = ctx->layerContext->certContext;
    return 0;
}
