// Whether a CRL was issued by a certificate: the names, the certificate's
// right to sign CRLs, then the signature under its public key.
#include <openssl/asn1t.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "r_crl_parts.h"

namespace {

// A certificate whose keyUsage leaves out cRLSign may sign certificates but
// not CRLs; without the extension any use is allowed.
bool may_sign_crls(X509* cert) {
    const bool hasKeyUsage = (X509_get_extension_flags(cert) & EXFLAG_KUSAGE) != 0;
    return !hasKeyUsage || (X509_get_key_usage(cert) & KU_CRL_SIGN) != 0;
}

// Whether the two AlgorithmIdentifiers name the same signature. RFC 5280
// requires it; OpenSSL compares them for a certificate but not for a CRL,
// and a CRL signed under one while it names another is not taken here.
int same_algorithm(const R_CRL* crl, bool* same) {
    const RCrlSpan& inner = crl->parts[R_PART_TBS_SIGNATURE_ALGORITHM];
    const unsigned char* cursor = crl->der + inner.offset;
    X509_ALGOR* signed_ = d2i_X509_ALGOR(nullptr, &cursor, static_cast<long>(inner.length));
    if (signed_ == nullptr) {
        ERR_clear_error();
        return R_ERROR_ALLOC_FAILURE;
    }
    *same = X509_ALGOR_cmp(signed_, crl->index.signatureAlgorithm) == 0;
    X509_ALGOR_free(signed_);
    return R_ERROR_NONE;
}

// OpenSSL's own check of the signature over an ANY that holds the
// to-be-signed element, which it encodes as those very bytes.
int verify_by_encoding(const R_CRL* crl, EVP_PKEY* key, const RDer& signaturePart) {
    const unsigned char* cursor = signaturePart.data;
    ASN1_BIT_STRING* signature =
        d2i_ASN1_BIT_STRING(nullptr, &cursor, static_cast<long>(signaturePart.length));
    if (signature == nullptr)
        return -1;
    ASN1_STRING tbs{};
    tbs.type = V_ASN1_SEQUENCE;
    tbs.length = static_cast<int>(crl->tbs.length);
    tbs.data = crl->der + crl->tbs.offset;
    ASN1_TYPE signedPart{};
    signedPart.type = V_ASN1_SEQUENCE;
    signedPart.value.sequence = &tbs;
    const int verified =
        ASN1_item_verify_ex(ASN1_ITEM_rptr(ASN1_ANY), crl->index.signatureAlgorithm, signature,
                            &signedPart, nullptr, key, crl->libCtx->ossl, nullptr);
    ASN1_BIT_STRING_free(signature);
    return verified;
}

// The signature over the to-be-signed bytes exactly as they are held, as
// OpenSSL checks a CRL's: 1 good, 0 not, below 0 not checked. OpenSSL
// encodes what it verifies, which for a CRL of a million entries is a copy of
// tens of megabytes; the digest runs over the CRL's own bytes instead. For
// RSASSA-PSS, whose parameters only OpenSSL's own path reads, it encodes a
// wrapper (an ANY holding a whole element encodes as those very bytes).
int verify_signature(const R_CRL* crl, EVP_PKEY* key) {
    const X509_ALGOR* algorithm = crl->index.signatureAlgorithm;
    const RDer signature = r_crl_view(crl, crl->parts[R_PART_SIGNATURE]);
    RDer in = signature;
    RDerElement bits;
    r_der_next(&in, &bits);
    // A signature of whole octets only: unused bits make it no signature.
    if (bits.content.data[0] != 0)
        return -1;
    const unsigned char* tbs = crl->der + crl->tbs.offset;
    const int nid = OBJ_obj2nid(algorithm->algorithm);
    if (nid == NID_rsassaPss)
        return verify_by_encoding(crl, key, signature);
    int digestNid = NID_undef;
    int keyNid = NID_undef;
    if (OBJ_find_sigid_algs(nid, &digestNid, &keyNid) != 1)
        return -1;
    // A key of another kind than the algorithm's cannot make its signatures.
    if (!EVP_PKEY_is_a(key, OBJ_nid2sn(keyNid)))
        return -1;
    const char* digest = nullptr;
    if (digestNid != NID_undef) {
        const EVP_MD* md = EVP_get_digestbynid(digestNid);
        if (md == nullptr)
            return -1;
        digest = EVP_MD_get0_name(md);
    }
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    if (context == nullptr)
        return -1;
    int verified = -1;
    if (EVP_DigestVerifyInit_ex(context, nullptr, digest, crl->libCtx->ossl, nullptr, key,
                                nullptr) == 1)
        verified = EVP_DigestVerify(context, bits.content.data + 1, bits.content.length - 1, tbs,
                                    crl->tbs.length);
    EVP_MD_CTX_free(context);
    return verified < 0 ? -1 : verified;
}

} // namespace

extern "C" int R_CRL_verify(R_CRL* crl, R_CERT* issuer, uint32_t* result) {
    if (crl == nullptr || issuer == nullptr || issuer->x509 == nullptr || result == nullptr)
        return R_ERROR_NULL_ARG;
    // Nothing to check on a CRL that was never signed.
    if (!r_crl_complete(crl))
        return R_ERROR_CRYPTO;
    // A key signs for every name its certificates bear, so a good signature
    // alone would let one CA speak for another's certificates.
    const int names = X509_NAME_cmp(crl->index.issuer, X509_get_subject_name(issuer->x509));
    if (names == -2) { // a name that cannot be put in canonical form
        ERR_clear_error();
        return R_ERROR_DECODE;
    }
    if (names != 0) {
        *result = R_CRL_VERIFY_OTHER_ISSUER;
        return R_ERROR_NONE;
    }
    if (!may_sign_crls(issuer->x509)) {
        ERR_clear_error();
        *result = R_CRL_VERIFY_NOT_CRL_SIGNER;
        return R_ERROR_NONE;
    }
    EVP_PKEY* key = X509_get0_pubkey(issuer->x509);
    if (key == nullptr) {
        ERR_clear_error();
        return R_ERROR_CRYPTO;
    }
    bool sameAlgorithm = false;
    if (const int status = same_algorithm(crl, &sameAlgorithm); status != R_ERROR_NONE)
        return status;
    const int verified = sameAlgorithm ? verify_signature(crl, key) : 0;
    // Even a signature that verifies can leave errors behind (a cache that
    // could not grow); the verdict is all the caller gets.
    ERR_clear_error();
    // Below 0 nothing was checked (a key of another algorithm, an unknown
    // signature algorithm); 0 is a signature checked and found not the issuer's.
    if (verified < 0)
        return R_ERROR_CRYPTO;
    *result = verified == 1 ? 0 : R_CRL_VERIFY_BAD_SIGNATURE;
    return R_ERROR_NONE;
}
