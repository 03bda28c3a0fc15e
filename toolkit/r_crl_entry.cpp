// CRL entry objects: an empty holder that R_CRL_get_entry and
// R_CRL_find_entry fill with a copy of one revocation, or that a caller
// fills field by field before adding it to a CRL.

#include <cstring>

#include <openssl/asn1.h>
#include <openssl/crypto.h>
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
        // An entry being built may have its date but no serial yet.
        if (ASN1_STRING_length(X509_REVOKED_get0_serialNumber(entry->x509)) <= 0)
            return R_ERROR_NOT_PRESENT;
        if (entry->serial.der == nullptr) {
            const int status =
                r_integer_octets_keep(X509_REVOKED_get0_serialNumber(entry->x509), &entry->serial);
            if (status != R_ERROR_NONE)
                return status;
        }
        r_integer_octets_item(entry->serial, static_cast<R_ITEM*>(value));
        return R_ERROR_NONE;
    }
    const ASN1_TIME* date = X509_REVOKED_get0_revocationDate(entry->x509);
    if (date == nullptr || ASN1_STRING_length(date) <= 0)
        return R_ERROR_NOT_PRESENT;
    int64_t seconds = 0;
    if (!r_time_from_asn1(date, &seconds))
        return R_ERROR_DECODE;
    static_cast<R_TIME*>(value)->seconds = seconds;
    return R_ERROR_NONE;
}

namespace {

// The INTEGER whose DER content octets are content. DER decoding takes
// minimal octets as they are, a first byte with the high bit set reading as
// negative, so encoding gives the same octets back; padded (non-minimal)
// octets are refused.
ASN1_INTEGER* integer_of(const unsigned char* content, uint32_t length) {
    // Tag, at most five length octets, then the content.
    auto* der = static_cast<unsigned char*>(OPENSSL_malloc(size_t{length} + 6));
    if (der == nullptr)
        return nullptr;
    size_t size = 0;
    der[size++] = V_ASN1_INTEGER;
    if (length < 0x80) {
        der[size++] = static_cast<unsigned char>(length);
    } else {
        unsigned octets = 0;
        for (uint32_t rest = length; rest != 0; rest >>= 8)
            ++octets;
        der[size++] = static_cast<unsigned char>(0x80 | octets);
        for (unsigned i = octets; i > 0; --i)
            der[size++] = static_cast<unsigned char>(length >> (8 * (i - 1)));
    }
    std::memcpy(der + size, content, length);
    size += length;
    const unsigned char* cursor = der;
    ASN1_INTEGER* integer = d2i_ASN1_INTEGER(nullptr, &cursor, static_cast<long>(size));
    OPENSSL_free(der);
    if (integer == nullptr)
        ERR_clear_error();
    return integer;
}

int set_serial(X509_REVOKED* revoked, const R_ITEM* item) {
    if (item->len == 0 || item->data == nullptr)
        return R_ERROR_FAILED;
    ASN1_INTEGER* serial = integer_of(item->data, item->len);
    if (serial == nullptr)
        return R_ERROR_DECODE;
    const int set = X509_REVOKED_set_serialNumber(revoked, serial);
    ASN1_INTEGER_free(serial);
    if (set != 1) {
        ERR_clear_error();
        return R_ERROR_ALLOC_FAILURE;
    }
    return R_ERROR_NONE;
}

int set_date(X509_REVOKED* revoked, const R_TIME* time) {
    ASN1_TIME* date = nullptr;
    if (const int made = r_crl_time(time->seconds, &date); made != R_ERROR_NONE)
        return made;
    const int set = X509_REVOKED_set_revocationDate(revoked, date);
    ASN1_TIME_free(date);
    if (set != 1) {
        ERR_clear_error();
        return R_ERROR_ALLOC_FAILURE;
    }
    return R_ERROR_NONE;
}

} // namespace

extern "C" int R_CRL_ENTRY_set_info(R_CRL_ENTRY* entry, int id, const void* value) {
    if (entry == nullptr || value == nullptr)
        return R_ERROR_NULL_ARG;
    if (id != R_CRL_ENTRY_INFO_SERIAL && id != R_CRL_ENTRY_INFO_REVOCATION_DATE)
        return R_ERROR_FAILED;
    // An entry from R_CRL_ENTRY_new holds no revocation until its first field.
    X509_REVOKED* made = nullptr;
    if (entry->x509 == nullptr) {
        made = X509_REVOKED_new();
        if (made == nullptr) {
            ERR_clear_error();
            return R_ERROR_ALLOC_FAILURE;
        }
    }
    X509_REVOKED* revoked = made != nullptr ? made : entry->x509;
    const int status = id == R_CRL_ENTRY_INFO_SERIAL
                           ? set_serial(revoked, static_cast<const R_ITEM*>(value))
                           : set_date(revoked, static_cast<const R_TIME*>(value));
    if (status != R_ERROR_NONE) {
        X509_REVOKED_free(made);
        return status;
    }
    if (made != nullptr)
        r_crl_entry_set0(entry, made);
    else if (id == R_CRL_ENTRY_INFO_SERIAL)
        r_integer_octets_free(&entry->serial); // the kept octets were the old serial's
    return R_ERROR_NONE;
}

extern "C" int R_CRL_ENTRY_free(R_CRL_ENTRY* entry) {
    if (entry != nullptr) {
        r_crl_entry_set0(entry, nullptr);
        delete entry;
    }
    return R_ERROR_NONE;
}
