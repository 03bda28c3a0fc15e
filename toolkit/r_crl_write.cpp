// Writing a CRL: its version and update times, and adding entries.
#include <openssl/asn1.h>
#include <openssl/err.h>

#include "r_objects.h"

namespace {

int set_update(X509_CRL* crl, int id, const R_TIME* time) {
    ASN1_TIME* asn1 = nullptr;
    if (const int made = r_crl_time(time->seconds, &asn1); made != R_ERROR_NONE)
        return made;
    // The setters copy the time and replace the old one only once the copy exists.
    const int set = id == R_CRL_INFO_THIS_UPDATE ? X509_CRL_set1_lastUpdate(crl, asn1)
                                                 : X509_CRL_set1_nextUpdate(crl, asn1);
    ASN1_TIME_free(asn1);
    if (set != 1) {
        ERR_clear_error();
        return R_ERROR_ALLOC_FAILURE;
    }
    return R_ERROR_NONE;
}

int set_version(X509_CRL* crl, uint32_t version) {
    // Only v2 can be set: a v1 CRL has no version field at all, and OpenSSL
    // has no call that takes one away again.
    if (version != 1)
        return R_ERROR_FAILED;
    if (X509_CRL_set_version(crl, X509_CRL_VERSION_2) != 1) {
        ERR_clear_error();
        return R_ERROR_ALLOC_FAILURE;
    }
    return R_ERROR_NONE;
}

} // namespace

extern "C" int R_CRL_set_info(R_CRL* crl, int id, const void* value) {
    if (crl == nullptr || crl->x509 == nullptr || value == nullptr)
        return R_ERROR_NULL_ARG;
    int status = R_ERROR_FAILED;
    switch (id) {
    case R_CRL_INFO_THIS_UPDATE:
    case R_CRL_INFO_NEXT_UPDATE:
        status = set_update(crl->x509, id, static_cast<const R_TIME*>(value));
        break;
    case R_CRL_INFO_VERSION:
        status = set_version(crl->x509, *static_cast<const uint32_t*>(value));
        break;
    default:
        return R_ERROR_FAILED;
    }
    if (status == R_ERROR_NONE)
        r_crl_changed(crl);
    return status;
}

extern "C" int R_CRL_add_entry(R_CRL* crl, R_CRL_ENTRY* entry) {
    if (crl == nullptr || crl->x509 == nullptr || entry == nullptr)
        return R_ERROR_NULL_ARG;
    if (entry->x509 == nullptr)
        return R_ERROR_NOT_PRESENT;
    // An entry needs both of its fields to encode; a new one has them empty.
    const ASN1_TIME* date = X509_REVOKED_get0_revocationDate(entry->x509);
    if (ASN1_STRING_length(X509_REVOKED_get0_serialNumber(entry->x509)) <= 0 || date == nullptr ||
        ASN1_STRING_length(date) <= 0)
        return R_ERROR_NOT_PRESENT;
    X509_REVOKED* copy = X509_REVOKED_dup(entry->x509);
    if (copy == nullptr) {
        ERR_clear_error();
        return R_ERROR_ALLOC_FAILURE;
    }
    if (X509_CRL_add0_revoked(crl->x509, copy) != 1) {
        X509_REVOKED_free(copy);
        ERR_clear_error();
        return R_ERROR_ALLOC_FAILURE;
    }
    // OpenSSL 3.0 marks the list changed itself; said here too, so that every
    // setter keeps the same promise whatever OpenSSL does.
    r_crl_changed(crl);
    return R_ERROR_NONE;
}
