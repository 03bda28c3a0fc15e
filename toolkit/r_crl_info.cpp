// Reading a CRL: its fields by info identifier, its entries, and its issuer.
#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/obj_mac.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <cstring>

#include "r_crl_parts.h"

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

int signature_algorithm(const X509_ALGOR* algorithm, uint32_t* value) {
    if (algorithm == nullptr)
        return R_ERROR_NOT_PRESENT;
    const int nid = OBJ_obj2nid(algorithm->algorithm);
    if (nid == NID_undef)
        return R_ERROR_NOT_PRESENT;
    if (nid != NID_rsassaPss) {
        *value = static_cast<uint32_t>(nid);
        return R_ERROR_NONE;
    }
    int hashNid = NID_undef;
    const int status = pss_hash_nid(algorithm, &hashNid);
    if (status == R_ERROR_NONE)
        *value = R_SIG_ALG_RSA_PSS_BASE + static_cast<uint32_t>(hashNid);
    return status;
}

// The version as OpenSSL gives it: the INTEGER when it fits in 64 bits, -1
// when it does not, 0 (v1) when absent.
uint32_t version_of(const R_CRL* crl) {
    const RCrlSpan& part = crl->parts[R_PART_VERSION];
    if (part.length == 0)
        return 0;
    RDer in = r_crl_view(crl, part);
    RDerElement integer;
    r_der_next(&in, &integer);
    const RDer& octets = integer.content;
    // DER needs nine octets only for values past 64 bits.
    if (octets.length > 8)
        return UINT32_MAX;
    uint64_t value = (octets.data[0] & 0x80) != 0 ? UINT64_MAX : 0;
    for (size_t i = 0; i < octets.length; ++i)
        value = value << 8 | octets.data[i];
    return static_cast<uint32_t>(value);
}

int crl_number(const R_CRL* crl, R_EXT* ext) {
    RDer list = r_crl_view(crl, crl->index.extensionList);
    RExtView view;
    while (r_ext_next(&list, &view)) {
        if (r_ext_nid(view.oid) == NID_crl_number)
            return r_ext_fill(ext, view);
    }
    return R_ERROR_NOT_PRESENT;
}

} // namespace

int r_time_of_element(const RDer& element, int64_t* seconds) {
    RDer in = element;
    RDerElement time;
    if (!r_der_next(&in, &time))
        return R_ERROR_DECODE;
    ASN1_STRING asn1{};
    asn1.type = time.tag == r_der_utc_time ? V_ASN1_UTCTIME : V_ASN1_GENERALIZEDTIME;
    asn1.length = static_cast<int>(time.content.length);
    // Only read: the string borrows the CRL's bytes.
    asn1.data = const_cast<unsigned char*>(time.content.data);
    if (asn1.length == 0)
        return R_ERROR_NOT_PRESENT;
    return r_time_from_asn1(&asn1, seconds) ? R_ERROR_NONE : R_ERROR_DECODE;
}

namespace {

int update_time(const R_CRL* crl, RCrlPart part, R_TIME* time) {
    if (crl->parts[part].length == 0)
        return R_ERROR_NOT_PRESENT;
    return r_time_of_element(r_crl_view(crl, crl->parts[part]), &time->seconds);
}

} // namespace

extern "C" int R_CRL_get_info(R_CRL* crl, int id, void* value) {
    if (crl == nullptr || value == nullptr)
        return R_ERROR_NULL_ARG;
    switch (id) {
    case R_CRL_INFO_ISSUER_NAME: {
        auto* item = static_cast<R_ITEM*>(value);
        item->len = crl->parts[R_PART_ISSUER].length;
        // R_ITEM is not const; the bytes stay the CRL's and are only read.
        item->data = crl->der + crl->parts[R_PART_ISSUER].offset;
        return R_ERROR_NONE;
    }
    case R_CRL_INFO_SIGNATURE_ALGORITHM:
        return signature_algorithm(crl->index.signatureAlgorithm, static_cast<uint32_t*>(value));
    case R_CRL_INFO_VERSION:
        *static_cast<uint32_t*>(value) = version_of(crl);
        return R_ERROR_NONE;
    case R_CRL_INFO_CRL_NUMBER:
        return crl_number(crl, static_cast<R_EXT*>(value));
    case R_CRL_INFO_THIS_UPDATE:
        return update_time(crl, R_PART_THIS_UPDATE, static_cast<R_TIME*>(value));
    case R_CRL_INFO_NEXT_UPDATE:
        return update_time(crl, R_PART_NEXT_UPDATE, static_cast<R_TIME*>(value));
    default:
        return R_ERROR_FAILED;
    }
}

extern "C" int R_CRL_get_entry_count(R_CRL* crl, uint32_t* count) {
    if (crl == nullptr || count == nullptr)
        return R_ERROR_NULL_ARG;
    *count = crl->index.entryCount;
    return R_ERROR_NONE;
}

extern "C" int R_CRL_get_entry(R_CRL* crl, uint32_t index, R_CRL_ENTRY* entry) {
    if (crl == nullptr || entry == nullptr)
        return R_ERROR_NULL_ARG;
    if (index >= crl->index.entryCount)
        return R_ERROR_NOT_PRESENT;
    return r_crl_entry_fill(entry, r_crl_entry_element(crl, index));
}

extern "C" int R_CRL_find_entry(R_CRL* crl, R_CERT* cert, R_CRL_ENTRY* entry) {
    if (crl == nullptr || cert == nullptr || cert->x509 == nullptr || entry == nullptr)
        return R_ERROR_NULL_ARG;
    if (const int scope = R_CRL_check_scope(crl, cert); scope != R_ERROR_NONE)
        return scope;
    if (cert->serial.der == nullptr)
        return R_ERROR_FAILED;
    const RDer serial{cert->serial.der + cert->serial.offset, cert->serial.length};
    RDer element;
    if (const int status = r_crl_index_find(crl, serial, &element); status != R_ERROR_NONE)
        return status;
    return r_crl_entry_fill(entry, element);
}

extern "C" int R_CRL_issuer_name_to_binary(R_CRL* crl, uint32_t bufferSize, unsigned char* buffer,
                                           uint32_t* length) {
    if (crl == nullptr || length == nullptr || (buffer == nullptr && bufferSize != 0))
        return R_ERROR_NULL_ARG;
    // The bytes as received, so hashes and comparisons match other tools.
    const RCrlSpan& issuer = crl->parts[R_PART_ISSUER];
    *length = issuer.length;
    if (buffer == nullptr)
        return R_ERROR_NONE;
    if (bufferSize < issuer.length)
        return R_ERROR_BUFFER_TOO_SMALL;
    std::memcpy(buffer, crl->der + issuer.offset, issuer.length);
    return R_ERROR_NONE;
}
