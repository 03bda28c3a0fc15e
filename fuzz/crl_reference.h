// What the toolkit must answer for a CRL, worked out from OpenSSL's own
// reading of the DER (d2i_X509_CRL and the X509_CRL getters) without any
// toolkit code: the differential target's reference side.
#ifndef QXCRL_FUZZ_CRL_REFERENCE_H
#define QXCRL_FUZZ_CRL_REFERENCE_H

#include <cstdint>
#include <ctime>
#include <vector>

#include <openssl/x509.h>

namespace qxfuzz::reference {

using Bytes = std::vector<unsigned char>;

// R_CRL_from_binary's status for a CRL that d2i_X509_CRL accepted: the
// toolkit's extension handling (asked of R_CRL_extension_handling, the
// published policy) and its Issuing Distribution Point rules.
int decode_status(const X509_CRL* crl);

// R_CRL_INFO_SIGNATURE_ALGORITHM's status, and its value into *value.
int signature_algorithm(const X509_CRL* crl, uint32_t* value);

struct Time {
    int status;       // R_ERROR_NONE, R_ERROR_NOT_PRESENT or R_ERROR_DECODE
    int64_t seconds;  // since 1970, when status is R_ERROR_NONE
    std::tm calendar; // the same instant as OpenSSL reads it
};

// A CRL or entry time as the toolkit reports it.
Time time_of(const ASN1_TIME* time);

// An INTEGER's DER content octets.
Bytes integer_content(const ASN1_INTEGER* integer);

struct Extension {
    Bytes oid; // extnID content octets
    uint32_t critical;
    Bytes value; // inside extnValue
};

Extension extension_of(const X509_EXTENSION* extension);

// Whether the entry's reason code reads as removeFromCRL.
bool removed_from_crl(const X509_REVOKED* entry);

// Whether the element at the start of der, or one inside it, uses a form
// only BER allows: an indefinite length, a tag number in the long form, or a
// universal string type in the constructed form. OpenSSL reads these; the
// toolkit refuses them, as RFC 5280 signs DER.
bool ber_only(const unsigned char* der, size_t length);

// Whether the CRL names one signature algorithm in its signed part and
// another beside the signature, which RFC 5280 forbids and the toolkit
// takes as a bad signature, though OpenSSL verifies under the outer one.
bool algorithms_differ(const unsigned char* der, size_t length, const X509_CRL* crl);

} // namespace qxfuzz::reference

#endif
