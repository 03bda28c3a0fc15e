// Message digests fetched in the caller's library context, so that an
// isolated context uses its own providers.
#include <openssl/evp.h>

#include "r_objects.h"

namespace {

const char* digest_name(uint32_t algorithm) {
    switch (algorithm) {
    case R_DIGEST_MD5:
        return "MD5";
    case R_DIGEST_SHA1:
        return "SHA1";
    case R_DIGEST_SHA256:
        return "SHA256";
    default:
        return nullptr;
    }
}

} // namespace

extern "C" int R_digest(R_LIB_CTX* libCtx, uint32_t algorithm, const unsigned char* data,
                        uint32_t length, unsigned char* digest, uint32_t* digestLength) {
    if (libCtx == nullptr || (data == nullptr && length != 0) || digest == nullptr ||
        digestLength == nullptr)
        return R_ERROR_NULL_ARG;
    const char* name = digest_name(algorithm);
    if (name == nullptr)
        return R_ERROR_FAILED;
    EVP_MD* md = EVP_MD_fetch(libCtx->ossl, name, nullptr);
    if (md == nullptr) {
        ERR_clear_error();
        return R_ERROR_CRYPTO;
    }
    int status = R_ERROR_NONE;
    const int size = EVP_MD_get_size(md);
    if (size <= 0) {
        status = R_ERROR_CRYPTO;
    } else if (*digestLength < static_cast<uint32_t>(size)) {
        *digestLength = static_cast<uint32_t>(size);
        status = R_ERROR_BUFFER_TOO_SMALL;
    } else {
        // OpenSSL wants a pointer even for no bytes.
        static const unsigned char nothing = 0;
        unsigned int written = 0;
        if (EVP_Digest(data != nullptr ? data : &nothing, length, digest, &written, md, nullptr) !=
            1) {
            ERR_clear_error();
            status = R_ERROR_CRYPTO;
        } else {
            *digestLength = written;
        }
    }
    EVP_MD_free(md);
    return status;
}
