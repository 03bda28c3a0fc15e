// Whether a CRL was issued by a certificate: the names, the certificate's
// right to sign CRLs, then the signature under its public key.
#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "r_objects.h"

namespace {

// A certificate whose keyUsage leaves out cRLSign may sign certificates but
// not CRLs; without the extension any use is allowed.
bool may_sign_crls(X509* cert) {
    const bool hasKeyUsage = (X509_get_extension_flags(cert) & EXFLAG_KUSAGE) != 0;
    return !hasKeyUsage || (X509_get_key_usage(cert) & KU_CRL_SIGN) != 0;
}

} // namespace

extern "C" int R_CRL_verify(R_CRL* crl, R_CERT* issuer, uint32_t* result) {
    if (crl == nullptr || crl->x509 == nullptr || issuer == nullptr || issuer->x509 == nullptr ||
        result == nullptr)
        return R_ERROR_NULL_ARG;
    // A key signs for every name its certificates bear, so a good signature
    // alone would let one CA speak for another's certificates.
    const int names =
        X509_NAME_cmp(X509_CRL_get_issuer(crl->x509), X509_get_subject_name(issuer->x509));
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
    const int verified = X509_CRL_verify(crl->x509, key);
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
