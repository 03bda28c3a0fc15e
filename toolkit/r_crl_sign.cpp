// Signing a CRL: issuer name, Authority Key Identifier and CRL Number from
// the issuer, entries sorted by serial, then the signature.
//
// The work is done on a fresh copy that replaces the CRL only once signed,
// so a refusal or a failed signature leaves the caller's CRL untouched. The
// copy costs one duplicate of every entry, about what encoding the CRL for
// its signature costs anyway.
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include "r_objects.h"

namespace {

struct Scheme {
    const char* keyType; // what EVP_PKEY_is_a calls the key it needs
    const char* digest;  // NULL for EdDSA, which hashes on its own
    bool pss;
};

bool scheme_of(uint32_t algorithm, Scheme* scheme) {
    switch (algorithm) {
    case R_SIG_ALG_SHA1_WITH_RSA:
        *scheme = {"RSA", "SHA1", false};
        return true;
    case R_SIG_ALG_SHA256_WITH_RSA:
        *scheme = {"RSA", "SHA256", false};
        return true;
    case R_SIG_ALG_SHA384_WITH_RSA:
        *scheme = {"RSA", "SHA384", false};
        return true;
    case R_SIG_ALG_SHA512_WITH_RSA:
        *scheme = {"RSA", "SHA512", false};
        return true;
    case R_SIG_ALG_ECDSA_SHA256:
        *scheme = {"EC", "SHA256", false};
        return true;
    case R_SIG_ALG_ECDSA_SHA384:
        *scheme = {"EC", "SHA384", false};
        return true;
    case R_SIG_ALG_ECDSA_SHA512:
        *scheme = {"EC", "SHA512", false};
        return true;
    case R_SIG_ALG_ED25519:
        *scheme = {"ED25519", nullptr, false};
        return true;
    case R_SIG_ALG_ED448:
        *scheme = {"ED448", nullptr, false};
        return true;
    case R_SIG_ALG_RSA_PSS_SHA256:
        *scheme = {"RSA", "SHA256", true};
        return true;
    case R_SIG_ALG_RSA_PSS_SHA384:
        *scheme = {"RSA", "SHA384", true};
        return true;
    case R_SIG_ALG_RSA_PSS_SHA512:
        *scheme = {"RSA", "SHA512", true};
        return true;
    default:
        // MD5 among them: its collisions make a forged CRL affordable.
        return false;
    }
}

bool key_fits(EVP_PKEY* key, const Scheme& scheme) {
    if (EVP_PKEY_is_a(key, scheme.keyType))
        return true;
    // A key restricted to PSS can make PSS signatures and nothing else.
    return scheme.pss && EVP_PKEY_is_a(key, "RSA-PSS");
}

void delete_extensions(X509_CRL* crl, int nid) {
    for (int index = X509_CRL_get_ext_by_NID(crl, nid, -1); index >= 0;
         index = X509_CRL_get_ext_by_NID(crl, nid, -1))
        X509_EXTENSION_free(X509_CRL_delete_ext(crl, index));
}

// Replaces every extension nid with one, non-critical, holding value.
int replace_extension(X509_CRL* crl, int nid, void* value) {
    delete_extensions(crl, nid);
    return X509_CRL_add1_ext_i2d(crl, nid, value, 0, X509V3_ADD_APPEND) == 1
               ? R_ERROR_NONE
               : R_ERROR_ALLOC_FAILURE;
}

// A new CRL in ossl with from's times, entries and extensions: everything
// signing does not set again.
int copy_crl(X509_CRL* from, OSSL_LIB_CTX* ossl, X509_CRL** copy) {
    X509_CRL* to = X509_CRL_new_ex(ossl, nullptr);
    if (to == nullptr)
        return R_ERROR_ALLOC_FAILURE;
    bool copied = true;
    // A new CRL's times are empty strings rather than absent.
    const ASN1_TIME* lastUpdate = X509_CRL_get0_lastUpdate(from);
    if (lastUpdate != nullptr && ASN1_STRING_length(lastUpdate) > 0)
        copied = X509_CRL_set1_lastUpdate(to, lastUpdate) == 1;
    const ASN1_TIME* nextUpdate = X509_CRL_get0_nextUpdate(from);
    if (copied && nextUpdate != nullptr && ASN1_STRING_length(nextUpdate) > 0)
        copied = X509_CRL_set1_nextUpdate(to, nextUpdate) == 1;
    STACK_OF(X509_REVOKED)* entries = X509_CRL_get_REVOKED(from);
    for (int i = 0; copied && i < sk_X509_REVOKED_num(entries); ++i) {
        X509_REVOKED* entry = X509_REVOKED_dup(sk_X509_REVOKED_value(entries, i));
        copied = entry != nullptr && X509_CRL_add0_revoked(to, entry) == 1;
        if (!copied)
            X509_REVOKED_free(entry);
    }
    for (int i = 0; copied && i < X509_CRL_get_ext_count(from); ++i)
        copied = X509_CRL_add_ext(to, X509_CRL_get_ext(from, i), -1) == 1;
    if (!copied) {
        X509_CRL_free(to);
        return R_ERROR_ALLOC_FAILURE;
    }
    *copy = to;
    return R_ERROR_NONE;
}

int set_authority_key_id(X509_CRL* crl, X509* issuer) {
    const ASN1_OCTET_STRING* keyId = X509_get0_subject_key_id(issuer);
    if (keyId == nullptr) {
        // An identifier of some other key would point path building astray.
        delete_extensions(crl, NID_authority_key_identifier);
        return R_ERROR_NONE;
    }
    AUTHORITY_KEYID* authority = AUTHORITY_KEYID_new();
    if (authority == nullptr)
        return R_ERROR_ALLOC_FAILURE;
    authority->keyid = ASN1_OCTET_STRING_dup(keyId);
    const int status = authority->keyid == nullptr
                           ? R_ERROR_ALLOC_FAILURE
                           : replace_extension(crl, NID_authority_key_identifier, authority);
    AUTHORITY_KEYID_free(authority);
    return status;
}

// One more than the CRL's number, which may be of any size; 1 when it has none.
int increment_crl_number(X509_CRL* crl) {
    int critical = 0;
    auto* current =
        static_cast<ASN1_INTEGER*>(X509_CRL_get_ext_d2i(crl, NID_crl_number, &critical, nullptr));
    // -1 is no number; anything else without a value is unreadable or repeated.
    if (current == nullptr && critical != -1)
        return R_ERROR_DECODE;
    BIGNUM* number = current != nullptr ? ASN1_INTEGER_to_BN(current, nullptr) : BN_new();
    ASN1_INTEGER_free(current);
    if (number == nullptr)
        return R_ERROR_ALLOC_FAILURE;
    int status = R_ERROR_NONE;
    ASN1_INTEGER* next = nullptr;
    if (BN_is_negative(number))
        status = R_ERROR_DECODE;
    else if (BN_add_word(number, 1) != 1 || (next = BN_to_ASN1_INTEGER(number, nullptr)) == nullptr)
        status = R_ERROR_ALLOC_FAILURE;
    else
        status = replace_extension(crl, NID_crl_number, next);
    ASN1_INTEGER_free(next);
    BN_free(number);
    return status;
}

// Sets what the issuer decides and sorts the entries, so that lookups by
// serial are binary searches.
int prepare(X509_CRL* crl, X509* issuer) {
    if (X509_CRL_set_version(crl, X509_CRL_VERSION_2) != 1 ||
        X509_CRL_set_issuer_name(crl, X509_get_subject_name(issuer)) != 1)
        return R_ERROR_ALLOC_FAILURE;
    int status = set_authority_key_id(crl, issuer);
    if (status == R_ERROR_NONE)
        status = increment_crl_number(crl);
    if (status == R_ERROR_NONE && X509_CRL_sort(crl) != 1)
        status = R_ERROR_ALLOC_FAILURE;
    return status;
}

int sign(X509_CRL* crl, EVP_PKEY* key, const Scheme& scheme, OSSL_LIB_CTX* ossl) {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    if (context == nullptr)
        return R_ERROR_ALLOC_FAILURE;
    EVP_PKEY_CTX* keyContext = nullptr;
    bool ready = EVP_DigestSignInit_ex(context, &keyContext, scheme.digest, ossl, nullptr, key,
                                       nullptr) == 1;
    if (ready && scheme.pss)
        ready = EVP_PKEY_CTX_set_rsa_padding(keyContext, RSA_PKCS1_PSS_PADDING) == 1 &&
                EVP_PKEY_CTX_set_rsa_mgf1_md_name(keyContext, scheme.digest, nullptr) == 1 &&
                EVP_PKEY_CTX_set_rsa_pss_saltlen(keyContext, RSA_PSS_SALTLEN_DIGEST) == 1;
    const bool signedOk = ready && X509_CRL_sign_ctx(crl, context) > 0;
    EVP_MD_CTX_free(context);
    return signedOk ? R_ERROR_NONE : R_ERROR_CRYPTO;
}

} // namespace

