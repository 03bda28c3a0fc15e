// Public access to what a program outside the library needs to write a CRL
// as DER and to name the hashed-directory file of an issuer: the CRL's bytes
// and the issuer name objects of CRLs and certificates.
#include <cstring>

#include "frame.h"

using namespace qxcrl;

extern "C" StatusCode qxcrl_GetDER(SecurityContext* ctx, CrlObject* crl, unsigned char** der,
                                   uint32_t* derLength) {
    if (ctx == nullptr || ctx->layerContext == nullptr || crl == nullptr || crl->crl == nullptr ||
        der == nullptr || derLength == nullptr)
        return QXERR_BAD_PARAMETER;
    uint32_t length = 0;
    if (R_CRL_to_binary(crl->crl, 0, nullptr, &length) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    StatusCode result = 0;
    LayerBlock<unsigned char> bytes(ctx, qxumalloc(ctx, length == 0 ? 1 : length, &result));
    if (!bytes)
        return result;
    if (R_CRL_to_binary(crl->crl, length, bytes.get(), &length) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    *der = bytes.release();
    *derLength = length;
    return 0;
}

extern "C" StatusCode qxcrl_GetIssuerName(SecurityContext* ctx, CrlObject* crl,
                                          R_CERT_NAME** name) {
    if (ctx == nullptr || ctx->layerContext == nullptr || crl == nullptr || crl->crl == nullptr ||
        name == nullptr)
        return QXERR_BAD_PARAMETER;
    R_ITEM issuer = {};
    if (R_CRL_get_info(crl->crl, R_CRL_INFO_ISSUER_NAME, &issuer) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    R_CERT_CTX* certCtx = nullptr;
    const StatusCode result = qxGCC_GetCertcCtx(ctx, &certCtx);
    if (result != 0)
        return result;
    uint32_t consumed = issuer.len;
    NameHandle made;
    if (R_CERT_NAME_from_binary(certCtx, 0, issuer.len, issuer.data, &consumed, made.out()) !=
        R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    *name = made.release();
    return 0;
}

extern "C" StatusCode qxcrl_GetCertIssuerName(SecurityContext* ctx, CertificateRecord* cert,
                                              R_CERT_NAME** name) {
    if (ctx == nullptr || ctx->layerContext == nullptr || cert == nullptr ||
        cert->cert == nullptr || name == nullptr)
        return QXERR_BAD_PARAMETER;
    NameHandle made;
    if (R_CERT_issuer_name_to_R_CERT_NAME(cert->cert, 0, made.out()) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    *name = made.release();
    return 0;
}

extern "C" void qxcrl_FreeName(R_CERT_NAME** name) {
    if (name == nullptr || *name == nullptr)
        return;
    R_CERT_NAME_free(*name);
    *name = nullptr;
}
