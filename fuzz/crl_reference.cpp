#include "crl_reference.h"

#include <cstdio>
#include <cstdlib>

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include "toolkit/r_toolkit.h"

namespace qxfuzz::reference {

namespace {

// The reference could not read what OpenSSL already accepted: a fault of
// this file, not of the toolkit.
[[noreturn]] void reference_fault(const char* what) {
    std::fprintf(stderr, "crl_differential: reference fault: %s\n", what);
    std::abort();
}

// An extension the toolkit refuses the CRL for: refused in any case, or
// critical and not processed.
bool refused(const STACK_OF(X509_EXTENSION) * extensions, int inEntry) {
    for (int i = 0; i < sk_X509_EXTENSION_num(extensions); ++i) {
        const X509_EXTENSION* extension = sk_X509_EXTENSION_value(extensions, i);
        const int handling = R_CRL_extension_handling(
            OBJ_obj2nid(X509_EXTENSION_get_object(const_cast<X509_EXTENSION*>(extension))),
            inEntry);
        if (handling == R_CRL_EXT_REFUSED ||
            (X509_EXTENSION_get_critical(extension) && handling != R_CRL_EXT_PROCESSED))
            return true;
    }
    return false;
}

// Whether an Issuing Distribution Point gives the CRL a scope: one that
// OpenSSL reads (exactly one of them), that says something, that sets at
// most one "only contains" flag, and whose point name can be made whole
// with the CRL's issuer.
bool scope_readable(const X509_CRL* crl) {
    int critical = 0;
    auto* idp = static_cast<ISSUING_DIST_POINT*>(
        X509_CRL_get_ext_d2i(crl, NID_issuing_distribution_point, &critical, nullptr));
    if (idp == nullptr) {
        ERR_clear_error();
        return critical == -1;
    }
    unsigned char* der = nullptr;
    const int length = i2d_ISSUING_DIST_POINT(idp, &der);
    OPENSSL_free(der);
    if (length <= 0)
        reference_fault("i2d_ISSUING_DIST_POINT");
    // Every field absent or at its default: an empty SEQUENCE.
    const bool says_something = length > 2;
    const int flags = (idp->onlyuser != 0) + (idp->onlyCA != 0) + (idp->onlyattr != 0);
    const bool named = idp->distpoint == nullptr ||
                       DIST_POINT_set_dpname(idp->distpoint, X509_CRL_get_issuer(crl)) == 1;
    ERR_clear_error();
    ISSUING_DIST_POINT_free(idp);
    return says_something && flags <= 1 && named;
}

} // namespace

int decode_status(const X509_CRL* crl) {
    if (refused(X509_CRL_get0_extensions(crl), 0))
        return R_ERROR_UNSUPPORTED;
    STACK_OF(X509_REVOKED)* entries = X509_CRL_get_REVOKED(const_cast<X509_CRL*>(crl));
    for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
        if (refused(X509_REVOKED_get0_extensions(sk_X509_REVOKED_value(entries, i)), 1))
            return R_ERROR_UNSUPPORTED;
    }
    return scope_readable(crl) ? R_ERROR_NONE : R_ERROR_UNSUPPORTED;
}

int signature_algorithm(const X509_CRL* crl, uint32_t* value) {
    const ASN1_BIT_STRING* signature = nullptr;
    const X509_ALGOR* algorithm = nullptr;
    X509_CRL_get0_signature(crl, &signature, &algorithm);
    const ASN1_OBJECT* oid = nullptr;
    int parameterType = V_ASN1_UNDEF;
    const void* parameter = nullptr;
    X509_ALGOR_get0(&oid, &parameterType, &parameter, algorithm);
    const int nid = OBJ_obj2nid(oid);
    if (nid == NID_undef)
        return R_ERROR_NOT_PRESENT;
    if (nid != NID_rsassaPss) {
        *value = static_cast<uint32_t>(nid);
        return R_ERROR_NONE;
    }
    // RSASSA-PSS names its hash in its parameters; SHA-1 when they leave it out.
    int hash = NID_sha1;
    if (parameterType != V_ASN1_UNDEF) {
        if (parameterType != V_ASN1_SEQUENCE)
            return R_ERROR_DECODE;
        const auto* sequence = static_cast<const ASN1_STRING*>(parameter);
        const unsigned char* cursor = ASN1_STRING_get0_data(sequence);
        RSA_PSS_PARAMS* params = d2i_RSA_PSS_PARAMS(nullptr, &cursor, ASN1_STRING_length(sequence));
        if (params == nullptr) {
            ERR_clear_error();
            return R_ERROR_DECODE;
        }
        if (params->hashAlgorithm != nullptr)
            hash = OBJ_obj2nid(params->hashAlgorithm->algorithm);
        RSA_PSS_PARAMS_free(params);
        if (hash == NID_undef)
            return R_ERROR_DECODE;
    }
    *value = R_SIG_ALG_RSA_PSS_BASE + static_cast<uint32_t>(hash);
    return R_ERROR_NONE;
}

Time time_of(const ASN1_TIME* time) {
    Time read{R_ERROR_NOT_PRESENT, 0, {}};
    if (time == nullptr || ASN1_STRING_length(time) <= 0)
        return read;
    if (ASN1_TIME_to_tm(time, &read.calendar) != 1) {
        ERR_clear_error();
        read.status = R_ERROR_DECODE;
        return read;
    }
    static ASN1_TIME* const epoch = ASN1_TIME_set(nullptr, 0);
    int days = 0;
    int seconds = 0;
    if (epoch == nullptr || ASN1_TIME_diff(&days, &seconds, epoch, time) != 1)
        reference_fault("ASN1_TIME_diff of a time ASN1_TIME_to_tm read");
    read.status = R_ERROR_NONE;
    read.seconds = int64_t{days} * 86400 + seconds;
    return read;
}

