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

// Whether the two AlgorithmIdentifiers name the same signature, as OpenSSL
// compares them before it checks a CRL's signature.
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

// The signature over the to-be-signed bytes exactly as they are held. OpenSSL
// encodes what it verifies; an ANY holding a whole element encodes as those
// very bytes, so it hashes the CRL's own.
int verify_signature(const R_CRL* crl, EVP_PKEY* key, int* verified) {
    const RCrlSpan& signaturePart = crl->parts[R_PART_SIGNATURE];
    const unsigned char* cursor = crl->der + signaturePart.offset;
    ASN1_BIT_STRING* signature =
        d2i_ASN1_BIT_STRING(nullptr, &cursor, static_cast<long>(signaturePart.length));
    if (signature == nullptr) {
        ERR_clear_error();
        return R_ERROR_ALLOC_FAILURE;
    }
    ASN1_STRING tbs{};
    tbs.type = V_ASN1_SEQUENCE;
    tbs.length = static_cast<int>(crl->tbs.length);
    tbs.data = crl->der + crl->tbs.offset;
    ASN1_TYPE signedPart{};
    signedPart.type = V_ASN1_SEQUENCE;
    signedPart.value.sequence = &tbs;
    *verified =
        ASN1_item_verify_ex(ASN1_ITEM_rptr(ASN1_ANY), crl->index.signatureAlgorithm, signature,
                            &signedPart, nullptr, key, crl->libCtx->ossl, nullptr);
    ASN1_BIT_STRING_free(signature);
    return R_ERROR_NONE;
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
    int verified = 0;
    if (sameAlgorithm) {
        if (const int status = verify_signature(crl, key, &verified); status != R_ERROR_NONE)
            return status;
    }
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
