// Answers from the cache: lookups among 1, 100 and 1,000 cached CRLs (a miss
// walks them all, a hit finds the head), a lookup in one cached CRL of
// 1,000,000 entries, listed and not, and filling a cache from a text of 1,000
// to 100,000 PEM CRLs under the primary label and under another one.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.h"
#include "qxcrl.h"
#include "test_pki.h"

using namespace qxtest;
using qxbench::Layer;
using qxbench::leaf_record;

namespace {

void add(SecurityContext* ctx, CrlCacheOwner* owner, const Bytes& der) {
    CrlObject* crl = nullptr;
    if (qxcrl_CreateCtx(ctx, &crl, der.data(), static_cast<uint32_t>(der.size())) != 0 ||
        qxcrl_AddCacheEntry(crl, owner->crlCache) != 0)
        std::abort();
}

// A cache of count CRLs, each of its own issuer; the first issuer's CRL at the head.
struct ManyIssuers {
    Layer layer;
    CrlCacheOwner* owner = nullptr;
    std::vector<Issuer> issuers;
    CertificateRecord* cached = nullptr;   // of the head CRL's issuer
    CertificateRecord* uncached = nullptr; // of an issuer with no CRL

    explicit ManyIssuers(int count) {
        if (qxcrl_CreateCacheOwner(layer.ctx, UINT32_MAX, &owner) != 0)
            std::abort();
        for (int i = 0; i <= count; ++i) {
            IssuerOptions options;
            options.commonName = "Bench CA " + std::to_string(i);
            issuers.push_back(make_issuer(options));
        }
        for (int i = count - 1; i >= 0; --i) {
            CrlOptions recipe;
            recipe.revoked = {revoked_serial({0x66})};
            add(layer.ctx, owner, make_crl(issuers[i], recipe));
        }
        cached = leaf_record(layer.ctx, issuers[0], {0x01});
        uncached = leaf_record(layer.ctx, issuers[count], {0x01});
    }
    ~ManyIssuers() {
        qxcert_free(layer.ctx, &cached);
        qxcert_free(layer.ctx, &uncached);
        qxcrl_DestroyCacheOwner(&owner);
    }
};

void lookup(benchmark::State& state, bool hit) {
    ManyIssuers cache(static_cast<int>(state.range(0)));
    CertificateRecord* cert = hit ? cache.cached : cache.uncached;
    const CertRevocationStatus expected = hit ? QXCRL_CERT_VALID : QXCRL_CERT_UNKNOWN;
    for (auto _ : state) {
        CertRevocationStatus status = 0;
        if (qxcrl_GetCertStatusFromCache(cert, cache.owner->crlCache, &status) != 0 ||
            status != expected)
            state.SkipWithError("wrong answer");
    }
}

void BM_CachedLookupHit(benchmark::State& state) {
    lookup(state, true);
}
void BM_CachedLookupMiss(benchmark::State& state) {
    lookup(state, false);
}
BENCHMARK(BM_CachedLookupHit)->Arg(1)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CachedLookupMiss)->Arg(1)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

// One cached CRL of a million entries (serials 1..1,000,000).
struct MillionEntries {
    Layer layer;
    CrlCacheOwner* owner = nullptr;
    CertificateRecord* listed = nullptr;
    CertificateRecord* unlisted = nullptr;

    MillionEntries() {
        const Issuer& issuer = shared_issuer(KeyKind::EcP256);
        if (qxcrl_CreateCacheOwner(layer.ctx, UINT32_MAX, &owner) != 0)
            std::abort();
        add(layer.ctx, owner, qxbench::sequential_crl(issuer, 1000000));
        listed = leaf_record(layer.ctx, issuer, qxbench::serial_of(500000));
        unlisted = leaf_record(layer.ctx, issuer, {0x20, 0x00, 0x00, 0x01});
        // The first lookup sorts the entries once; the benchmark measures the rest.
        CertRevocationStatus status = 0;
        qxcrl_GetCertStatusFromCache(listed, owner->crlCache, &status);
    }
    ~MillionEntries() {
        qxcert_free(layer.ctx, &listed);
        qxcert_free(layer.ctx, &unlisted);
        qxcrl_DestroyCacheOwner(&owner);
    }
};

MillionEntries& million() {
    static MillionEntries instance;
    return instance;
}

void BM_MillionEntryLookup(benchmark::State& state) {
    MillionEntries& cache = million();
    const bool hit = state.range(0) == 1;
    CertificateRecord* cert = hit ? cache.listed : cache.unlisted;
    const CertRevocationStatus expected = hit ? QXCRL_CERT_REVOKED : QXCRL_CERT_VALID;
    for (auto _ : state) {
        CertRevocationStatus status = 0;
        if (qxcrl_GetCertStatusFromCache(cert, cache.owner->crlCache, &status) != 0 ||
            status != expected)
            state.SkipWithError("wrong answer");
    }
}
BENCHMARK(BM_MillionEntryLookup)->ArgName("hit")->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);

// blocks PEM CRLs of the shared issuer, each with a begin and end label of
// the pair chosen by label: 0 the primary pair, 1 the next one.
std::string concatenated_pem(SecurityContext* ctx, int label, int blocks) {
    const char* const begins[] = {QX_STR_CRL_HEADER, QX_STR_CRL_HEADER1};
    const char* const ends[] = {QX_STR_CRL_FOOTER, QX_STR_CRL_FOOTER1};
    const Bytes der = make_crl(shared_issuer(KeyKind::EcP256), CrlOptions{});
    char* body = nullptr;
    uint32_t length = 0;
    if (qxbc_der_to_b64(ctx, der.data(), static_cast<uint32_t>(der.size()), &body, &length) != 0)
        std::abort();
    const std::string block = begins[label] + std::string(body, length) + ends[label] + "\n";
    qxumfree(ctx, &body);
    std::string text;
    text.reserve(block.size() * static_cast<size_t>(blocks));
    for (int i = 0; i < blocks; ++i)
        text += block;
    return text;
}

void BM_ConcatenatedPem(benchmark::State& state) {
    Layer layer;
    const std::string text = concatenated_pem(layer.ctx, static_cast<int>(state.range(0)),
                                              static_cast<int>(state.range(1)));
    for (auto _ : state) {
        CrlCacheOwner* owner = nullptr;
        if (qxcrl_CreateCacheOwner(layer.ctx, UINT32_MAX, &owner) != 0 ||
            qxcrl_SetB64Crl(owner, text.c_str(), static_cast<uint32_t>(text.size())) != 0)
            state.SkipWithError("read failed");
        qxcrl_DestroyCacheOwner(&owner);
    }
}
BENCHMARK(BM_ConcatenatedPem)
    ->ArgNames({"label", "blocks"})
    ->ArgsProduct({{0, 1}, {1000, 10000, 100000}})
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
