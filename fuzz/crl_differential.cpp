// The toolkit's CRL against OpenSSL read directly: for every input, the
// same decoding verdict (accepted, or refused with the same status), and for
// a CRL both accept the same bytes consumed and written back, the same
// fields, times, entries and extensions, the same look-ups by certificate
// and the same signature verdict against a fixed issuer. Only the R_ API is
// called on the toolkit side, so the target holds for any representation of
// R_CRL. Any difference aborts with the field's name. Two differences are
// the toolkit's by design and checked as such: it refuses the forms only BER
// allows, and a CRL naming one signature algorithm in its signed part and
// another beside the signature has a bad signature.
//
// With QXCRL_DIFFERENTIAL_SEEDS set to a directory, the target writes CRLs
// signed by its fixed issuer there and exits (fuzz/seed.sh uses this).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "../tests/support/test_pki.h"
#include "../tests/support/toolkit_owners.h"
#include "crl_reference.h"
#include "differential_issuer.h"
#include "differential_seeds.h"
#include "toolkit/r_toolkit.h"

namespace {

using qxfuzz::reference::Bytes;

using qxtest::CertCtxPtr;
using qxtest::CertPtr;
using qxtest::CrlPtr;
using qxtest::EntryPtr;
using qxtest::ExtPtr;
using qxtest::item_bytes;
using qxtest::LibPtr;
using qxtest::TimeCtxPtr;
using qxtest::TimePtr;
using X509CrlPtr = qxtest::Crl;
using X509Ptr = qxtest::Cert;
struct IntegerFree {
    void operator()(ASN1_INTEGER* integer) const { ASN1_INTEGER_free(integer); }
};
using IntegerPtr = std::unique_ptr<ASN1_INTEGER, IntegerFree>;

// Look-ups build and decode a certificate each; this keeps one input fast.
constexpr size_t max_lookups = 64;

// At most 48 bytes of hex from offset on, with the total length when cut.
std::string hex(const Bytes& bytes, size_t offset = 0) {
    static const char digits[] = "0123456789abcdef";
    std::string text = offset == 0 ? "" : "..";
    for (size_t i = offset; i < bytes.size() && i < offset + 48; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0xf];
    }
    if (offset != 0 || bytes.size() > offset + 48)
        text += ".. (" + std::to_string(bytes.size()) + " bytes)";
    return text;
}

[[noreturn]] void differ(const std::string& field, const std::string& toolkit,
                         const std::string& reference) {
    std::fprintf(stderr, "crl_differential: %s differs: toolkit %s, reference %s\n", field.c_str(),
                 toolkit.c_str(), reference.c_str());
    std::abort();
}

// The harness itself could not go on: not a difference, but not to be passed over.
[[noreturn]] void harness_fault(const std::string& what) {
    std::fprintf(stderr, "crl_differential: harness fault: %s\n", what.c_str());
    std::abort();
}

void same(const std::string& field, int64_t toolkit, int64_t reference) {
    if (toolkit != reference)
        differ(field, std::to_string(toolkit), std::to_string(reference));
}

// Byte strings are shown from a little before their first difference.
void same(const std::string& field, const Bytes& toolkit, const Bytes& reference) {
    if (toolkit == reference)
        return;
    size_t first = 0;
    while (first < toolkit.size() && first < reference.size() && toolkit[first] == reference[first])
        ++first;
    const size_t from = first < 8 ? 0 : first - 8;
    differ(field + " (from byte " + std::to_string(from) + ")", hex(toolkit, from),
           hex(reference, from));
}

// The toolkit objects of one input.
struct Toolkit {
    LibPtr lib;
    CertCtxPtr certs;
    TimeCtxPtr times;
    TimePtr time;
    ExtPtr ext;
    EntryPtr entry;
};

