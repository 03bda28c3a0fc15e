// CRL entry objects: an empty holder that R_CRL_get_entry and
// R_CRL_find_entry fill with a copy of one revocation.

#include <openssl/err.h>

#include "r_objects.h"

void r_crl_entry_set0(R_CRL_ENTRY* entry, X509_REVOKED* revoked) {
    X509_REVOKED_free(entry->x509);
    entry->x509 = revoked;
    r_integer_octets_free(&entry->serial);
}

extern "C" int R_CRL_ENTRY_new(R_LIB_CTX* libCtx, uint32_t flags, R_CRL_ENTRY** entry) {
    return r_new_holder(libCtx, flags, entry);
}

extern "C" int R_CRL_ENTRY_get_info(R_CRL_ENTRY* entry, int id, void* value) {
    if (entry == nullptr || value == nullptr)
        return R_ERROR_NULL_ARG;
    if (id != R_CRL_ENTRY_INFO_SERIAL && id != R_CRL_ENTRY_INFO_REVOCATION_DATE)
        return R_ERROR_FAILED;
    if (entry->x509 == nullptr)
        return R_ERROR_NOT_PRESENT;
    if (id == R_CRL_ENTRY_INFO_SERIAL) {
        if (entry->serial.der == nullptr) {
            const int status =
                r_integer_octets_keep(X509_REVOKED_get0_serialNumber(entry->x509), &entry->serial);
            if (status != R_ERROR_NONE)
                return status;
        }
        r_integer_octets_item(entry->serial, static_cast<R_ITEM*>(value));
        return R_ERROR_NONE;
    }
    int64_t seconds = 0;
    if (!r_time_from_asn1(X509_REVOKED_get0_revocationDate(entry->x509), &seconds))
        return R_ERROR_DECODE;
    static_cast<R_TIME*>(value)->seconds = seconds;
    return R_ERROR_NONE;
}

extern "C" int R_CRL_ENTRY_free(R_CRL_ENTRY* entry) {
    if (entry != nullptr) {
        r_crl_entry_set0(entry, nullptr);
        delete entry;
    }
    return R_ERROR_NONE;
}
