// Extension objects: an empty holder that R_CRL_get_info and the extension
// lists fill, and what it holds: the OID, the critical flag and the value.

#include <openssl/err.h>
#include <openssl/objects.h>

#include "r_objects.h"

extern "C" int R_EXT_new(R_LIB_CTX* libCtx, uint32_t flags, R_EXT** ext) {
    return r_new_holder(libCtx, flags, ext);
}

int r_ext_fill(R_EXT* ext, const X509_EXTENSION* extension) {
    X509_EXTENSION* copy = X509_EXTENSION_dup(extension);
    if (copy == nullptr) {
        ERR_clear_error();
        return R_ERROR_ALLOC_FAILURE;
    }
    X509_EXTENSION_free(ext->x509);
    ext->x509 = copy;
    return R_ERROR_NONE;
}

extern "C" int R_EXT_get_info(R_EXT* ext, int id, void* value) {
    if (ext == nullptr || value == nullptr)
        return R_ERROR_NULL_ARG;
    if (id != R_EXT_INFO_VALUE && id != R_EXT_INFO_OID && id != R_EXT_INFO_CRITICAL)
        return R_ERROR_FAILED;
    if (ext->x509 == nullptr)
        return R_ERROR_NOT_PRESENT;
    if (id == R_EXT_INFO_CRITICAL) {
        *static_cast<uint32_t*>(value) = X509_EXTENSION_get_critical(ext->x509) ? 1u : 0u;
        return R_ERROR_NONE;
    }
    // R_ITEM is not const, but callers only read bytes owned by the extension.
    auto* item = static_cast<R_ITEM*>(value);
    if (id == R_EXT_INFO_OID) {
        const ASN1_OBJECT* oid = X509_EXTENSION_get_object(ext->x509);
        const size_t length = oid == nullptr ? 0 : OBJ_length(oid);
        if (length == 0)
            return R_ERROR_NOT_PRESENT;
        item->len = static_cast<uint32_t>(length);
        item->data = const_cast<unsigned char*>(OBJ_get0_data(oid));
        return R_ERROR_NONE;
    }
    ASN1_OCTET_STRING* data = X509_EXTENSION_get_data(ext->x509);
    if (data == nullptr)
        return R_ERROR_NOT_PRESENT;
    item->len = static_cast<uint32_t>(ASN1_STRING_length(data));
    item->data = const_cast<unsigned char*>(ASN1_STRING_get0_data(data));
    return R_ERROR_NONE;
}

extern "C" int R_EXT_free(R_EXT* ext) {
    if (ext != nullptr) {
        X509_EXTENSION_free(ext->x509);
        delete ext;
    }
    return R_ERROR_NONE;
}