Bytes integer_content(const ASN1_INTEGER* integer) {
    unsigned char* der = nullptr;
    const int size = i2d_ASN1_INTEGER(integer, &der);
    if (size <= 0)
        reference_fault("i2d_ASN1_INTEGER");
    const unsigned char* content = der;
    long length = 0;
    int tag = 0;
    int tagClass = 0;
    if ((ASN1_get_object(&content, &length, &tag, &tagClass, size) & 0x80) != 0)
        reference_fault("ASN1_get_object on an encoded INTEGER");
    Bytes octets(content, content + length);
    OPENSSL_free(der);
    return octets;
}

Extension extension_of(const X509_EXTENSION* extension) {
    const ASN1_OBJECT* oid = X509_EXTENSION_get_object(const_cast<X509_EXTENSION*>(extension));
    const unsigned char* oidData = OBJ_get0_data(oid);
    const ASN1_OCTET_STRING* value =
        X509_EXTENSION_get_data(const_cast<X509_EXTENSION*>(extension));
    const unsigned char* valueData = ASN1_STRING_get0_data(value);
    return {Bytes(oidData, oidData + OBJ_length(oid)),
            X509_EXTENSION_get_critical(extension) ? 1u : 0u,
            Bytes(valueData, valueData + ASN1_STRING_length(value))};
}

bool removed_from_crl(const X509_REVOKED* entry) {
    auto* reason = static_cast<ASN1_ENUMERATED*>(
        X509_REVOKED_get_ext_d2i(entry, NID_crl_reason, nullptr, nullptr));
    ERR_clear_error();
    const bool removed =
        reason != nullptr && ASN1_ENUMERATED_get(reason) == CRL_REASON_REMOVE_FROM_CRL;
    ASN1_ENUMERATED_free(reason);
    ERR_clear_error();
    return removed;
}

namespace {

// The universal types OpenSSL collects from a constructed encoding.
bool string_type(unsigned number) {
    return number == V_ASN1_BIT_STRING || number == V_ASN1_OCTET_STRING ||
           number == V_ASN1_UTF8STRING ||
           (number >= V_ASN1_NUMERICSTRING && number <= V_ASN1_BMPSTRING);
}

// Walks the elements in [at, end), into constructed ones, up to a depth.
bool ber_only_in(const unsigned char* at, const unsigned char* end, int depth) {
    while (at < end && depth < 64) {
        const unsigned char tag = *at++;
        if ((tag & 0x1f) == 0x1f)
            return true;
        if (at == end)
            return false;
        const unsigned char first = *at++;
        if (first == 0x80)
            return true;
        uint64_t length = first;
        if ((first & 0x80) != 0) {
            length = 0;
            for (unsigned i = 0; i < (first & 0x7fu); ++i) {
                if (at == end || length > (UINT64_MAX >> 8))
                    return false;
                length = length << 8 | *at++;
            }
        }
        if (length > static_cast<uint64_t>(end - at))
            return false;
        const bool constructed = (tag & 0x20) != 0;
        const bool universal = (tag & 0xc0) == 0;
        if (constructed && universal && string_type(tag & 0x1fu))
            return true;
        // OpenSSL reads a SEQUENCE OF or SET OF under the primitive form of
        // its tag as well, so what is inside one is read as elements too.
        const bool list =
            universal && ((tag & 0x1fu) == V_ASN1_SEQUENCE || (tag & 0x1fu) == V_ASN1_SET);
        if ((constructed || list) && ber_only_in(at, at + length, depth + 1))
            return true;
        at += length;
    }
    return false;
}

} // namespace

bool ber_only(const unsigned char* der, size_t length) {
    return ber_only_in(der, der + length, 0);
}

bool algorithms_differ(const unsigned char* der, size_t length, const X509_CRL* crl) {
    // The signed part's identifier, found in the bytes: OpenSSL 3.0 has no getter for it.
    const unsigned char* at = der;
    long content = 0;
    int tag = 0;
    int tagClass = 0;
    if ((ASN1_get_object(&at, &content, &tag, &tagClass, static_cast<long>(length)) & 0x80) != 0 ||
        (ASN1_get_object(&at, &content, &tag, &tagClass, der + length - at) & 0x80) != 0)
        return false;
    const unsigned char* tbsEnd = at + content;
    const unsigned char* field = at;
    if ((ASN1_get_object(&at, &content, &tag, &tagClass, tbsEnd - at) & 0x80) != 0)
        return false;
    if (tag == V_ASN1_INTEGER && tagClass == V_ASN1_UNIVERSAL)
        field = at + content;
    X509_ALGOR* inner = d2i_X509_ALGOR(nullptr, &field, tbsEnd - field);
    const ASN1_BIT_STRING* signature = nullptr;
    const X509_ALGOR* outer = nullptr;
    X509_CRL_get0_signature(crl, &signature, &outer);
    const bool differ = inner != nullptr && X509_ALGOR_cmp(outer, inner) != 0;
    X509_ALGOR_free(inner);
    return differ;
}

} // namespace qxfuzz::reference
