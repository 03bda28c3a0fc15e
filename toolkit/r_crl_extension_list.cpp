// The extensions of a CRL and of its entries, in the order received: how
// many there are, and a copy of one by its index.
#include <openssl/x509.h>

#include "r_objects.h"

namespace {

uint32_t count_of(const STACK_OF(X509_EXTENSION) * extensions) {
    // An absent list counts -1.
    const int number = sk_X509_EXTENSION_num(extensions);
    return number > 0 ? static_cast<uint32_t>(number) : 0;
}

int copy_of(const STACK_OF(X509_EXTENSION) * extensions, uint32_t index, R_EXT* ext) {
    if (index >= count_of(extensions))
        return R_ERROR_NOT_PRESENT;
    return r_ext_fill(ext, sk_X509_EXTENSION_value(extensions, static_cast<int>(index)));
}

} // namespace

extern "C" int R_CRL_get_extension_count(R_CRL* crl, uint32_t* count) {
    if (crl == nullptr || crl->x509 == nullptr || count == nullptr)
        return R_ERROR_NULL_ARG;
    *count = count_of(X509_CRL_get0_extensions(crl->x509));
    return R_ERROR_NONE;
}

extern "C" int R_CRL_get_extension(R_CRL* crl, uint32_t index, R_EXT* ext) {
    if (crl == nullptr || crl->x509 == nullptr || ext == nullptr)
        return R_ERROR_NULL_ARG;
    return copy_of(X509_CRL_get0_extensions(crl->x509), index, ext);
}

extern "C" int R_CRL_ENTRY_get_extension_count(R_CRL_ENTRY* entry, uint32_t* count) {
    if (entry == nullptr || count == nullptr)
        return R_ERROR_NULL_ARG;
    // An entry being built has no revocation until its first field.
    *count = entry->x509 == nullptr ? 0 : count_of(X509_REVOKED_get0_extensions(entry->x509));
    return R_ERROR_NONE;
}

extern "C" int R_CRL_ENTRY_get_extension(R_CRL_ENTRY* entry, uint32_t index, R_EXT* ext) {
    if (entry == nullptr || ext == nullptr)
        return R_ERROR_NULL_ARG;
    if (entry->x509 == nullptr)
        return R_ERROR_NOT_PRESENT;
    return copy_of(X509_REVOKED_get0_extensions(entry->x509), index, ext);
}
