#include "key_issuer.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "../tests/support/test_pki.h"

namespace qxfuzz {

namespace {

using qxtest::Cert;
using qxtest::Pkey;

constexpr long day = 86400;

// Signs the issuer certificates; its own signature plays no part in
// verifying a CRL, so one cheap key made once serves every input.
EVP_PKEY* certificate_signer() {
    static EVP_PKEY* signer = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
    return signer;
}

std::vector<uint32_t> signature_types(const EVP_PKEY* key) {
    switch (EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_RSA:
        return {QX_SIG_RSA_SHA256,     QX_SIG_RSA_SHA384,     QX_SIG_RSA_SHA512,    QX_SIG_RSA_SHA1,
                QX_SIG_RSA_PSS_SHA256, QX_SIG_RSA_PSS_SHA384, QX_SIG_RSA_PSS_SHA512};
    case EVP_PKEY_RSA_PSS:
        return {QX_SIG_RSA_PSS_SHA256, QX_SIG_RSA_PSS_SHA384, QX_SIG_RSA_PSS_SHA512};
    case EVP_PKEY_EC:
        return {QX_SIG_ECDSA_SHA256, QX_SIG_ECDSA_SHA384, QX_SIG_ECDSA_SHA512};
    case EVP_PKEY_ED25519:
        return {QX_SIG_ED25519};
    case EVP_PKEY_ED448:
        return {QX_SIG_ED448};
    default:
        return {};
    }
}

bool pairwise_consistent(EVP_PKEY* key) {
    EVP_PKEY_CTX* check = EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr);
    const bool consistent = check != nullptr && EVP_PKEY_pairwise_check(check) == 1;
    EVP_PKEY_CTX_free(check);
    return consistent;
}

// The DER of a certificate for key, or an empty vector.
std::vector<unsigned char> certificate_der(EVP_PKEY* key) {
    EVP_PKEY* signer = certificate_signer();
    Cert cert(X509_new());
    if (signer == nullptr || cert == nullptr)
        return {};
    X509_NAME* name = X509_get_subject_name(cert.get());
    const auto* commonName = reinterpret_cast<const unsigned char*>("qxcrl fuzz issuer");
    if (X509_set_version(cert.get(), X509_VERSION_3) != 1 ||
        ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1) != 1 ||
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, commonName, -1, -1, 0) != 1 ||
        X509_set_issuer_name(cert.get(), name) != 1 ||
        X509_gmtime_adj(X509_getm_notBefore(cert.get()), -day) == nullptr ||
        X509_gmtime_adj(X509_getm_notAfter(cert.get()), 365 * day) == nullptr ||
        X509_set_pubkey(cert.get(), key) != 1 || X509_sign(cert.get(), signer, nullptr) <= 0)
        return {};
    const int length = i2d_X509(cert.get(), nullptr);
    if (length <= 0)
        return {};
    std::vector<unsigned char> der(static_cast<size_t>(length));
    unsigned char* out = der.data();
    if (i2d_X509(cert.get(), &out) != length)
        return {};
    return der;
}

} // namespace

KeyIssuer make_key_issuer(SecurityContext* ctx, const QxPrivateKey* key) {
    KeyIssuer issuer;
    const unsigned char* pkcs8 = key->pkcs8;
    Pkey pkey(d2i_AutoPrivateKey(nullptr, &pkcs8, static_cast<long>(key->length)));
    // A check and a signature with a key of many thousand bits take seconds
    // of modular arithmetic per input and reach no code smaller keys miss.
    if (pkey == nullptr || EVP_PKEY_get_bits(pkey.get()) > 4096)
        return issuer;
    issuer.signatureTypes = signature_types(pkey.get());
    issuer.consistent = pairwise_consistent(pkey.get());
    const std::vector<unsigned char> der = certificate_der(pkey.get());
    if (!der.empty() &&
        qxcert_from_bytes(ctx, der.data(), static_cast<uint32_t>(der.size()), &issuer.record) != 0)
        issuer.record = nullptr;
    ERR_clear_error(); // what failed here is no concern of the next input
    return issuer;
}

} // namespace qxfuzz
