// A small PKI made at test time with OpenSSL: keys, issuer certificates,
// leaf certificates and CRLs with chosen serials, dates and extensions.
#ifndef QXCRL_TESTS_SUPPORT_TEST_PKI_H
#define QXCRL_TESTS_SUPPORT_TEST_PKI_H

#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <openssl/evp.h>
#include <openssl/x509.h>

namespace qxtest {

using Bytes = std::vector<unsigned char>;

struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct X509Free {
    void operator()(X509* cert) const { X509_free(cert); }
};
struct X509CrlFree {
    void operator()(X509_CRL* crl) const { X509_CRL_free(crl); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
using Cert = std::unique_ptr<X509, X509Free>;
using Crl = std::unique_ptr<X509_CRL, X509CrlFree>;

enum class KeyKind { Rsa2048, RsaPss, EcP256, Ed25519, Ed448 };

Pkey make_key(KeyKind kind);

// The private key as unencrypted PKCS#8: PEM text with LF line ends, or DER.
std::string key_pem(const EVP_PKEY* key);
Bytes key_der(const EVP_PKEY* key);

struct Issuer {
    std::string commonName;
    KeyKind kind;
    Pkey key;
    Cert cert;
};

// One attribute of a distinguished name; encoding is an OpenSSL MBSTRING_ or V_ASN1_ type.
struct NameAttribute {
    std::string type;
    std::string value;
    int encoding = 0x1000; // MBSTRING_UTF8
};

// RDNs in order, each of one or more attributes (more make it multi-valued).
using NameRecipe = std::vector<std::vector<NameAttribute>>;

struct IssuerOptions {
    std::string commonName = "qxcrl Test CA";
    // When given, the whole subject instead of C, O and commonName.
    NameRecipe subject;
    KeyKind kind = KeyKind::EcP256;
    time_t notBefore = std::time(nullptr) - 86400;
    time_t notAfter = std::time(nullptr) + 365 * 86400;
    bool subjectKeyIdentifier = true;
    // The keyUsage extension as OpenSSL's configuration writes it; empty for none.
    std::string keyUsage = "critical,keyCertSign,cRLSign";
};

Issuer make_issuer(const IssuerOptions& recipe);

// An issuer per key kind, made once per process (key generation is slow).
const Issuer& shared_issuer(KeyKind kind = KeyKind::EcP256);

struct LeafOptions {
    std::string commonName = "qxcrl Test Leaf";
    Bytes serial = {0x01}; // big-endian magnitude
    time_t notBefore = std::time(nullptr) - 86400;
    time_t notAfter = std::time(nullptr) + 90 * 86400;
    // Each inner list is one distribution point with those full-name URIs.
    std::vector<std::vector<std::string>> distributionPoints;
};

// A leaf certificate issued and signed by issuer.
Cert make_leaf(const Issuer& issuer, const LeafOptions& recipe);

// An extension given by OID text and raw value octets.
struct RawExtension {
    std::string oid;
    bool critical = false;
    Bytes value;
};

struct RevokedEntry {
    Bytes serial; // big-endian magnitude
    time_t revocationDate = std::time(nullptr) - 3600;
    std::vector<RawExtension> extensions;
};

// An entry revoked an hour ago with no extensions.
inline RevokedEntry revoked_serial(Bytes serial) {
    RevokedEntry entry;
    entry.serial = std::move(serial);
    return entry;
}

struct CrlOptions {
    std::vector<RevokedEntry> revoked;
    time_t thisUpdate = std::time(nullptr) - 3600;
    std::optional<time_t> nextUpdate = std::time(nullptr) + 7 * 86400;
    std::optional<long> crlNumber = 1;
    std::vector<RawExtension> extensions;
    // The hash of an RSA, RSA-PSS or ECDSA signature, by OpenSSL name
    // ("SHA384"); empty means SHA-256. Ed25519 and Ed448 have none.
    std::string digest;
};

// A signed DER CRL of issuer.
Bytes make_crl(const Issuer& issuer, const CrlOptions& recipe);

// A CRL of the shared issuer that revokes the one-byte serial and has it as
// its number, so that CRLs made with different serials differ.
Bytes shared_crl_revoking(unsigned char serial);

// What openssl_ca_crl has the openssl command do.
struct OpensslCaOptions {
    std::vector<Bytes> revoked = {{0x10, 0x01}}; // serials of the leaves it revokes
    std::string reason;                          // -crl_reason of each; none when empty
    std::string digest = "sha256";               // of its signature ("md5" with an RSA issuer)
    // A CRL Number and an Authority Key Identifier; without them, and
    // without reasons, the CRL is v1.
    bool crlExtensions = true;
    // Further lines of the CRL extension section, and any sections they name.
    std::string moreCrlExtensions;
};

// A DER CRL that `openssl ca`, holding issuer's key and certificate, makes in
// dir after revoking leaves of issuer with the given serials; empty, with a
// test failure, when a command fails. dir keeps ca.pem, crl.pem and crl.der.
Bytes openssl_ca_crl(const std::filesystem::path& dir, const Issuer& issuer,
                     const OpensslCaOptions& recipe = {});

// der read by OpenSSL on its own; NULL, with a test failure, when it is no CRL.
Crl openssl_crl(const Bytes& der);

// A time as OpenSSL reads it, in the RFC 3339 form the detail items give
// ("2026-01-01T00:00:00Z").
std::string rfc3339(const ASN1_TIME* time);

Bytes cert_der(const X509* cert);

// The certificate as PEM text with LF line ends.
std::string cert_pem(const X509* cert);

// The DER CRL as PEM text with LF line ends, as OpenSSL writes it.
std::string crl_pem(const Bytes& der);

// Any bytes as one PEM block under label, as OpenSSL writes it: for bytes
// that are not a CRL OpenSSL would re-encode.
std::string pem_block_of(const Bytes& bytes, const char* label = "X509 CRL");

} // namespace qxtest

#endif
