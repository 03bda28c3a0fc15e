// Reading a CRL: its fields by info identifier, its entries, and its issuer.
#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/obj_mac.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include "r_objects.h"

// Callers store these numbers, so they must stay the NIDs they stand for.
static_assert(R_SIG_ALG_MD5_WITH_RSA == NID_md5WithRSAEncryption);
static_assert(R_SIG_ALG_SHA1_WITH_RSA == NID_sha1WithRSAEncryption);
static_assert(R_SIG_ALG_SHA256_WITH_RSA == NID_sha256WithRSAEncryption);
static_assert(R_SIG_ALG_SHA384_WITH_RSA == NID_sha384WithRSAEncryption);
static_assert(R_SIG_ALG_SHA512_WITH_RSA == NID_sha512WithRSAEncryption);
static_assert(R_SIG_ALG_ECDSA_SHA256 == NID_ecdsa_with_SHA256);
static_assert(R_SIG_ALG_ECDSA_SHA384 == NID_ecdsa_with_SHA384);
static_assert(R_SIG_ALG_ECDSA_SHA512 == NID_ecdsa_with_SHA512);
static_assert(R_SIG_ALG_ED25519 == NID_ED25519);
static_assert(R_SIG_ALG_ED448 == NID_ED448);
static_assert(R_SIG_ALG_RSA_PSS_SHA256 == R_SIG_ALG_RSA_PSS_BASE + NID_sha256);
static_assert(R_SIG_ALG_RSA_PSS_SHA384 == R_SIG_ALG_RSA_PSS_BASE + NID_sha384);
static_assert(R_SIG_ALG_RSA_PSS_SHA512 == R_SIG_ALG_RSA_PSS_BASE + NID_sha512);

namespace {

// The hash of an RSASSA-PSS signature, from its AlgorithmIdentifier
// parameters; RFC 4055 makes SHA-1 the default when they leave it out.
int pss_hash_nid(const X509_ALGOR* algorithm, int* hashNid) {
    const ASN1_TYPE* parameter = algorithm->parameter;
    if (parameter == nullptr || parameter->type == V_ASN1_UNDEF) {
        *hashNid = NID_sha1;
        return R_ERROR_NONE;
    }
    if (parameter->type != V_ASN1_SEQUENCE)
        return R_ERROR_DECODE;
    auto* params = static_cast<RSA_PSS_PARAMS*>(
        ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(RSA_PSS_PARAMS), parameter));
    if (params == nullptr) {
        ERR_clear_error();
        return R_ERROR_DECODE;
    }
    int status = R_ERROR_NONE;
    if (params->hashAlgorithm == nullptr) {
        *hashNid = NID_sha1;
    } else {
        *hashNid = OBJ_obj2nid(params->hashAlgorithm->algorithm);
        if (*hashNid == NID_undef)
            status = R_ERROR_DECODE;
    }
    RSA_PSS_PARAMS_free(params);
    return status;
}

int signature_algorithm(const X509_CRL* crl, uint32_t* value) {
    const int nid = X509_CRL_get_signature_nid(crl);
    if (nid == NID_undef)
        return R_ERROR_NOT_PRESENT;
    if (nid != NID_rsassaPss) {
        *value = static_cast<uint32_t>(nid);
        return R_ERROR_NONE;
    }
    const ASN1_BIT_STRING* signature = nullptr;
    const X509_ALGOR* algorithm = nullptr;
    X509_CRL_get0_signature(crl, &signature, &algorithm);
    if (algorithm == nullptr)
        return R_ERROR_NOT_PRESENT;
    int hashNid = NID_undef;
    const int status = pss_hash_nid(algorithm, &hashNid);
    if (status == R_ERROR_NONE)
        *value = R_SIG_ALG_RSA_PSS_BASE + static_cast<uint32_t>(hashNid);
    return status;
}

int update_time(const ASN1_TIME* asn1, R_TIME* time) {
    if (asn1 == nullptr || ASN1_STRING_length(asn1) == 0)
        return R_ERROR_NOT_PRESENT;
    int64_t seconds = 0;
    if (!r_time_from_asn1(asn1, &seconds))
        return R_ERROR_DECODE;
    time->seconds = seconds;
    return R_ERROR_NONE;
}

int crl_number(const X509_CRL* crl, R_EXT* ext) {
    const int index = X509_CRL_get_ext_by_NID(crl, NID_crl_number, -1);
    if (index < 0)
        return R_ERROR_NOT_PRESENT;
    return r_ext_fill(ext, X509_CRL_get_ext(crl, index));
}

