#include "signature_types.h"

#include <algorithm>
#include <cctype>

#include "session.h"

namespace qxcli {

namespace {

struct Named {
    uint32_t type;
    const char* name;
};

// The names OpenSSL gives the algorithms, as `openssl crl -text` prints them.
constexpr Named names[] = {
    {QX_SIG_RSA_SHA1, "sha1WithRSAEncryption"},
    {QX_SIG_RSA_MD5, "md5WithRSAEncryption"},
    {QX_SIG_RSA_SHA256, "sha256WithRSAEncryption"},
    {QX_SIG_RSA_SHA384, "sha384WithRSAEncryption"},
    {QX_SIG_RSA_SHA512, "sha512WithRSAEncryption"},
    {QX_SIG_ECDSA_SHA256, "ecdsa-with-SHA256"},
    {QX_SIG_ECDSA_SHA384, "ecdsa-with-SHA384"},
    {QX_SIG_ECDSA_SHA512, "ecdsa-with-SHA512"},
    {QX_SIG_ED25519, "ED25519"},
    {QX_SIG_ED448, "ED448"},
    {QX_SIG_RSA_PSS_SHA256, "rsassaPss-SHA256"},
    {QX_SIG_RSA_PSS_SHA384, "rsassaPss-SHA384"},
    {QX_SIG_RSA_PSS_SHA512, "rsassaPss-SHA512"},
};

bool same_name(const std::string& a, const char* b) {
    const std::string other = b;
    return a.size() == other.size() &&
           std::equal(a.begin(), a.end(), other.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

// The DER of the OIDs a PKCS#8 key's AlgorithmIdentifier and EC curve carry.
struct Oid {
    unsigned char der[11];
    size_t length;
};
constexpr Oid rsa = {{0x06, 0x09, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x01}, 11};
constexpr Oid rsa_pss = {{0x06, 0x09, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x0a}, 11};
constexpr Oid ec = {{0x06, 0x07, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x02, 0x01}, 9};
constexpr Oid ed25519 = {{0x06, 0x03, 0x2b, 0x65, 0x70}, 5};
constexpr Oid ed448 = {{0x06, 0x03, 0x2b, 0x65, 0x71}, 5};

bool holds(const unsigned char* begin, const unsigned char* end, const Oid& oid) {
    return std::search(begin, end, oid.der, oid.der + oid.length) != end;
}

} // namespace

const char* signature_algorithm_name(uint32_t signatureType) {
    for (const Named& named : names)
        if (named.type == signatureType)
            return named.name;
    return "unknown";
}

std::optional<uint32_t> signature_type_named(const std::string& text) {
    if (const auto number = parse_number(text))
        return number;
    for (const Named& named : names)
        if (same_name(text, named.name))
            return named.type;
    return std::nullopt;
}

std::string signature_type_names() {
    std::string out;
    for (const Named& named : names)
        out += (out.empty() ? "" : ", ") + std::string(named.name);
    return out;
}

uint32_t default_signature_type(const QxPrivateKey* key) {
    if (key == nullptr || key->pkcs8 == nullptr)
        return 0;
    // The layer keeps keys as PKCS#8, whose AlgorithmIdentifier (with an EC
    // key's curve) comes within the first few dozen bytes.
    const unsigned char* begin = key->pkcs8;
    const unsigned char* end = begin + std::min<uint32_t>(key->length, 40);
    if (holds(begin, end, ec))
        return QX_SIG_ECDSA_SHA256;
    if (holds(begin, end, rsa_pss))
        return QX_SIG_RSA_PSS_SHA256;
    if (holds(begin, end, rsa))
        return QX_SIG_RSA_SHA256;
    if (holds(begin, end, ed25519))
        return QX_SIG_ED25519;
    if (holds(begin, end, ed448))
        return QX_SIG_ED448;
    return 0;
}

} // namespace qxcli
