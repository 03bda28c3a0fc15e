// An issuer certificate for whatever key an input made, so that a CRL signed
// with the key can be verified against a certificate that holds it.
#ifndef QXCRL_FUZZ_KEY_ISSUER_H
#define QXCRL_FUZZ_KEY_ISSUER_H

#include <cstdint>
#include <vector>

#include <qxcrl.h>

namespace qxfuzz {

struct KeyIssuer {
    // A certificate of the key's public half, valid from a day ago for a
    // year; null when the key cannot be put into a certificate.
    CertificateRecord* record = nullptr;
    // The layer's signature types for the key's algorithm; empty for an
    // algorithm the layer does not sign with.
    std::vector<uint32_t> signatureTypes;
    // The private and public halves belong together; a key whose halves do
    // not makes signatures that nothing verifies.
    bool consistent = false;
};

// The caller releases record with qxcert_free.
KeyIssuer make_key_issuer(SecurityContext* ctx, const QxPrivateKey* key);

} // namespace qxfuzz

#endif
