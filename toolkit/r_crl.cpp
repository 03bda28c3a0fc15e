// CRL objects: make, decode, encode, free.
#include <new>

#include "r_objects.h"

namespace {

R_CRL* wrap(X509_CRL* x509, R_LIB_CTX* libCtx) {
    auto* crl = new (std::nothrow) R_CRL{x509, libCtx};
    if (crl == nullptr)
        X509_CRL_free(x509);
    return crl;
}

} // namespace

extern "C" int R_CRL_new(R_LIB_CTX* libCtx, uint32_t flags, R_CRL** crl) {
    if (libCtx == nullptr || crl == nullptr)
        return R_ERROR_NULL_ARG;
    *crl = nullptr;
    if (flags != 0)
        return R_ERROR_FAILED;
    X509_CRL* x509 = X509_CRL_new_ex(libCtx->ossl, nullptr);
    if (x509 == nullptr)
        return R_ERROR_ALLOC_FAILURE;
    *crl = wrap(x509, libCtx);
    return *crl == nullptr ? R_ERROR_ALLOC_FAILURE : R_ERROR_NONE;
}

extern "C" int R_CRL_from_binary(R_LIB_CTX* libCtx, uint32_t flags, uint32_t length,
                                 const unsigned char* der, uint32_t* consumed, R_CRL** crl) {
    if (libCtx == nullptr || crl == nullptr || (der == nullptr && length != 0))
        return R_ERROR_NULL_ARG;
    *crl = nullptr;
    if (flags != 0)
        return R_ERROR_FAILED;
    if (length == 0)
        return R_ERROR_DECODE;
    X509_CRL* x509 = X509_CRL_new_ex(libCtx->ossl, nullptr);
    if (x509 == nullptr)
        return R_ERROR_ALLOC_FAILURE;
    const unsigned char* cursor = der;
    // d2i fills the object made in libCtx, so the CRL keeps that context.
    if (d2i_X509_CRL(&x509, &cursor, static_cast<long>(length)) == nullptr) {
        X509_CRL_free(x509);
        return R_ERROR_DECODE;
    }
    if (!r_crl_extensions_processable(x509)) {
        X509_CRL_free(x509);
        return R_ERROR_UNSUPPORTED;
    }
    *crl = wrap(x509, libCtx);
    if (*crl == nullptr)
        return R_ERROR_ALLOC_FAILURE;
    if (const int status = r_crl_take_idp(*crl); status != R_ERROR_NONE) {
        R_CRL_free(*crl);
        *crl = nullptr;
        return status;
    }
    if (consumed != nullptr)
        *consumed = static_cast<uint32_t>(cursor - der);
    return R_ERROR_NONE;
}

extern "C" int R_CRL_to_binary(R_CRL* crl, uint32_t bufferSize, unsigned char* buffer,
                               uint32_t* length) {
    if (crl == nullptr || length == nullptr || (buffer == nullptr && bufferSize != 0))
        return R_ERROR_NULL_ARG;
    return r_i2d_out<X509_CRL>(crl->x509, i2d_X509_CRL, bufferSize, buffer, length);
}

extern "C" int R_CRL_free(R_CRL* crl) {
    if (crl != nullptr) {
        ISSUING_DIST_POINT_free(crl->idp);
        X509_CRL_free(crl->x509);
        delete crl;
    }
    return R_ERROR_NONE;
}

void r_crl_changed(R_CRL* crl) {
    // Once marked, the CRL stays so: OpenSSL keeps a received encoding only
    // from decoding, so one call is enough, and a setter called in a loop
    // does not measure the whole list every time.
    if (crl->reencodes)
        return;
    // The call marks the to-be-signed part changed before it measures it,
    // so the mark holds even if measuring fails; the length is not needed.
    if (i2d_re_X509_CRL_tbs(crl->x509, nullptr) <= 0)
        ERR_clear_error();
    crl->reencodes = true;
}

extern "C" R_LIB_CTX* R_CRL_get0_lib_ctx(const R_CRL* crl) {
    return crl == nullptr ? nullptr : crl->libCtx;
}
