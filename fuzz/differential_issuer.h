// The fixed issuer of the differential target: an Ed25519 key made from
// fixed bytes, so that CRLs signed with it in one run verify in the next,
// and its self-signed certificate; and certificates with chosen serials
// under any issuer name, to look up in a CRL.
#ifndef QXCRL_FUZZ_DIFFERENTIAL_ISSUER_H
#define QXCRL_FUZZ_DIFFERENTIAL_ISSUER_H

#include <vector>

#include <openssl/evp.h>
#include <openssl/x509.h>

namespace qxfuzz {

struct DifferentialIssuer {
    EVP_PKEY* key = nullptr;
    X509* cert = nullptr; // version 3, no extensions, so any use is allowed
    std::vector<unsigned char> der;
};

// Made on first use and kept for the process; aborts when it cannot be made.
const DifferentialIssuer& differential_issuer();

// A version 3 certificate without extensions that names issuer as its
// issuer, signed by the fixed key; its serial is the caller's to set.
// NULL when issuer cannot be copied into it.
X509* certificate_under(const X509_NAME* issuer);

// Signs crl with the fixed key.
bool sign_as_issuer(X509_CRL* crl);

} // namespace qxfuzz

#endif
