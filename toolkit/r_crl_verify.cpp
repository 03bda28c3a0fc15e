// Checking a CRL's signature against its issuer's public key.
#include <openssl/err.h>
#include <openssl/x509.h>

#include "r_objects.h"

extern "C" int R_CRL_verify(R_CRL* crl, R_CERT* issuer, uint32_t* result) {
    if (crl == nullptr || crl->x509 == nullptr || issuer == nullptr || issuer->x509 == nullptr ||
        result == nullptr)
        return R_ERROR_NULL_ARG;
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
    *result = verified == 1 ? 0 : 1;
    return R_ERROR_NONE;
}