Toolkit open_toolkit() {
    Toolkit toolkit;
    R_LIB_CTX* lib = nullptr;
    if (R_LIB_CTX_new(R_LIB_CTX_SHARED, &lib) != R_ERROR_NONE)
        harness_fault("R_LIB_CTX_new");
    toolkit.lib.reset(lib);
    R_CERT_CTX* certs = nullptr;
    R_TIME_CTX* times = nullptr;
    if (R_CERT_CTX_new(lib, &certs) != R_ERROR_NONE)
        harness_fault("R_CERT_CTX_new");
    toolkit.certs.reset(certs);
    if (R_TIME_CTX_new(lib, 0, &times) != R_ERROR_NONE)
        harness_fault("R_TIME_CTX_new");
    toolkit.times.reset(times);
    R_TIME* time = nullptr;
    R_EXT* ext = nullptr;
    R_CRL_ENTRY* entry = nullptr;
    if (R_TIME_new(times, &time) != R_ERROR_NONE || R_EXT_new(lib, 0, &ext) != R_ERROR_NONE ||
        R_CRL_ENTRY_new(lib, 0, &entry) != R_ERROR_NONE)
        harness_fault("empty holders");
    toolkit.time.reset(time);
    toolkit.ext.reset(ext);
    toolkit.entry.reset(entry);
    return toolkit;
}

// A time the toolkit filled, against the reference: the status, then the
// instant, as seconds where the export takes it and as text before 1970.
void same_time(const std::string& field, int status, R_TIME* time,
               const qxfuzz::reference::Time& expected) {
    same(field + " status", status, expected.status);
    if (expected.status != R_ERROR_NONE)
        return;
    if (expected.seconds >= 0) {
        unsigned char bytes[8] = {};
        uint32_t length = 0;
        same(field + " export", R_TIME_export(time, R_TIME_FORMAT_SECONDS_BE, bytes, &length, 8),
             R_ERROR_NONE);
        uint64_t seconds = 0;
        for (unsigned char byte : bytes)
            seconds = seconds << 8 | byte;
        same(field + " seconds", static_cast<int64_t>(seconds), expected.seconds);
        return;
    }
    const std::tm& at = expected.calendar;
    char text[64];
    const int written =
        std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02dZ", at.tm_year + 1900,
                      at.tm_mon + 1, at.tm_mday, at.tm_hour, at.tm_min, at.tm_sec);
    unsigned char buffer[64] = {};
    uint32_t length = 0;
    const int exported = R_TIME_export(time, R_TIME_FORMAT_RFC3339, buffer, &length, sizeof buffer);
    // The text form has a year of four digits.
    if (at.tm_year + 1900 < 0) {
        if (exported == R_ERROR_NONE)
            differ(field + " text", std::string(buffer, buffer + length), "a year before 0");
        return;
    }
    same(field + " text export", exported, R_ERROR_NONE);
    if (std::string(buffer, buffer + length) != std::string(text, static_cast<size_t>(written)))
        differ(field + " text", std::string(buffer, buffer + length), text);
}

void same_extension(const std::string& field, R_EXT* ext, const X509_EXTENSION* expected) {
    const qxfuzz::reference::Extension reference = qxfuzz::reference::extension_of(expected);
    R_ITEM item{};
    same(field + " OID status", R_EXT_get_info(ext, R_EXT_INFO_OID, &item), R_ERROR_NONE);
    same(field + " OID", item_bytes(item), reference.oid);
    uint32_t critical = 2;
    same(field + " critical status", R_EXT_get_info(ext, R_EXT_INFO_CRITICAL, &critical),
         R_ERROR_NONE);
    same(field + " critical", critical, reference.critical);
    same(field + " value status", R_EXT_get_info(ext, R_EXT_INFO_VALUE, &item), R_ERROR_NONE);
    same(field + " value", item_bytes(item), reference.value);
}

