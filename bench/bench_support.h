// What the benchmarks share: a layer instance, CRLs of consecutive serials,
// certificate records of leaves made at run time, and an issuer's record and
// key. Setup failures abort: a benchmark that could not set up has nothing to
// measure.
#ifndef QXCRL_BENCH_BENCH_SUPPORT_H
#define QXCRL_BENCH_BENCH_SUPPORT_H

#include <cstdlib>

#include <openssl/crypto.h>
#include <openssl/x509.h>

#include "qxcrl.h"
#include "test_pki.h"

namespace qxbench {

// Serial n as three big-endian bytes (n below 2^24).
inline qxtest::Bytes serial_of(uint32_t n) {
    return {static_cast<unsigned char>(n >> 16), static_cast<unsigned char>(n >> 8),
            static_cast<unsigned char>(n)};
}

// A DER CRL of issuer with entries for serials step, 2 step, ..., entries step.
inline qxtest::Bytes sequential_crl(const qxtest::Issuer& issuer, uint32_t entries,
                                    uint32_t step = 1) {
    qxtest::CrlOptions recipe;
    recipe.revoked.reserve(entries);
    for (uint32_t n = 1; n <= entries; ++n)
        recipe.revoked.push_back(qxtest::revoked_serial(serial_of(n * step)));
    return qxtest::make_crl(issuer, recipe);
}

struct Layer {
    SecurityContext* ctx = nullptr;
    Layer() {
        if (qxlayer_create(nullptr, &ctx) != 0)
            std::abort();
    }
    ~Layer() { qxlayer_destroy(&ctx); }
    Layer(const Layer&) = delete;
    Layer& operator=(const Layer&) = delete;
};

// The record of a new leaf of issuer with this serial (released with qxcert_free).
inline CertificateRecord* leaf_record(SecurityContext* ctx, const qxtest::Issuer& issuer,
                                      const qxtest::Bytes& serial) {
    qxtest::LeafOptions options;
    options.serial = serial;
    const qxtest::Bytes der = qxtest::cert_der(qxtest::make_leaf(issuer, options).get());
    CertificateRecord* record = nullptr;
    if (qxcert_from_bytes(ctx, der.data(), static_cast<uint32_t>(der.size()), &record) != 0)
        std::abort();
    return record;
}

// A shared issuer (EC by default) as the layer's certificate record and private key.
struct Signer {
    SecurityContext* ctx;
    CertificateRecord* issuer = nullptr;
    QxPrivateKey* key = nullptr;

    explicit Signer(SecurityContext* layerCtx, qxtest::KeyKind kind = qxtest::KeyKind::EcP256)
        : ctx(layerCtx) {
        const qxtest::Issuer& ca = qxtest::shared_issuer(kind);
        const qxtest::Bytes cert = qxtest::cert_der(ca.cert.get());
        unsigned char* der = nullptr;
        const int length = i2d_PrivateKey(ca.key.get(), &der);
        if (length <= 0 ||
            qxcert_from_bytes(ctx, cert.data(), static_cast<uint32_t>(cert.size()), &issuer) != 0 ||
            qxdk_key_from_bytes(ctx, der, static_cast<uint32_t>(length), nullptr, &key) != 0)
            std::abort();
        OPENSSL_free(der);
    }
    ~Signer() {
        qxdk_key_free(ctx, &key);
        qxcert_free(ctx, &issuer);
    }
    Signer(const Signer&) = delete;
    Signer& operator=(const Signer&) = delete;
};

} // namespace qxbench

#endif
