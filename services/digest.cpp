// Digests for the module (the MD5 of an issuer name picks its file in an
// old-style hashed directory), computed by the toolkit in the library
// context the module's objects are made in.
#include "toolkit_access.h"

namespace {

bool toolkit_algorithm(uint32_t algorithm, uint32_t* toolkit) {
    switch (algorithm) {
    case QX_DIGEST_MD5:
        *toolkit = R_DIGEST_MD5;
        return true;
    case QX_DIGEST_SHA1:
        *toolkit = R_DIGEST_SHA1;
        return true;
    case QX_DIGEST_SHA256:
        *toolkit = R_DIGEST_SHA256;
        return true;
    default:
        return false;
    }
}

} // namespace

extern "C" StatusCode qxty_digest(SecurityContext* ctx, uint32_t algorithm,
                                  const unsigned char* data, uint32_t dataLength,
                                  unsigned char* digest, uint32_t* digestLength) {
    if (ctx == nullptr || (data == nullptr && dataLength != 0) || digest == nullptr ||
        digestLength == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    R_LIB_CTX* libCtx = qxl_toolkit_context(ctx);
    if (libCtx == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    uint32_t toolkit = 0;
    if (!toolkit_algorithm(algorithm, &toolkit))
        return QXL_ERR_DIGEST;
    // *digestLength changes only on success.
    uint32_t length = *digestLength;
    if (R_digest(libCtx, toolkit, data, dataLength, digest, &length) != R_ERROR_NONE)
        return QXL_ERR_DIGEST;
    *digestLength = length;
    return 0;
}