void same_crl_extensions(Toolkit& toolkit, R_CRL* crl, const X509_CRL* reference) {
    const STACK_OF(X509_EXTENSION)* expected = X509_CRL_get0_extensions(reference);
    const int number = sk_X509_EXTENSION_num(expected);
    uint32_t count = 0;
    same("CRL extension count status", R_CRL_get_extension_count(crl, &count), R_ERROR_NONE);
    same("CRL extension count", count, number > 0 ? number : 0);
    for (int i = 0; i < number; ++i) {
        const std::string field = "CRL extension " + std::to_string(i);
        same(field + " status",
             R_CRL_get_extension(crl, static_cast<uint32_t>(i), toolkit.ext.get()), R_ERROR_NONE);
        same_extension(field, toolkit.ext.get(), sk_X509_EXTENSION_value(expected, i));
    }
    const int index = X509_CRL_get_ext_by_NID(reference, NID_crl_number, -1);
    const int status = R_CRL_get_info(crl, R_CRL_INFO_CRL_NUMBER, toolkit.ext.get());
    same("CRL Number status", status, index >= 0 ? R_ERROR_NONE : R_ERROR_NOT_PRESENT);
    if (index >= 0)
        same_extension("CRL Number", toolkit.ext.get(), X509_CRL_get_ext(reference, index));
}

void same_entry(Toolkit& toolkit, R_CRL* crl, uint32_t index, const X509_REVOKED* expected) {
    const std::string field = "entry " + std::to_string(index);
    R_CRL_ENTRY* entry = toolkit.entry.get();
    same(field + " status", R_CRL_get_entry(crl, index, entry), R_ERROR_NONE);
    R_ITEM item{};
    same(field + " serial status", R_CRL_ENTRY_get_info(entry, R_CRL_ENTRY_INFO_SERIAL, &item),
         R_ERROR_NONE);
    same(field + " serial", item_bytes(item),
         qxfuzz::reference::integer_content(X509_REVOKED_get0_serialNumber(expected)));
    same_time(field + " revocation date",
              R_CRL_ENTRY_get_info(entry, R_CRL_ENTRY_INFO_REVOCATION_DATE, toolkit.time.get()),
              toolkit.time.get(),
              qxfuzz::reference::time_of(X509_REVOKED_get0_revocationDate(expected)));
    const STACK_OF(X509_EXTENSION)* extensions = X509_REVOKED_get0_extensions(expected);
    const int number = sk_X509_EXTENSION_num(extensions);
    uint32_t count = 0;
    same(field + " extension count status", R_CRL_ENTRY_get_extension_count(entry, &count),
         R_ERROR_NONE);
    same(field + " extension count", count, number > 0 ? number : 0);
    for (int i = 0; i < number; ++i) {
        const std::string extension = field + " extension " + std::to_string(i);
        same(extension + " status",
             R_CRL_ENTRY_get_extension(entry, static_cast<uint32_t>(i), toolkit.ext.get()),
             R_ERROR_NONE);
        same_extension(extension, toolkit.ext.get(), sk_X509_EXTENSION_value(extensions, i));
    }
}