extern "C" int R_CRL_sign(R_CRL* crl, R_CERT* issuer, R_PKEY* key, uint32_t algorithm) {
    if (crl == nullptr || crl->x509 == nullptr || crl->libCtx == nullptr || issuer == nullptr ||
        issuer->x509 == nullptr || key == nullptr || key->pkey == nullptr)
        return R_ERROR_NULL_ARG;
    Scheme scheme{};
    if (!scheme_of(algorithm, &scheme) || !key_fits(key->pkey, scheme))
        return R_ERROR_FAILED;
    // A signature by any other key would never verify under the issuer.
    if (X509_check_private_key(issuer->x509, key->pkey) != 1) {
        ERR_clear_error();
        return R_ERROR_FAILED;
    }
    const ASN1_TIME* thisUpdate = X509_CRL_get0_lastUpdate(crl->x509);
    if (thisUpdate == nullptr || ASN1_STRING_length(thisUpdate) == 0)
        return R_ERROR_NOT_PRESENT;

    X509_CRL* copy = nullptr;
    int status = copy_crl(crl->x509, crl->libCtx->ossl, &copy);
    if (status == R_ERROR_NONE)
        status = prepare(copy, issuer->x509);
    if (status == R_ERROR_NONE)
        status = sign(copy, key->pkey, scheme, crl->libCtx->ossl);
    // Signing can leave notes in the queue even when it succeeds.
    ERR_clear_error();
    if (status != R_ERROR_NONE) {
        X509_CRL_free(copy);
        return status;
    }
    X509_CRL_free(crl->x509);
    crl->x509 = copy;
    return R_ERROR_NONE;
}
