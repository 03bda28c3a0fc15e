#include "differential_issuer.h"

#include <cstdio>
#include <cstdlib>

#include <openssl/err.h>

namespace qxfuzz {

namespace {

// 2020-01-01 and 2050-01-01, so that the certificates do not depend on the day.
constexpr time_t not_before = 1577836800;
constexpr time_t not_after = 2524608000;

[[noreturn]] void issuer_fault(const char* what) {
    std::fprintf(stderr, "crl_differential: fixed issuer: %s\n", what);
    std::abort();
}

// The fields every certificate made here shares; the subject is the fixed
// issuer's.
bool fill(X509* cert, const X509_NAME* issuer, EVP_PKEY* key) {
    X509_NAME* subject = X509_NAME_new();
    const auto* commonName = reinterpret_cast<const unsigned char*>("qxcrl differential issuer");
    const bool filled =
        subject != nullptr &&
        X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, commonName, -1, -1, 0) == 1 &&
        X509_set_version(cert, X509_VERSION_3) == 1 &&
        ASN1_INTEGER_set(X509_get_serialNumber(cert), 1) == 1 &&
        X509_set_subject_name(cert, subject) == 1 &&
        X509_set_issuer_name(cert, issuer != nullptr ? issuer : subject) == 1 &&
        ASN1_TIME_set(X509_getm_notBefore(cert), not_before) != nullptr &&
        ASN1_TIME_set(X509_getm_notAfter(cert), not_after) != nullptr &&
        X509_set_pubkey(cert, key) == 1 && X509_sign(cert, key, nullptr) > 0;
    X509_NAME_free(subject);
    return filled;
}

DifferentialIssuer make_issuer() {
    static const unsigned char seed[32] = "qxcrl differential fuzz issuer";
    DifferentialIssuer issuer;
    issuer.key = EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed, sizeof seed);
    issuer.cert = X509_new();
    if (issuer.key == nullptr || issuer.cert == nullptr || !fill(issuer.cert, nullptr, issuer.key))
        issuer_fault("key or certificate");
    const int length = i2d_X509(issuer.cert, nullptr);
    if (length <= 0)
        issuer_fault("certificate encoding");
    issuer.der.resize(static_cast<size_t>(length));
    unsigned char* out = issuer.der.data();
    if (i2d_X509(issuer.cert, &out) != length)
        issuer_fault("certificate encoding");
    return issuer;
}

} // namespace

const DifferentialIssuer& differential_issuer() {
    static const DifferentialIssuer issuer = make_issuer();
    return issuer;
}

X509* certificate_under(const X509_NAME* issuer) {
    X509* cert = X509_new();
    if (cert == nullptr || !fill(cert, issuer, differential_issuer().key)) {
        ERR_clear_error();
        X509_free(cert);
        return nullptr;
    }
    return cert;
}

bool sign_as_issuer(X509_CRL* crl) {
    return X509_CRL_sign(crl, differential_issuer().key, nullptr) > 0;
}

} // namespace qxfuzz