// Everything a CRL both sides accepted says, field by field, entries by
// index; before any look-up, which may put the entries in serial order.
void same_fields(Toolkit& toolkit, R_CRL* crl, X509_CRL* reference) {
    uint32_t version = 0xdead;
    same("version status", R_CRL_get_info(crl, R_CRL_INFO_VERSION, &version), R_ERROR_NONE);
    same("version", version, static_cast<uint32_t>(X509_CRL_get_version(reference)));
    ERR_clear_error();

    uint32_t algorithm = 0;
    uint32_t expectedAlgorithm = 0;
    const int algorithmStatus =
        qxfuzz::reference::signature_algorithm(reference, &expectedAlgorithm);
    same("signature algorithm status",
         R_CRL_get_info(crl, R_CRL_INFO_SIGNATURE_ALGORITHM, &algorithm), algorithmStatus);
    if (algorithmStatus == R_ERROR_NONE)
        same("signature algorithm", algorithm, expectedAlgorithm);

    const unsigned char* issuerDer = nullptr;
    size_t issuerLength = 0;
    if (X509_NAME_get0_der(X509_CRL_get_issuer(reference), &issuerDer, &issuerLength) != 1)
        harness_fault("X509_NAME_get0_der");
    const Bytes issuer(issuerDer, issuerDer + issuerLength);
    uint32_t length = 0;
    same("issuer length status", R_CRL_issuer_name_to_binary(crl, 0, nullptr, &length),
         R_ERROR_NONE);
    Bytes written(length);
    same("issuer status", R_CRL_issuer_name_to_binary(crl, length, written.data(), &length),
         R_ERROR_NONE);
    written.resize(length);
    same("issuer DER", written, issuer);
    R_ITEM item{};
    same("issuer item status", R_CRL_get_info(crl, R_CRL_INFO_ISSUER_NAME, &item), R_ERROR_NONE);
    same("issuer item", item_bytes(item), issuer);

    R_TIME* time = toolkit.time.get();
    same_time("thisUpdate", R_CRL_get_info(crl, R_CRL_INFO_THIS_UPDATE, time), time,
              qxfuzz::reference::time_of(X509_CRL_get0_lastUpdate(reference)));
    same_time("nextUpdate", R_CRL_get_info(crl, R_CRL_INFO_NEXT_UPDATE, time), time,
              qxfuzz::reference::time_of(X509_CRL_get0_nextUpdate(reference)));

    same_crl_extensions(toolkit, crl, reference);

    STACK_OF(X509_REVOKED)* entries = X509_CRL_get_REVOKED(reference);
    const int number = sk_X509_REVOKED_num(entries);
    uint32_t count = 0;
    same("entry count status", R_CRL_get_entry_count(crl, &count), R_ERROR_NONE);
    same("entry count", count, number > 0 ? number : 0);
    for (int i = 0; i < number; ++i)
        same_entry(toolkit, crl, static_cast<uint32_t>(i), sk_X509_REVOKED_value(entries, i));
}

// R_CRL_find_entry for a certificate with serial under the CRL's issuer;
// a found entry must be for that serial.
int find(Toolkit& toolkit, R_CRL* crl, X509* leaf, const ASN1_INTEGER* serial,
         const Bytes& content) {
    unsigned char* der = nullptr;
    const int length = X509_set_serialNumber(leaf, const_cast<ASN1_INTEGER*>(serial)) == 1
                           ? i2d_X509(leaf, &der)
                           : 0;
    if (length <= 0)
        harness_fault("certificate with a CRL's serial");
    R_CERT* made = nullptr;
    const int decoded = R_CERT_from_binary(toolkit.certs.get(), 0, static_cast<uint32_t>(length),
                                           der, nullptr, &made);
    OPENSSL_free(der);
    CertPtr cert(made);
    if (decoded != R_ERROR_NONE)
        harness_fault("R_CERT_from_binary refused a certificate made for a look-up");
    R_ITEM item{};
    if (R_CERT_get_info(cert.get(), R_CERT_INFO_SERIAL, &item) != R_ERROR_NONE ||
        item_bytes(item) != content)
        harness_fault("the look-up certificate does not carry the serial");
    const int status = R_CRL_find_entry(crl, cert.get(), toolkit.entry.get());
    if (status == R_ERROR_NONE) {
        same("found entry serial status",
             R_CRL_ENTRY_get_info(toolkit.entry.get(), R_CRL_ENTRY_INFO_SERIAL, &item),
             R_ERROR_NONE);
        same("found entry serial", item_bytes(item), content);
    }
    return status;
}

// What R_CRL_find_entry answers where OpenSSL's look-up decides.
int lookup_status(X509_CRL* reference, const ASN1_INTEGER* serial) {
    X509_REVOKED* found = nullptr;
    // 2 is an entry whose reason is removeFromCRL: the certificate is not revoked.
    const int result =
        X509_CRL_get0_by_serial(reference, &found, const_cast<ASN1_INTEGER*>(serial));
    ERR_clear_error();
    return result == 1 ? R_ERROR_NONE : R_ERROR_NOT_FOUND;
}

