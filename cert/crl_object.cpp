// The CRL record: made from DER, handed to a cache owner, destroyed.
#include "frame.h"

using namespace qxcrl;

namespace {

// Decodes into *crl in ctx's toolkit library context; the toolkit status.
int decode_der(SecurityContext* ctx, const unsigned char* der, uint32_t length, R_CRL** crl) {
    uint32_t consumed = 0; // trailing bytes are the toolkit's call, not ours
    return R_CRL_from_binary(toolkit_context(ctx), 0, length, der, &consumed, crl);
}

} // namespace

extern "C" StatusCode qxcrl_CreateCtx(SecurityContext* ctx, CrlObject** crl,
                                      const unsigned char* der, uint32_t derLength) {
    if (ctx == nullptr || ctx->layerContext == nullptr || crl == nullptr)
        return QXERR_BAD_PARAMETER;
    StatusCode result = 0;
    // The caller holds the record from here on, also if decoding fails.
    auto* record = static_cast<CrlObject*>(qxumalloc(ctx, sizeof(CrlObject), &result));
    *crl = record;
    if (record == nullptr)
        return result;
    record->crl = nullptr;
    const int toolkitStatus = decode_der(ctx, der, derLength, &record->crl);
    if (toolkitStatus != R_ERROR_NONE) {
        qxu_print_trace(ctx, trace::name_load, trace::decode_failure, qx0249trc,
                        trace::call_crl_from_binary, toolkitStatus);
        return QXERR_CRL_DECODE;
    }
    return 0;
}

extern "C" StatusCode qxcrl_SetDERCrl(CrlCacheOwner* owner, const unsigned char* der,
                                      uint32_t derLength) {
    if (owner == nullptr || owner->parent == nullptr)
        return QXERR_BAD_PARAMETER;
    SecurityContext* ctx = owner->parent->securityContext;
    TraceFrame frame(ctx, trace::name_set_der_crl);
    if (ctx == nullptr || ctx->layerContext == nullptr || owner->addCrl == nullptr)
        return QXERR_BAD_PARAMETER;
    frame.enter();

    CrlHandle decoded;
    const int toolkitStatus = decode_der(ctx, der, derLength, decoded.out());
    if (toolkitStatus != R_ERROR_NONE) {
        qxu_print_trace(ctx, trace::name_set_der_crl, trace::decode_failure, qx0249trc,
                        trace::call_crl_from_binary, toolkitStatus);
        return QXERR_CRL_DECODE;
    }
    if (owner->crlCache == nullptr) {
        qxu_print_trace(ctx, trace::name_set_der_crl, trace::decode_failure, qx0265trc);
        return QXERR_BAD_PARAMETER;
    }
    StatusCode result = 0;
    LayerBlock<CrlObject> record(ctx, qxumalloc(ctx, sizeof(CrlObject), &result));
    if (!record)
        return result;
    record->crl = decoded.get();
    result = owner->addCrl(record.get(), owner->crlCache);
    if (result == 0) {
        // The owner has both now.
        decoded.release();
        record.release();
    }
    return result;
}

extern "C" StatusCode qxcrl_Destroy(SecurityContext* ctx, CrlObject** crl) {
    if (ctx == nullptr || crl == nullptr || *crl == nullptr)
        return 0;
    if ((*crl)->crl != nullptr)
        R_CRL_free((*crl)->crl);
    qxumfree(ctx, crl);
    return 0;
}
