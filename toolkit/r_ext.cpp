// Extension objects: an empty holder that R_CRL_get_info fills.

#include "r_objects.h"

extern "C" int R_EXT_new(R_LIB_CTX* libCtx, uint32_t flags, R_EXT** ext) {
    return r_new_holder(libCtx, flags, ext);
}

extern "C" int R_EXT_get_info(R_EXT* ext, int id, void* value) {
    if (ext == nullptr || value == nullptr)
        return R_ERROR_NULL_ARG;
    if (id != R_EXT_INFO_VALUE)
        return R_ERROR_FAILED;
    if (ext->x509 == nullptr)
        return R_ERROR_NOT_PRESENT;
    ASN1_OCTET_STRING* data = X509_EXTENSION_get_data(ext->x509);
    if (data == nullptr)
        return R_ERROR_NOT_PRESENT;
    auto* item = static_cast<R_ITEM*>(value);
    item->len = static_cast<uint32_t>(ASN1_STRING_length(data));
    // R_ITEM is not const, but callers only read bytes owned by the extension.
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
