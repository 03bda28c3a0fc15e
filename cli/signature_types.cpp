#include "signature_types.h"

#include <algorithm>
#include <cctype>
#include <span>

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

// The content octets of the OIDs a PKCS#8 key's AlgorithmIdentifier and an
// EC key's curve carry.
using Oid = std::span<const unsigned char>;
constexpr unsigned char rsa[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x01};
constexpr unsigned char rsa_pss[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x0a};
constexpr unsigned char ec[] = {0x2a, 0x86, 0x48, 0xce, 0x3d, 0x02, 0x01};
constexpr unsigned char ed25519[] = {0x2b, 0x65, 0x70};
constexpr unsigned char ed448[] = {0x2b, 0x65, 0x71};
constexpr unsigned char p384[] = {0x2b, 0x81, 0x04, 0x00, 0x22};
constexpr unsigned char p521[] = {0x2b, 0x81, 0x04, 0x00, 0x23};

// One DER element at bytes: its tag and content; false when it does not fit.
struct Element {
    unsigned char tag = 0;
    Oid content;
    Oid rest; // what follows the element
};

bool next_element(Oid bytes, Element& element) {
    if (bytes.size() < 2)
        return false;
    size_t header = 2;
    size_t length = bytes[1];
    if ((length & 0x80) != 0) {
        const size_t octets = length & 0x7f;
        if (octets == 0 || octets > 3 || bytes.size() < 2 + octets)
            return false;
        length = 0;
        for (size_t i = 0; i < octets; ++i)
            length = length << 8 | bytes[2 + i];
        header += octets;
    }
    if (bytes.size() - header < length)
        return false;
    element = {bytes[0], bytes.subspan(header, length), bytes.subspan(header + length)};
    return true;
}

// The key's algorithm OID and, for EC keys, its curve OID, from the PKCS#8
// PrivateKeyInfo: SEQUENCE { INTEGER version, SEQUENCE { OID, parameters } ... }.
bool key_algorithm(const QxPrivateKey* key, Oid& algorithm, Oid& parameter) {
    Element info, version, identifier, oid, curve;
    if (!next_element(Oid(key->pkcs8, key->length), info) || info.tag != 0x30 ||
        !next_element(info.content, version) || version.tag != 0x02 ||
        !next_element(version.rest, identifier) || identifier.tag != 0x30 ||
        !next_element(identifier.content, oid) || oid.tag != 0x06)
        return false;
    algorithm = oid.content;
    if (next_element(oid.rest, curve) && curve.tag == 0x06)
        parameter = curve.content;
    return true;
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
    Oid algorithm, parameter;
    if (key == nullptr || key->pkcs8 == nullptr || !key_algorithm(key, algorithm, parameter))
        return 0;
    if (std::ranges::equal(algorithm, ec)) {
        // The hash as strong as the curve, as RFC 5480 recommends.
        if (std::ranges::equal(parameter, p384))
            return QX_SIG_ECDSA_SHA384;
        if (std::ranges::equal(parameter, p521))
            return QX_SIG_ECDSA_SHA512;
        return QX_SIG_ECDSA_SHA256;
    }
    if (std::ranges::equal(algorithm, rsa_pss))
        return QX_SIG_RSA_PSS_SHA256;
    if (std::ranges::equal(algorithm, rsa))
        return QX_SIG_RSA_SHA256;
    if (std::ranges::equal(algorithm, ed25519))
        return QX_SIG_ED25519;
    if (std::ranges::equal(algorithm, ed448))
        return QX_SIG_ED448;
    return 0;
}

} // namespace qxcli
