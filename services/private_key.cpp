// Issuers' private keys: whatever form they arrive in, the layer keeps one,
// unencrypted PKCS#8 DER in its own allocator, and makes a toolkit key from
// it only for the time of an operation. Key bytes are wiped before any
// block that held them is released.
#include "toolkit_access.h"
#include "whole_file.h"

namespace {

StatusCode from_toolkit(int status) {
    switch (status) {
    case R_ERROR_NONE:
        return 0;
    case R_ERROR_DECODE:
        return QXL_ERR_KEY;
    case R_ERROR_ALLOC_FAILURE:
        return QXL_ERR_OUT_OF_MEMORY;
    default:
        return QXL_ERR_TOOLKIT;
    }
}

void release(SecurityContext* ctx, QxPrivateKey* key) {
    if (key->pkcs8 != nullptr)
        qxl_wipe(key->pkcs8, key->length);
    qxumfree(ctx, &key->pkcs8);
    qxumfree(ctx, &key);
}

// The toolkit key re-encoded as PKCS#8 into a new record.
StatusCode keep(SecurityContext* ctx, R_PKEY* pkey, QxPrivateKey** out) {
    uint32_t length = 0;
    StatusCode status = from_toolkit(R_PKEY_to_binary(pkey, 0, nullptr, &length));
    if (status != 0)
        return status;
    if (length == 0)
        return QXL_ERR_TOOLKIT;
    auto* key = static_cast<QxPrivateKey*>(qxumalloc(ctx, sizeof(QxPrivateKey), &status));
    if (key == nullptr)
        return status;
    *key = QxPrivateKey{};
    key->pkcs8 = static_cast<unsigned char*>(qxumalloc(ctx, length, &status));
    if (key->pkcs8 != nullptr) {
        key->length = length;
        status = from_toolkit(R_PKEY_to_binary(pkey, length, key->pkcs8, &key->length));
    }
    if (status == 0 && key->length != length)
        status = QXL_ERR_TOOLKIT;
    if (status != 0) {
        key->length = length;
        release(ctx, key);
        return status;
    }
    *out = key;
    return 0;
}

} // namespace

extern "C" StatusCode qxdk_key_from_bytes(SecurityContext* ctx, const unsigned char* bytes,
                                          uint32_t length, const char* passphrase,
                                          QxPrivateKey** key) {
    if (key == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    *key = nullptr;
    R_LIB_CTX* libCtx = qxl_toolkit_context(ctx);
    if (libCtx == nullptr || (bytes == nullptr && length != 0))
        return QXL_ERR_BAD_ARGUMENT;
    if (length == 0)
        return QXL_ERR_KEY;
    R_PKEY* pkey = nullptr;
    StatusCode status = from_toolkit(R_PKEY_from_bytes(libCtx, length, bytes, passphrase, &pkey));
    if (status == 0)
        status = keep(ctx, pkey, key);
    R_PKEY_free(pkey);
    return status;
}

extern "C" StatusCode qxdk_key_from_file(SecurityContext* ctx, const char* path,
                                         const char* passphrase, QxPrivateKey** key) {
    if (key == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    *key = nullptr;
    if (qxl_toolkit_context(ctx) == nullptr || path == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    unsigned char* bytes = nullptr;
    uint32_t length = 0;
    StatusCode status = qxfile_read_whole(ctx, path, &bytes, &length);
    if (status != 0)
        return status;
    status = qxdk_key_from_bytes(ctx, bytes, length, passphrase, key);
    qxl_wipe(bytes, length);
    qxumfree(ctx, &bytes);
    return status;
}

extern "C" void qxdk_key_free(SecurityContext* ctx, QxPrivateKey** key) {
    if (key == nullptr || *key == nullptr)
        return;
    release(ctx, *key);
    *key = nullptr;
}

extern "C" StatusCode qxdk_pvtkey_to_obj(SecurityContext* ctx, const QxPrivateKey* key,
                                         R_PKEY** object) {
    if (object == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    *object = nullptr;
    R_LIB_CTX* libCtx = qxl_toolkit_context(ctx);
    if (libCtx == nullptr || key == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    if (key->pkcs8 == nullptr || key->length == 0)
        return QXL_ERR_KEY;
    // No passphrase: what the layer keeps is never encrypted.
    const StatusCode status =
        from_toolkit(R_PKEY_from_bytes(libCtx, key->length, key->pkcs8, nullptr, object));
    if (status != 0) {
        R_PKEY_free(*object);
        *object = nullptr;
    }
    return status;
}
