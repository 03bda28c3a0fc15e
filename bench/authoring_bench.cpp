// The certificate-authority side at scale: creating a CRL, revoking 1,000
// certificates one by one into a CRL of 10,000 entries (each revocation
// signs the whole CRL again), and signing CRLs of 1k, 10k and 100k entries.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <vector>

#include "bench_support.h"
#include "qxcrl.h"
#include "test_pki.h"

using namespace qxtest;

namespace {

// A layer with the shared EC issuer as certificate record and key.
struct Authority {
    qxbench::Layer layer;
    SecurityContext* ctx = layer.ctx;
    qxbench::Signer signer{ctx};
    CertificateRecord* issuer = signer.issuer;
    QxPrivateKey* key = signer.key;

    // A CRL of the shared issuer with entries revoked serials 1..entries.
    CrlObject* crl_of(uint32_t entries) {
        const Bytes der = qxbench::sequential_crl(shared_issuer(KeyKind::EcP256), entries);
        CrlObject* crl = nullptr;
        if (qxcrl_CreateCtx(ctx, &crl, der.data(), static_cast<uint32_t>(der.size())) != 0)
            std::abort();
        return crl;
    }
};

Authority& authority() {
    static Authority instance;
    return instance;
}

void BM_Create(benchmark::State& state) {
    Authority& ca = authority();
    for (auto _ : state) {
        CrlObject* crl = nullptr;
        if (qxcrl_Create(ca.ctx, &crl, ca.key, ca.issuer, "7d", QX_SIG_ECDSA_SHA256) != 0)
            state.SkipWithError("create failed");
        qxcrl_Destroy(ca.ctx, &crl);
    }
}
BENCHMARK(BM_Create)->Unit(benchmark::kMicrosecond);

void BM_Revoke1000Into10k(benchmark::State& state) {
    Authority& ca = authority();
    std::vector<CertificateRecord*> leaves;
    for (uint32_t i = 0; i < 1000; ++i) {
        LeafOptions options;
        options.serial = {0x7f, static_cast<unsigned char>(i >> 8), static_cast<unsigned char>(i)};
        leaves.push_back(
            qxbench::leaf_record(ca.ctx, shared_issuer(KeyKind::EcP256), options.serial));
    }
    for (auto _ : state) {
        state.PauseTiming();
        CrlObject* crl = ca.crl_of(10000);
        state.ResumeTiming();
        for (CertificateRecord* leaf : leaves) {
            if (qxcrl_RevokeCert(ca.ctx, crl, ca.key, ca.issuer, leaf, QX_SIG_ECDSA_SHA256) != 0)
                state.SkipWithError("revoke failed");
        }
        state.PauseTiming();
        qxcrl_Destroy(ca.ctx, &crl);
        state.ResumeTiming();
    }
    for (CertificateRecord*& leaf : leaves)
        qxcert_free(ca.ctx, &leaf);
}
BENCHMARK(BM_Revoke1000Into10k)->Unit(benchmark::kMillisecond)->Iterations(1);

void BM_Sign(benchmark::State& state) {
    Authority& ca = authority();
    CrlObject* crl = ca.crl_of(static_cast<uint32_t>(state.range(0)));
    for (auto _ : state) {
        if (qxcrl_Sign(ca.ctx, crl, ca.issuer, ca.key, QX_SIG_ECDSA_SHA256) != 0)
            state.SkipWithError("sign failed");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    qxcrl_Destroy(ca.ctx, &crl);
}
BENCHMARK(BM_Sign)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
