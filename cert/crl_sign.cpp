// Signing a CRL with its issuer's key, after the issuer certificate has
// passed the layer's validity check.
#include "frame.h"

using namespace qxcrl;

extern "C" StatusCode qxcrl_Sign(SecurityContext* ctx, CrlObject* crl, CertificateRecord* issuer,
                                 const QxPrivateKey* key, uint32_t signatureType) {
    if (ctx == nullptr || ctx->layerContext == nullptr || crl == nullptr || crl->crl == nullptr ||
        issuer == nullptr || key == nullptr || issuer->cert == nullptr)
        return QXERR_BAD_PARAMETER;
    // A certificate outside its validity may not sign, whatever the key says.
    if (const StatusCode status = qxtCheckValidity_ext(ctx, issuer->notBefore, issuer->notAfter);
        status != 0)
        return status;
    PkeyHandle pkey;
    if (const StatusCode status = qxdk_pvtkey_to_obj(ctx, key, pkey.out()); status != 0)
        return status;
    uint32_t algorithm = 0;
    if (qxbc_map_sign(signatureType, &algorithm) != 0) {
        qxu_print_trace(ctx, trace::name_sign, trace::service_failure,
                        trace::msg_invalid_signature_type, static_cast<int>(signatureType));
        return QXERR_CRL_SIGN;
    }
    if (R_CRL_sign(crl->crl, issuer->cert, pkey.get(), algorithm) != R_ERROR_NONE)
        return QXERR_CRL_SIGN;
    return 0;
}