// A serial that no entry has.
IntegerPtr absent_serial(const std::map<Bytes, std::vector<const X509_REVOKED*>>& serials) {
    Bytes content{0x7e, 0x51, 0xa1, 0x00};
    while (serials.count(content) != 0) {
        if (content.back() == 0xff)
            content.push_back(0x00);
        else
            ++content.back();
    }
    BIGNUM* number = BN_bin2bn(content.data(), static_cast<int>(content.size()), nullptr);
    IntegerPtr serial(number != nullptr ? BN_to_ASN1_INTEGER(number, nullptr) : nullptr);
    BN_free(number);
    if (serial == nullptr)
        harness_fault("absent serial");
    return serial;
}

// Look-ups by certificate: each serial listed once, serials listed more than
// once, and one not listed. A CRL with an Issuing Distribution Point
// answers by its scope, which OpenSSL's look-up does not know: there only
// the documented statuses are checked.
void same_lookups(Toolkit& toolkit, R_CRL* crl, X509_CRL* reference) {
    std::map<Bytes, std::vector<const X509_REVOKED*>> serials;
    // OpenSSL's look-up takes a Certificate Issuer entry extension, critical
    // or not, to move that entry and the ones after it to the issuer it
    // names; the rule for duplicates below does not know about that.
    bool otherIssuers = false;
    STACK_OF(X509_REVOKED)* entries = X509_CRL_get_REVOKED(reference);
    for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
        const X509_REVOKED* entry = sk_X509_REVOKED_value(entries, i);
        serials[qxfuzz::reference::integer_content(X509_REVOKED_get0_serialNumber(entry))]
            .push_back(entry);
        otherIssuers =
            otherIssuers || X509_REVOKED_get_ext_by_NID(entry, NID_certificate_issuer, -1) >= 0;
    }
    X509Ptr leaf(qxfuzz::certificate_under(X509_CRL_get_issuer(reference)));
    if (leaf == nullptr)
        harness_fault("certificate under the CRL's issuer");
    const bool scoped = X509_CRL_get_ext_by_NID(reference, NID_issuing_distribution_point, -1) >= 0;
    const auto check = [&](const Bytes& content, const ASN1_INTEGER* serial, int expected) {
        const int status = find(toolkit, crl, leaf.get(), serial, content);
        const std::string field = "look-up of serial " + hex(content);
        if (scoped) {
            if (status != R_ERROR_NONE && status != R_ERROR_NOT_FOUND &&
                status != R_ERROR_OUT_OF_SCOPE)
                differ(field, std::to_string(status), "a look-up status");
        } else if (expected >= 0) {
            same(field, status, expected);
        }
    };

    size_t lookups = 0;
    for (const auto& [content, listed] : serials) {
        // One look-up is kept for the absent serial.
        if (++lookups == max_lookups)
            break;
        const ASN1_INTEGER* serial = X509_REVOKED_get0_serialNumber(listed.front());
        if (listed.size() == 1) {
            check(content, serial, lookup_status(reference, serial));
            continue;
        }
        // Listed more than once: OpenSSL answers from whichever its sort puts
        // first, but any revocation that is not a removal must win.
        bool revoked = false;
        for (const X509_REVOKED* entry : listed)
            revoked = revoked || !qxfuzz::reference::removed_from_crl(entry);
        check(content, serial, revoked && !otherIssuers ? R_ERROR_NONE : -1);
    }
    const IntegerPtr absent = absent_serial(serials);
    check(qxfuzz::reference::integer_content(absent.get()), absent.get(),
          lookup_status(reference, absent.get()));
}

