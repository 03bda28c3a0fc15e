// A DER CRL file read straight into the bytes the CRL keeps, so that a CRL
// of a million entries costs its file's size once, not once for the reading
// and again for the CRL's own copy.
#include <unistd.h>

#include "qxcrl.h"
#include "toolkit_access.h"
#include "whole_file.h"

extern "C" StatusCode qxfile_read_der_crl(SecurityContext* ctx, const char* path, CrlObject** crl) {
    if (crl == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    *crl = nullptr;
    if (ctx == nullptr || ctx->layerContext == nullptr || path == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    R_LIB_CTX* libCtx = qxl_toolkit_context(ctx);
    if (libCtx == nullptr)
        return QXL_ERR_TOOLKIT;
    int fd = -1;
    uint32_t size = 0;
    if (const StatusCode opened = qxl_open_whole(ctx, path, &fd, &size); opened != 0)
        return opened;
    unsigned char* der = R_BUFFER_new(size);
    uint32_t length = 0;
    StatusCode status =
        der == nullptr ? QXL_ERR_OUT_OF_MEMORY : qxl_read_all(fd, der, size, &length);
    close(fd);
    // A DER CRL is a SEQUENCE; anything else is for the other readers.
    if (status == 0 && (length == 0 || der[0] != 0x30))
        status = QXL_ERR_NOT_A_CRL;
    CrlObject* made = nullptr;
    if (status == 0)
        made = static_cast<CrlObject*>(qxumalloc(ctx, sizeof(CrlObject), &status));
    R_CRL* decoded = nullptr;
    if (made != nullptr) {
        uint32_t consumed = 0;
        const int toolkit = R_CRL_from_binary_owned(libCtx, 0, length, der, &consumed, &decoded);
        if (toolkit == R_ERROR_ALLOC_FAILURE)
            status = QXL_ERR_OUT_OF_MEMORY;
        else if (toolkit == R_ERROR_DECODE || toolkit == R_ERROR_UNSUPPORTED)
            status = QXL_ERR_NOT_A_CRL;
        else if (toolkit != R_ERROR_NONE)
            status = QXL_ERR_TOOLKIT;
        // Bytes after the CRL may be more CRLs (PEM blocks among them): the
        // file is one DER CRL only when the CRL is all of it.
        if (toolkit == R_ERROR_NONE && consumed != length) {
            R_CRL_free(decoded); // with der, which it owned
            der = nullptr;
            status = QXL_ERR_NOT_A_CRL;
        }
    }
    if (status != 0) {
        R_BUFFER_free(der);
        qxumfree(ctx, &made);
        return status;
    }
    made->crl = decoded;
    *crl = made;
    return 0;
}
