// CRL entry objects: an empty holder that R_CRL_get_entry and
// R_CRL_find_entry fill with a copy of one revocation.
#include <cstring>
#include <new>

#include <openssl/asn1.h>
#include <openssl/crypto.h>
#include <openssl/err.h>

#include "r_objects.h"

namespace {

// The serial's content octets as DER has them, replacing the entry's copy
// only when they differ, so an item handed out earlier stays valid.
int refresh_serial(R_CRL_ENTRY* entry) {
    const ASN1_INTEGER* serial = X509_REVOKED_get0_serialNumber(entry->x509);
    unsigned char* der = nullptr;
    const int derLength = i2d_ASN1_INTEGER(serial, &der);
    if (derLength <= 0) {
        ERR_clear_error();
        return R_ERROR_FAILED;
    }
    const unsigned char* content = der;
    long contentLength = 0;
    int tag = 0;
    int tagClass = 0;
    const int header = ASN1_get_object(&content, &contentLength, &tag, &tagClass, derLength);
    if ((header & 0x80) != 0 || tag != V_ASN1_INTEGER || contentLength <= 0) {
        ERR_clear_error();
        OPENSSL_free(der);
        return R_ERROR_FAILED;
    }
    const auto length = static_cast<uint32_t>(contentLength);
    if (entry->serial != nullptr && entry->serialLength == length &&
        std::memcmp(entry->serial, content, length) == 0) {
        OPENSSL_free(der);
        return R_ERROR_NONE;
    }
    auto* copy = static_cast<unsigned char*>(OPENSSL_memdup(content, length));
    OPENSSL_free(der);
    if (copy == nullptr)
        return R_ERROR_ALLOC_FAILURE;
    OPENSSL_free(entry->serial);
    entry->serial = copy;
    entry->serialLength = length;
    return R_ERROR_NONE;
}

} // namespace

void r_crl_entry_set0(R_CRL_ENTRY* entry, X509_REVOKED* revoked) {
    X509_REVOKED_free(entry->x509);
    entry->x509 = revoked;
    OPENSSL_free(entry->serial);
    entry->serial = nullptr;
    entry->serialLength = 0;
}

extern "C" int R_CRL_ENTRY_new(R_LIB_CTX* libCtx, uint32_t flags, R_CRL_ENTRY** entry) {
    if (libCtx == nullptr || entry == nullptr)
        return R_ERROR_NULL_ARG;
    *entry = nullptr;
    if (flags != 0)
        return R_ERROR_FAILED;
    *entry = new (std::nothrow) R_CRL_ENTRY{nullptr, libCtx, nullptr, 0};
    return *entry == nullptr ? R_ERROR_ALLOC_FAILURE : R_ERROR_NONE;
}

extern "C" int R_CRL_ENTRY_get_info(R_CRL_ENTRY* entry, int id, void* value) {
    if (entry == nullptr || value == nullptr)
        return R_ERROR_NULL_ARG;
    if (id != R_CRL_ENTRY_INFO_SERIAL && id != R_CRL_ENTRY_INFO_REVOCATION_DATE)
        return R_ERROR_FAILED;
    if (entry->x509 == nullptr)
        return R_ERROR_NOT_PRESENT;
    if (id == R_CRL_ENTRY_INFO_SERIAL) {
        const int status = refresh_serial(entry);
        if (status != R_ERROR_NONE)
            return status;
        auto* item = static_cast<R_ITEM*>(value);
        item->len = entry->serialLength;
        item->data = entry->serial;
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