// R_CRL_verify against the fixed issuer: the names, then the signature.
void same_verdict(Toolkit& toolkit, R_CRL* crl, X509_CRL* reference, const Bytes& der) {
    const qxfuzz::DifferentialIssuer& issuer = qxfuzz::differential_issuer();
    R_CERT* made = nullptr;
    if (R_CERT_from_binary(toolkit.certs.get(), 0, static_cast<uint32_t>(issuer.der.size()),
                           issuer.der.data(), nullptr, &made) != R_ERROR_NONE)
        harness_fault("R_CERT_from_binary refused the fixed issuer");
    CertPtr cert(made);
    int expectedStatus = R_ERROR_NONE;
    uint32_t expectedResult = 0;
    const int names =
        X509_NAME_cmp(X509_CRL_get_issuer(reference), X509_get_subject_name(issuer.cert));
    if (names == -2) {
        expectedStatus = R_ERROR_DECODE;
    } else if (names != 0) {
        expectedResult = R_CRL_VERIFY_OTHER_ISSUER;
    } else if (qxfuzz::reference::algorithms_differ(der.data(), der.size(), reference)) {
        expectedResult = R_CRL_VERIFY_BAD_SIGNATURE;
    } else {
        // The fixed issuer has no keyUsage, so it may sign CRLs.
        const int verified = X509_CRL_verify(reference, issuer.key);
        if (verified < 0)
            expectedStatus = R_ERROR_CRYPTO;
        else if (verified == 0)
            expectedResult = R_CRL_VERIFY_BAD_SIGNATURE;
    }
    ERR_clear_error();
    uint32_t result = 0xdead;
    const int status = R_CRL_verify(crl, cert.get(), &result);
    // Each side's verdict too, where it has one.
    const auto outcome = [](int verifyStatus, uint32_t verdict) {
        return std::to_string(verifyStatus) +
               (verifyStatus == R_ERROR_NONE ? " verdict " + std::to_string(verdict) : "");
    };
    if (status != expectedStatus || (status == R_ERROR_NONE && result != expectedResult))
        differ("verify", outcome(status, result), outcome(expectedStatus, expectedResult));
}

void compare(const uint8_t* data, uint32_t size) {
    Toolkit toolkit = open_toolkit();
    uint32_t consumed = 0;
    R_CRL* decoded = nullptr;
    const int status = R_CRL_from_binary(toolkit.lib.get(), 0, size, data, &consumed, &decoded);
    CrlPtr crl(decoded);

    const unsigned char* cursor = data;
    X509CrlPtr reference(d2i_X509_CRL(nullptr, &cursor, static_cast<long>(size)));
    ERR_clear_error();
    const int expected =
        reference == nullptr ? R_ERROR_DECODE : qxfuzz::reference::decode_status(reference.get());
    // What OpenSSL reads only as BER the toolkit refuses as undecodable.
    if (expected != R_ERROR_DECODE && status == R_ERROR_DECODE &&
        qxfuzz::reference::ber_only(data, static_cast<size_t>(cursor - data)))
        return;
    same("decode status", status, expected);
    if (status != R_ERROR_NONE) {
        if (crl != nullptr)
            differ("refused CRL", "an object", "none");
        return;
    }
    const auto advanced = static_cast<uint32_t>(cursor - data);
    same("bytes consumed", consumed, advanced);

    uint32_t length = 0;
    same("encoding length status", R_CRL_to_binary(crl.get(), 0, nullptr, &length), R_ERROR_NONE);
    Bytes written(length);
    same("encoding status", R_CRL_to_binary(crl.get(), length, written.data(), &length),
         R_ERROR_NONE);
    written.resize(length);
    same("encoding", written, Bytes(data, data + advanced));

    same_fields(toolkit, crl.get(), reference.get());
    same_verdict(toolkit, crl.get(), reference.get(), written);
    same_lookups(toolkit, crl.get(), reference.get());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (const char* dir = std::getenv("QXCRL_DIFFERENTIAL_SEEDS"))
        std::exit(qxfuzz::write_differential_seeds(dir) ? 0 : 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > UINT32_MAX)
        return 0;
    compare(data, static_cast<uint32_t>(size));
    ERR_clear_error();
    return 0;
}