// Fills entry with a copy of revoked.
int fill_entry(const X509_REVOKED* revoked, R_CRL_ENTRY* entry) {
    X509_REVOKED* copy = X509_REVOKED_dup(revoked);
    if (copy == nullptr) {
        ERR_clear_error();
        return R_ERROR_ALLOC_FAILURE;
    }
    r_crl_entry_set0(entry, copy);
    return R_ERROR_NONE;
}

} // namespace

extern "C" int R_CRL_get_info(R_CRL* crl, int id, void* value) {
    if (crl == nullptr || crl->x509 == nullptr || value == nullptr)
        return R_ERROR_NULL_ARG;
    switch (id) {
    case R_CRL_INFO_ISSUER_NAME: {
        const unsigned char* der = nullptr;
        size_t length = 0;
        if (X509_NAME_get0_der(X509_CRL_get_issuer(crl->x509), &der, &length) != 1) {
            ERR_clear_error();
            return R_ERROR_FAILED;
        }
        auto* item = static_cast<R_ITEM*>(value);
        item->len = static_cast<uint32_t>(length);
        // R_ITEM is not const; the bytes stay the CRL's and are only read.
        item->data = const_cast<unsigned char*>(der);
        return R_ERROR_NONE;
    }
    case R_CRL_INFO_SIGNATURE_ALGORITHM:
        return signature_algorithm(crl->x509, static_cast<uint32_t*>(value));
    case R_CRL_INFO_VERSION:
        *static_cast<uint32_t*>(value) = static_cast<uint32_t>(X509_CRL_get_version(crl->x509));
        return R_ERROR_NONE;
    case R_CRL_INFO_CRL_NUMBER:
        return crl_number(crl->x509, static_cast<R_EXT*>(value));
    case R_CRL_INFO_THIS_UPDATE:
        return update_time(X509_CRL_get0_lastUpdate(crl->x509), static_cast<R_TIME*>(value));
    case R_CRL_INFO_NEXT_UPDATE:
        return update_time(X509_CRL_get0_nextUpdate(crl->x509), static_cast<R_TIME*>(value));
    default:
        return R_ERROR_FAILED;
    }
}

extern "C" int R_CRL_get_entry_count(R_CRL* crl, uint32_t* count) {
    if (crl == nullptr || crl->x509 == nullptr || count == nullptr)
        return R_ERROR_NULL_ARG;
    const int number = sk_X509_REVOKED_num(X509_CRL_get_REVOKED(crl->x509));
    // A CRL without entries may have no list at all, which counts -1.
    *count = number > 0 ? static_cast<uint32_t>(number) : 0;
    return R_ERROR_NONE;
}

extern "C" int R_CRL_get_entry(R_CRL* crl, uint32_t index, R_CRL_ENTRY* entry) {
    if (crl == nullptr || crl->x509 == nullptr || entry == nullptr)
        return R_ERROR_NULL_ARG;
    STACK_OF(X509_REVOKED)* revoked = X509_CRL_get_REVOKED(crl->x509);
    const int number = sk_X509_REVOKED_num(revoked);
    if (number <= 0 || index >= static_cast<uint32_t>(number))
        return R_ERROR_NOT_PRESENT;
    return fill_entry(sk_X509_REVOKED_value(revoked, static_cast<int>(index)), entry);
}

extern "C" int R_CRL_find_entry(R_CRL* crl, R_CERT* cert, R_CRL_ENTRY* entry) {
    if (crl == nullptr || crl->x509 == nullptr || cert == nullptr || cert->x509 == nullptr ||
        entry == nullptr)
        return R_ERROR_NULL_ARG;
    if (const int scope = R_CRL_check_scope(crl, cert); scope != R_ERROR_NONE)
        return scope;
    const ASN1_INTEGER* serial = X509_get0_serialNumber(cert->x509);
    if (serial == nullptr)
        return R_ERROR_FAILED;
    X509_REVOKED* found = nullptr;
    // Sorts the entries by serial once (under the CRL's lock), then searches.
    const int result = X509_CRL_get0_by_serial(crl->x509, &found, serial);
    // 2 is an entry whose reason is removeFromCRL: the certificate is no
    // longer revoked.
    if (result != 1 || found == nullptr) {
        ERR_clear_error();
        return R_ERROR_NOT_FOUND;
    }
    return fill_entry(found, entry);
}

extern "C" int R_CRL_issuer_name_to_binary(R_CRL* crl, uint32_t bufferSize, unsigned char* buffer,
                                           uint32_t* length) {
    if (crl == nullptr || crl->x509 == nullptr || length == nullptr ||
        (buffer == nullptr && bufferSize != 0))
        return R_ERROR_NULL_ARG;
    // The bytes as received, so hashes and comparisons match other tools.
    return r_name_der_out(X509_CRL_get_issuer(crl->x509), bufferSize, buffer, length);
}
