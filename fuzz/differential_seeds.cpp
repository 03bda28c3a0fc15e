#include "differential_seeds.h"

#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include "differential_issuer.h"

namespace qxfuzz {

namespace {

using Bytes = std::vector<unsigned char>;

// 2026-01-01, so that the seeds are the same on every run.
constexpr time_t day0 = 1767225600;
constexpr time_t day = 86400;

// One DER element with a short-form length.
Bytes tlv(unsigned char tag, const Bytes& content) {
    Bytes element{tag, static_cast<unsigned char>(content.size())};
    element.insert(element.end(), content.begin(), content.end());
    return element;
}

Bytes text(const std::string& value) {
    return Bytes(value.begin(), value.end());
}

struct RawExtension {
    const char* oid;
    bool critical;
    Bytes value;
};

const Bytes keyCompromise{0x0a, 0x01, 0x01};
const Bytes removeFromCrl{0x0a, 0x01, 0x08};
const Bytes nullValue{0x05, 0x00};

RawExtension reason(const Bytes& value) {
    return {"2.5.29.21", false, value};
}

// An Issuing Distribution Point: a full name of one URI, and
// onlyContainsUserCerts when asked.
RawExtension idp(const std::string& uri, bool onlyUsers) {
    Bytes content = tlv(0xa0, tlv(0xa0, tlv(0x86, text(uri))));
    if (onlyUsers) {
        const Bytes flag{0x81, 0x01, 0xff};
        content.insert(content.end(), flag.begin(), flag.end());
    }
    return {"2.5.29.28", true, tlv(0x30, content)};
}

// A Certificate Issuer entry extension naming CN=commonName.
RawExtension certificate_issuer(const std::string& commonName, bool critical) {
    Bytes attribute{0x06, 0x03, 0x55, 0x04, 0x03};
    const Bytes value = tlv(0x0c, text(commonName));
    attribute.insert(attribute.end(), value.begin(), value.end());
    const Bytes name = tlv(0x30, tlv(0x31, tlv(0x30, attribute)));
    return {"2.5.29.29", critical, tlv(0x30, tlv(0xa4, name))};
}

struct Entry {
    std::string serial; // hex, "-" for negative
    time_t date;
    std::vector<RawExtension> extensions;
};

struct Recipe {
    const char* name;
    bool v2 = true;
    time_t thisUpdate = day0;
    time_t nextUpdate = day0 + 7 * day; // 0 for none
    std::vector<Entry> entries;
    std::vector<RawExtension> extensions;
    bool badSignature = false;
};

bool add_extension(STACK_OF(X509_EXTENSION) * *extensions, const RawExtension& raw) {
    ASN1_OBJECT* oid = OBJ_txt2obj(raw.oid, 1);
    ASN1_OCTET_STRING* value = ASN1_OCTET_STRING_new();
    X509_EXTENSION* extension = nullptr;
    if (oid != nullptr && value != nullptr &&
        ASN1_OCTET_STRING_set(value, raw.value.data(), static_cast<int>(raw.value.size())) == 1)
        extension = X509_EXTENSION_create_by_OBJ(nullptr, oid, raw.critical ? 1 : 0, value);
    const bool added = extension != nullptr && X509v3_add_ext(extensions, extension, -1) != nullptr;
    X509_EXTENSION_free(extension);
    ASN1_OCTET_STRING_free(value);
    ASN1_OBJECT_free(oid);
    return added;
}

X509_REVOKED* make_entry(const Entry& recipe) {
    X509_REVOKED* entry = X509_REVOKED_new();
    BIGNUM* number = nullptr;
    ASN1_INTEGER* serial = nullptr;
    ASN1_TIME* date = ASN1_TIME_set(nullptr, recipe.date);
    bool made = entry != nullptr && date != nullptr &&
                BN_hex2bn(&number, recipe.serial.c_str()) > 0 &&
                (serial = BN_to_ASN1_INTEGER(number, nullptr)) != nullptr &&
                X509_REVOKED_set_serialNumber(entry, serial) == 1 &&
                X509_REVOKED_set_revocationDate(entry, date) == 1;
    for (const RawExtension& raw : recipe.extensions) {
        STACK_OF(X509_EXTENSION)* extensions = nullptr;
        made = made && add_extension(&extensions, raw) &&
               X509_REVOKED_add_ext(entry, sk_X509_EXTENSION_value(extensions, 0), -1) == 1;
        sk_X509_EXTENSION_pop_free(extensions, X509_EXTENSION_free);
    }
    ASN1_TIME_free(date);
    ASN1_INTEGER_free(serial);
    BN_free(number);
    if (!made) {
        X509_REVOKED_free(entry);
        return nullptr;
    }
    return entry;
}

// The signed DER of recipe, entries in the recipe's order; empty on failure.
Bytes make_crl(const Recipe& recipe) {
    X509_CRL* crl = X509_CRL_new();
    if (crl == nullptr)
        return {};
    bool made =
        X509_CRL_set_issuer_name(crl, X509_get_subject_name(differential_issuer().cert)) == 1;
    if (recipe.v2)
        made = made && X509_CRL_set_version(crl, X509_CRL_VERSION_2) == 1;
    ASN1_TIME* time = ASN1_TIME_set(nullptr, recipe.thisUpdate);
    made = made && time != nullptr && X509_CRL_set1_lastUpdate(crl, time) == 1;
    if (recipe.nextUpdate != 0)
        made = made && ASN1_TIME_set(time, recipe.nextUpdate) != nullptr &&
               X509_CRL_set1_nextUpdate(crl, time) == 1;
    ASN1_TIME_free(time);
    for (const Entry& entry : recipe.entries) {
        X509_REVOKED* revoked = made ? make_entry(entry) : nullptr;
        made = revoked != nullptr && X509_CRL_add0_revoked(crl, revoked) == 1;
        if (!made)
            X509_REVOKED_free(revoked);
    }
    for (const RawExtension& raw : recipe.extensions) {
        STACK_OF(X509_EXTENSION)* extensions = nullptr;
        made = made && add_extension(&extensions, raw) &&
               X509_CRL_add_ext(crl, sk_X509_EXTENSION_value(extensions, 0), -1) == 1;
        sk_X509_EXTENSION_pop_free(extensions, X509_EXTENSION_free);
    }
    made = made && sign_as_issuer(crl);
    unsigned char* der = nullptr;
    const int length = made ? i2d_X509_CRL(crl, &der) : 0;
    X509_CRL_free(crl);
    if (length <= 0)
        return {};
    Bytes bytes(der, der + length);
    OPENSSL_free(der);
    // The signature's last octet, changed: the CRL still decodes.
    if (recipe.badSignature)
        bytes.back() ^= 0x01;
    return bytes;
}

std::vector<Recipe> recipes() {
    const RawExtension crlNumber{"2.5.29.20", false, {0x02, 0x01, 0x07}};
    const RawExtension authorityKeyId{"2.5.29.35", false,
                                      tlv(0x30, tlv(0x80, {1, 2, 3, 4, 5, 6, 7, 8}))};
    const RawExtension invalidityDate{"2.5.29.24", false, tlv(0x18, text("20251231120000Z"))};
    const RawExtension privateEntry{"1.3.6.1.4.1.99999.2", false, nullValue};
    const time_t revoked = day0 - day;
    std::vector<Entry> many;
    for (int i = 0; i < 200; ++i)
        many.push_back({std::to_string(1000 + 7 * i), revoked, {}});

    return {
        {"v1-empty", false, day0, 0, {}, {}, false},
        {"v2-entries",
         true,
         day0,
         day0 + 7 * day,
         {{"10", revoked, {reason(keyCompromise)}},
          {"11", revoked, {reason(removeFromCrl)}},
          {"0F", revoked, {invalidityDate, privateEntry}},
          {"-5", revoked, {}},
          {"0", revoked, {}},
          {"7FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF", revoked, {}},
          {"80", revoked, {{"2.5.29.21", true, keyCompromise}}}},
         {crlNumber, authorityKeyId, {"1.3.6.1.4.1.99999.1", false, nullValue}},
         false},
        {"bad-signature", true, day0, day0 + 7 * day, {{"10", revoked, {}}}, {crlNumber}, true},
        // Serials listed twice: whether a removal or a revocation wins.
        {"duplicate-serials",
         true,
         day0,
         day0 + 7 * day,
         {{"5", revoked, {reason(removeFromCrl)}},
          {"6", revoked, {reason(removeFromCrl)}},
          {"5", revoked, {reason(keyCompromise)}},
          {"7", revoked, {}},
          {"6", revoked, {reason(removeFromCrl)}},
          {"7", revoked, {}},
          {"8", revoked, {reason(removeFromCrl)}}},
         {crlNumber},
         false},
        {"idp-only-users",
         true,
         day0,
         day0 + 7 * day,
         {{"21", revoked, {}}, {"22", revoked, {reason(keyCompromise)}}},
         {crlNumber, idp("http://127.0.0.1/d.crl", true)},
         false},
        {"idp-twice",
         true,
         day0,
         day0 + 7 * day,
         {{"21", revoked, {}}},
         {crlNumber, idp("http://127.0.0.1/d.crl", false), idp("http://127.0.0.1/e.crl", false)},
         false},
        // GeneralizedTime from 2050, UTCTime down to 1950, no nextUpdate.
        {"far-times",
         true,
         2556144000,
         0,
         {{"31", -631152000, {}}, {"32", 4102444800, {}}},
         {crlNumber},
         false},
        {"critical-unknown",
         true,
         day0,
         day0 + 7 * day,
         {},
         {crlNumber, {"1.3.6.1.4.1.99999.1", true, nullValue}},
         false},
        {"delta",
         true,
         day0,
         day0 + 7 * day,
         {},
         {crlNumber, {"2.5.29.27", false, {0x02, 0x01, 0x06}}},
         false},
        {"critical-entry-unknown",
         true,
         day0,
         day0 + 7 * day,
         {{"41", revoked, {{"1.3.6.1.4.1.99999.2", true, nullValue}}}},
         {crlNumber},
         false},
        // A Certificate Issuer outside an indirect CRL: critical it refuses
        // the CRL, not critical it is read past.
        {"certificate-issuer-critical",
         true,
         day0,
         day0 + 7 * day,
         {{"51", revoked, {certificate_issuer("other CA", true)}}},
         {crlNumber},
         false},
        {"certificate-issuer",
         true,
         day0,
         day0 + 7 * day,
         {{"51", revoked, {certificate_issuer("other CA", false)}}, {"52", revoked, {}}},
         {crlNumber},
         false},
        // A reason code that does not parse (padded ENUMERATED): OpenSSL's
        // look-up then reads no reason of any later entry.
        {"reason-unreadable",
         true,
         day0,
         day0 + 7 * day,
         {{"61", revoked, {reason({0x0a, 0x02, 0x00, 0x01})}},
          {"62", revoked, {reason(removeFromCrl)}}},
         {crlNumber},
         false},
        {"many-entries", true, day0, day0 + 7 * day, many, {crlNumber}, false},
    };
}

} // namespace

bool write_differential_seeds(const char* dir) {
    for (const Recipe& recipe : recipes()) {
        const Bytes der = make_crl(recipe);
        const std::string path = std::string(dir) + "/issued-" + recipe.name;
        std::FILE* file = der.empty() ? nullptr : std::fopen(path.c_str(), "wb");
        const bool written =
            file != nullptr && std::fwrite(der.data(), 1, der.size(), file) == der.size();
        if (file != nullptr && std::fclose(file) != 0)
            return false;
        if (!written) {
            std::fprintf(stderr, "crl_differential: seed %s not written\n", recipe.name);
            return false;
        }
    }
    ERR_clear_error();
    return true;
}

} // namespace qxfuzz
