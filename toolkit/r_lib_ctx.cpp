// Library and certificate contexts.
#include <new>

#include <openssl/crypto.h>

#include <openssl/err.h>

#include "r_objects.h"

extern "C" int R_LIB_CTX_new(uint32_t kind, R_LIB_CTX** libCtx) {
    if (libCtx == nullptr)
        return R_ERROR_NULL_ARG;
    *libCtx = nullptr;
    if (kind != R_LIB_CTX_SHARED && kind != R_LIB_CTX_ISOLATED)
        return R_ERROR_FAILED;
    auto* made = r_new<R_LIB_CTX>();
    if (made == nullptr)
        return R_ERROR_ALLOC_FAILURE;
    if (kind == R_LIB_CTX_ISOLATED) {
        made->ossl = OSSL_LIB_CTX_new();
        if (made->ossl == nullptr) {
            r_delete(made);
            return R_ERROR_ALLOC_FAILURE;
        }
        made->owned = true;
    }
    *libCtx = made;
    return R_ERROR_NONE;
}

extern "C" int R_LIB_CTX_free(R_LIB_CTX* libCtx) {
    if (libCtx == nullptr)
        return R_ERROR_NONE;
    if (libCtx->owned)
        OSSL_LIB_CTX_free(libCtx->ossl);
    r_delete(libCtx);
    return R_ERROR_NONE;
}

extern "C" int R_LIB_CTX_set_time(R_LIB_CTX* libCtx, int fixed, int64_t seconds) {
    if (libCtx == nullptr)
        return R_ERROR_NULL_ARG;
    // The seconds first, so that a reader who sees the flag sees them too.
    libCtx->fixedSeconds.store(seconds);
    libCtx->timeFixed.store(fixed != 0);
    return R_ERROR_NONE;
}

extern "C" int R_CERT_CTX_new(R_LIB_CTX* libCtx, R_CERT_CTX** certCtx) {
    if (libCtx == nullptr || certCtx == nullptr)
        return R_ERROR_NULL_ARG;
    *certCtx = r_new<R_CERT_CTX>(libCtx);
    return *certCtx == nullptr ? R_ERROR_ALLOC_FAILURE : R_ERROR_NONE;
}

extern "C" int R_CERT_CTX_free(R_CERT_CTX* certCtx) {
    r_delete(certCtx);
    return R_ERROR_NONE;
}

int r_decode_failure() {
    int status = R_ERROR_DECODE;
    for (unsigned long error = ERR_get_error(); error != 0; error = ERR_get_error()) {
        if (ERR_GET_REASON(error) == ERR_R_MALLOC_FAILURE)
            status = R_ERROR_ALLOC_FAILURE;
    }
    return status;
}
