// Each operation beside the same work done with raw OpenSSL calls, in one
// binary and one run, so that the ratio between the two can be read off:
// decoding DER and loading PEM files of 1k to 1M entries, the memory a
// decoded CRL of 1M entries holds, lookups in it (of one certificate again
// and again, and of a thousand in turn), cached lookups among 1 to
// 1,000 CRLs, verifying the signature of a 100k-entry CRL, creating a CRL
// with 1,000 revocations, and revoking one certificate into a CRL of 10k
// entries. Names end in _qxcrl or _openssl; scripts/bench.sh pairs them up.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.h"
#include "files.h"
#include "qxcrl.h"
#include "test_pki.h"

using namespace qxtest;
using qxbench::Layer;
using qxbench::leaf_record;
using qxbench::serial_of;

namespace {

Layer& layer() {
    static Layer instance;
    return instance;
}

// The one T made from key, made on first use and kept for the run. Never
// destroyed: what it holds is freed through the layer, which exit may have
// destroyed first.
template <typename T, typename Key> T& made_for(const Key& key) {
    static auto& made = *new std::map<Key, std::unique_ptr<T>>;
    auto& slot = made[key];
    if (!slot)
        slot = std::make_unique<T>(key);
    return *slot;
}

// A CRL of the shared issuer with entries for serials 1..entries, as DER and
// as a PEM file; made once per size.
struct CrlOfSize {
    Bytes der;
    std::string pemPath;
};

const CrlOfSize& crl_of_size(uint32_t entries) {
    static std::map<uint32_t, CrlOfSize> made;
    auto found = made.find(entries);
    if (found != made.end())
        return found->second;
    CrlOfSize crl;
    crl.der = qxbench::sequential_crl(shared_issuer(KeyKind::EcP256), entries);
    crl.pemPath = (std::filesystem::temp_directory_path() /
                   ("qxcrl-bench-" + std::to_string(entries) + ".pem"))
                      .string();
    const unsigned char* cursor = crl.der.data();
    X509_CRL* x509 = d2i_X509_CRL(nullptr, &cursor, static_cast<long>(crl.der.size()));
    FILE* out = std::fopen(crl.pemPath.c_str(), "w");
    if (x509 == nullptr || out == nullptr || PEM_write_X509_CRL(out, x509) != 1)
        std::abort();
    std::fclose(out);
    X509_CRL_free(x509);
    return made.emplace(entries, std::move(crl)).first->second;
}

const std::vector<uint32_t> sizes = {1000, 10000, 100000, 1000000};

// ---------------------------------------------------------------- decode DER

void BM_DecodeDer_qxcrl(benchmark::State& state) {
    const Bytes& der = crl_of_size(static_cast<uint32_t>(state.range(0))).der;
    for (auto _ : state) {
        CrlObject* crl = nullptr;
        if (qxcrl_CreateCtx(layer().ctx, &crl, der.data(), static_cast<uint32_t>(der.size())) != 0)
            state.SkipWithError("decode failed");
        qxcrl_Destroy(layer().ctx, &crl);
    }
}

void BM_DecodeDer_openssl(benchmark::State& state) {
    const Bytes& der = crl_of_size(static_cast<uint32_t>(state.range(0))).der;
    for (auto _ : state) {
        const unsigned char* cursor = der.data();
        X509_CRL* crl = d2i_X509_CRL(nullptr, &cursor, static_cast<long>(der.size()));
        if (crl == nullptr)
            state.SkipWithError("decode failed");
        X509_CRL_free(crl);
    }
}

// ----------------------------------------------------------- load PEM files

void BM_LoadPemFile_qxcrl(benchmark::State& state) {
    const std::string& path = crl_of_size(static_cast<uint32_t>(state.range(0))).pemPath;
    for (auto _ : state) {
        CrlObject* crl = nullptr;
        if (qxcrl_Load(layer().ctx, &crl, path.c_str()) != 0)
            state.SkipWithError("load failed");
        qxcrl_Destroy(layer().ctx, &crl);
    }
}

void BM_LoadPemFile_openssl(benchmark::State& state) {
    const std::string& path = crl_of_size(static_cast<uint32_t>(state.range(0))).pemPath;
    for (auto _ : state) {
        BIO* file = BIO_new_file(path.c_str(), "r");
        X509_CRL* crl = PEM_read_bio_X509_CRL(file, nullptr, nullptr, nullptr);
        if (crl == nullptr)
            state.SkipWithError("load failed");
        X509_CRL_free(crl);
        BIO_free(file);
    }
}

// ------------------------------------- memory held by a decoded 1M-entry CRL

// The 1M-entry CRL and a leaf it lists, as DER files for held_rss; written once.
struct HeldFiles {
    std::string crl;
    std::string cert;
};

const HeldFiles& held_files() {
    static const HeldFiles files = [] {
        const std::filesystem::path dir = std::filesystem::temp_directory_path();
        HeldFiles made{(dir / "qxcrl-bench-1000000.der").string(),
                       (dir / "qxcrl-bench-listed.der").string()};
        LeafOptions options;
        options.serial = serial_of(500000);
        write_file(made.crl, crl_of_size(1000000).der);
        write_file(made.cert, cert_der(make_leaf(shared_issuer(KeyKind::EcP256), options).get()));
        return made;
    }();
    return files;
}

// The growth in resident memory while one decoded CRL of a million entries is
// held (after one lookup), as measured by held_rss in a process of its own;
// reported as counters: bytes, the DER size, and their ratio. The time is that
// of the whole child run, and means nothing.
void held_rss(benchmark::State& state, const char* side) {
    const HeldFiles& files = held_files();
    const double derBytes = static_cast<double>(crl_of_size(1000000).der.size());
    const std::string command =
        std::string(QXCRL_HELD_RSS) + " " + side + " " + files.crl + " " + files.cert;
    double growth = 0;
    for (auto _ : state) {
        FILE* child = popen(command.c_str(), "r");
        long long bytes = -1;
        const bool read = child != nullptr && std::fscanf(child, "%lld", &bytes) == 1;
        if (child == nullptr || pclose(child) != 0 || !read)
            state.SkipWithError("held_rss failed");
        growth = static_cast<double>(bytes);
    }
    state.counters["rss_bytes"] = growth;
    state.counters["der_bytes"] = derBytes;
    state.counters["rss_per_der"] = growth / derBytes;
}

void BM_HeldRss_qxcrl(benchmark::State& state) {
    held_rss(state, "qxcrl");
}

void BM_HeldRss_openssl(benchmark::State& state) {
    held_rss(state, "openssl");
}

// ---------------------------------------------- lookups in a million entries

// A CRL of a million entries, as the library and OpenSSL hold it, and
// certificates of its issuer to look up: by hit, those it lists and those
// it does not.
struct LookupSet {
    CrlObject* crl = nullptr;
    X509_CRL* raw = nullptr;
    std::vector<CertificateRecord*> records[2];
    std::vector<Cert> certs[2];

    explicit LookupSet(const Bytes& der) {
        if (qxcrl_CreateCtx(layer().ctx, &crl, der.data(), static_cast<uint32_t>(der.size())) != 0)
            std::abort();
        const unsigned char* cursor = der.data();
        raw = d2i_X509_CRL(nullptr, &cursor, static_cast<long>(der.size()));
    }

    void add(const Bytes& serial, bool hit) {
        const Issuer& issuer = shared_issuer(KeyKind::EcP256);
        LeafOptions options;
        options.serial = serial;
        certs[hit].push_back(make_leaf(issuer, options));
        records[hit].push_back(leaf_record(layer().ctx, issuer, serial));
    }

    // OpenSSL sorts its entries on the first lookup; measured are the rest.
    void sort_openssl() {
        X509_REVOKED* found = nullptr;
        X509_CRL_get0_by_serial(raw, &found, X509_get_serialNumber(certs[1].front().get()));
    }
};

// One certificate of each kind: the same one is looked up again and again.
// The unlisted serial is longer than any listed.
LookupSet& million() {
    static LookupSet& set = []() -> LookupSet& {
        auto* made = new LookupSet(crl_of_size(1000000).der);
        made->add(serial_of(500000), true);
        made->add({0x20, 0x00, 0x00, 0x01}, false);
        made->sort_openssl();
        return *made;
    }();
    return set;
}

// A million entries for the even serials 2..2,000,000, and 1,024
// certificates of each kind whose serials spread over that range: even ones
// listed, the odd one below each not. Each lookup takes the next
// certificate, as a server checking its clients would, so that neither side
// keeps one path through its index in cache.
LookupSet& million_spread() {
    static LookupSet& set = []() -> LookupSet& {
        auto* made =
            new LookupSet(qxbench::sequential_crl(shared_issuer(KeyKind::EcP256), 1000000, 2));
        for (uint32_t i = 0; i < 1024; ++i) {
            // A stride prime to the range puts neighbours far apart.
            const uint32_t listed = 2 * (1 + static_cast<uint32_t>((i * 999983ull) % 1000000));
            made->add(serial_of(listed), true);
            made->add(serial_of(listed - 1), false);
        }
        made->sort_openssl();
        return *made;
    }();
    return set;
}

void check_in_turn_qxcrl(benchmark::State& state, const LookupSet& set) {
    const bool hit = state.range(0) == 1;
    const std::vector<CertificateRecord*>& records = set.records[hit];
    size_t next = 0;
    for (auto _ : state) {
        CertRevocationStatus status = 0;
        if (qxcrl_CheckCertStatus(layer().ctx, set.crl, records[next], &status) != 0 ||
            status != (hit ? QXCRL_CERT_REVOKED : QXCRL_CERT_VALID))
            state.SkipWithError("wrong answer");
        next = next + 1 == records.size() ? 0 : next + 1;
    }
}

void check_in_turn_openssl(benchmark::State& state, const LookupSet& set) {
    const bool hit = state.range(0) == 1;
    const std::vector<Cert>& certs = set.certs[hit];
    size_t next = 0;
    for (auto _ : state) {
        X509* cert = certs[next].get();
        X509_REVOKED* found = nullptr;
        // The same checks: the CRL is the certificate's issuer's, the serial
        // is listed (a bare lookup by serial), and the revocation date has passed.
        const bool revoked =
            X509_NAME_cmp(X509_CRL_get_issuer(set.raw), X509_get_issuer_name(cert)) == 0 &&
            X509_CRL_get0_by_serial(set.raw, &found, X509_get_serialNumber(cert)) == 1 &&
            X509_cmp_current_time(X509_REVOKED_get0_revocationDate(found)) < 0;
        if (revoked != hit)
            state.SkipWithError("wrong answer");
        next = next + 1 == certs.size() ? 0 : next + 1;
    }
}

void BM_MillionLookup_qxcrl(benchmark::State& state) {
    check_in_turn_qxcrl(state, million());
}

void BM_MillionLookup_openssl(benchmark::State& state) {
    check_in_turn_openssl(state, million());
}

void BM_MillionSpreadLookup_qxcrl(benchmark::State& state) {
    check_in_turn_qxcrl(state, million_spread());
}

void BM_MillionSpreadLookup_openssl(benchmark::State& state) {
    check_in_turn_openssl(state, million_spread());
}

// ------------------------------------------------------------ cached lookups

struct ManyIssuers {
    CrlCacheOwner* owner = nullptr;
    std::vector<std::pair<std::vector<unsigned char>, X509_CRL*>> raw; // issuer DER, CRL
    CertificateRecord* record = nullptr; // of the issuer cached last (the head)
    Cert cert;

    explicit ManyIssuers(int count) {
        if (qxcrl_CreateCacheOwner(layer().ctx, UINT32_MAX, &owner) != 0)
            std::abort();
        std::vector<Issuer> issuers;
        for (int i = 0; i < count; ++i) {
            IssuerOptions options;
            options.commonName = "Compare CA " + std::to_string(i);
            issuers.push_back(make_issuer(options));
            CrlOptions recipe;
            recipe.revoked = {revoked_serial({0x66})};
            const Bytes der = make_crl(issuers.back(), recipe);
            CrlObject* crl = nullptr;
            if (qxcrl_CreateCtx(layer().ctx, &crl, der.data(), static_cast<uint32_t>(der.size())) !=
                    0 ||
                qxcrl_AddCacheEntry(crl, owner->crlCache) != 0)
                std::abort();
            const unsigned char* cursor = der.data();
            X509_CRL* x509 = d2i_X509_CRL(nullptr, &cursor, static_cast<long>(der.size()));
            const unsigned char* name = nullptr;
            size_t length = 0;
            X509_NAME_get0_der(X509_CRL_get_issuer(x509), &name, &length);
            // Newest first, as the cache holds them.
            raw.insert(raw.begin(), {std::vector<unsigned char>(name, name + length), x509});
        }
        LeafOptions options;
        options.serial = {0x01};
        cert = make_leaf(issuers.back(), options);
        record = leaf_record(layer().ctx, issuers.back(), {0x01});
    }
};

ManyIssuers& many(int count) {
    return made_for<ManyIssuers>(count);
}

void BM_CachedLookup_qxcrl(benchmark::State& state) {
    ManyIssuers& cache = many(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        CertRevocationStatus status = 0;
        if (qxcrl_GetCertStatusFromCache(cache.record, cache.owner->crlCache, &status) != 0 ||
            status != QXCRL_CERT_VALID)
            state.SkipWithError("wrong answer");
    }
}

void BM_CachedLookup_openssl(benchmark::State& state) {
    ManyIssuers& cache = many(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        const unsigned char* name = nullptr;
        size_t length = 0;
        X509_NAME_get0_der(X509_get_issuer_name(cache.cert.get()), &name, &length);
        X509_CRL* match = nullptr;
        for (auto& [issuer, crl] : cache.raw) {
            if (issuer.size() == length && std::equal(issuer.begin(), issuer.end(), name)) {
                match = crl;
                break;
            }
        }
        X509_REVOKED* found = nullptr;
        if (match == nullptr || X509_cmp_current_time(X509_CRL_get0_nextUpdate(match)) <= 0 ||
            X509_CRL_get0_by_cert(match, &found, cache.cert.get()) == 1)
            state.SkipWithError("wrong answer");
    }
}

// -------------------------------------------------- verification of 100k entries

void BM_Verify100k_qxcrl(benchmark::State& state) {
    const Bytes& der = crl_of_size(100000).der;
    CrlObject* crl = nullptr;
    qxcrl_CreateCtx(layer().ctx, &crl, der.data(), static_cast<uint32_t>(der.size()));
    static CertificateRecord* issuer = nullptr;
    if (issuer == nullptr) {
        const Bytes cert = cert_der(shared_issuer(KeyKind::EcP256).cert.get());
        qxcert_from_bytes(layer().ctx, cert.data(), static_cast<uint32_t>(cert.size()), &issuer);
    }
    for (auto _ : state) {
        CrlValidity validity = 0;
        if (qxcrl_VerifyCRL(layer().ctx, crl, issuer, &validity) != 0)
            state.SkipWithError("verify failed");
    }
    qxcrl_Destroy(layer().ctx, &crl);
}

void BM_Verify100k_openssl(benchmark::State& state) {
    const Bytes& der = crl_of_size(100000).der;
    const unsigned char* cursor = der.data();
    X509_CRL* crl = d2i_X509_CRL(nullptr, &cursor, static_cast<long>(der.size()));
    EVP_PKEY* key = X509_get0_pubkey(shared_issuer(KeyKind::EcP256).cert.get());
    for (auto _ : state) {
        if (X509_CRL_verify(crl, key) != 1 ||
            X509_cmp_current_time(X509_CRL_get0_nextUpdate(crl)) <= 0)
            state.SkipWithError("verify failed");
    }
    X509_CRL_free(crl);
}

// -------------------------------------------- create and revoke one by one

struct Authoring {
    qxbench::Signer signer{layer().ctx};
    CertificateRecord* issuer = signer.issuer;
    QxPrivateKey* key = signer.key;
    std::vector<CertificateRecord*> leaves;
    std::vector<Cert> leafCerts;

    Authoring() {
        const Issuer& ca = shared_issuer(KeyKind::EcP256);
        for (uint32_t i = 0; i < 1000; ++i) {
            LeafOptions options;
            options.serial = serial_of(0x10000 + i);
            leafCerts.push_back(make_leaf(ca, options));
            leaves.push_back(leaf_record(layer().ctx, ca, options.serial));
        }
    }
};

Authoring& authoring() {
    static Authoring instance;
    return instance;
}

void BM_CreateAndRevoke1000_qxcrl(benchmark::State& state) {
    Authoring& a = authoring();
    for (auto _ : state) {
        CrlObject* crl = nullptr;
        if (qxcrl_Create(layer().ctx, &crl, a.key, a.issuer, "7d", QX_SIG_ECDSA_SHA256) != 0)
            state.SkipWithError("create failed");
        for (CertificateRecord* leaf : a.leaves) {
            if (qxcrl_RevokeCert(layer().ctx, crl, a.key, a.issuer, leaf, QX_SIG_ECDSA_SHA256) != 0)
                state.SkipWithError("revoke failed");
        }
        qxcrl_Destroy(layer().ctx, &crl);
    }
}

// The same work in OpenSSL: each revocation adds an entry and signs again.
void BM_CreateAndRevoke1000_openssl(benchmark::State& state) {
    Authoring& a = authoring();
    const Issuer& ca = shared_issuer(KeyKind::EcP256);
    for (auto _ : state) {
        X509_CRL* crl = X509_CRL_new();
        X509_CRL_set_version(crl, X509_CRL_VERSION_2);
        X509_CRL_set_issuer_name(crl, X509_get_subject_name(ca.cert.get()));
        ASN1_TIME* now = X509_gmtime_adj(nullptr, 0);
        ASN1_TIME* next = X509_gmtime_adj(nullptr, 7 * 86400);
        X509_CRL_set1_lastUpdate(crl, now);
        X509_CRL_set1_nextUpdate(crl, next);
        X509_CRL_sign(crl, ca.key.get(), EVP_sha256());
        for (const Cert& leaf : a.leafCerts) {
            X509_REVOKED* entry = X509_REVOKED_new();
            X509_REVOKED_set_serialNumber(entry, X509_get_serialNumber(leaf.get()));
            X509_REVOKED_set_revocationDate(entry, now);
            X509_CRL_add0_revoked(crl, entry);
            X509_CRL_sort(crl);
            if (X509_CRL_sign(crl, ca.key.get(), EVP_sha256()) <= 0)
                state.SkipWithError("sign failed");
        }
        ASN1_TIME_free(now);
        ASN1_TIME_free(next);
        X509_CRL_free(crl);
    }
}

// ------------------------------ revoke one into 10k entries, sign, encode

// A CRL of 10,000 entries of the shared issuer of a key kind, that issuer as
// record and key, and a leaf whose serial (0x7f0001) sorts after every entry.
struct TenThousand {
    qxbench::Signer signer;
    uint32_t signatureType;
    Bytes der;
    Cert leaf;
    CertificateRecord* record = nullptr;

    explicit TenThousand(KeyKind kind)
        : signer(layer().ctx, kind),
          signatureType(kind == KeyKind::Rsa2048 ? QX_SIG_RSA_SHA256 : QX_SIG_ECDSA_SHA256),
          der(qxbench::sequential_crl(shared_issuer(kind), 10000)) {
        LeafOptions options;
        options.serial = {0x7f, 0x00, 0x01};
        leaf = make_leaf(shared_issuer(kind), options);
        record = leaf_record(layer().ctx, shared_issuer(kind), options.serial);
    }
};

TenThousand& ten_thousand(KeyKind kind) {
    return made_for<TenThousand>(kind);
}

// Each iteration decodes the 10k-entry CRL afresh outside the timed region
// (so it stays at 10k entries), then times revoking one certificate, signing
// the CRL again and encoding it as DER: what a CA does on each revocation.
// qxcrl_RevokeCert adds the entry and signs in one call.
void BM_RevokeSignEncode10k_qxcrl(benchmark::State& state, KeyKind kind) {
    TenThousand& t = ten_thousand(kind);
    SecurityContext* ctx = layer().ctx;
    for (auto _ : state) {
        state.PauseTiming();
        CrlObject* crl = nullptr;
        if (qxcrl_CreateCtx(ctx, &crl, t.der.data(), static_cast<uint32_t>(t.der.size())) != 0)
            state.SkipWithError("decode failed");
        state.ResumeTiming();
        unsigned char* der = nullptr;
        uint32_t length = 0;
        if (qxcrl_RevokeCert(ctx, crl, t.signer.key, t.signer.issuer, t.record, t.signatureType) !=
                0 ||
            qxcrl_GetDER(ctx, crl, &der, &length) != 0)
            state.SkipWithError("revoke failed");
        state.PauseTiming();
        qxumfree(ctx, &der);
        qxcrl_Destroy(ctx, &crl);
        state.ResumeTiming();
    }
}

void BM_RevokeSignEncode10k_openssl(benchmark::State& state, KeyKind kind) {
    TenThousand& t = ten_thousand(kind);
    EVP_PKEY* key = shared_issuer(kind).key.get();
    for (auto _ : state) {
        state.PauseTiming();
        const unsigned char* cursor = t.der.data();
        X509_CRL* crl = d2i_X509_CRL(nullptr, &cursor, static_cast<long>(t.der.size()));
        state.ResumeTiming();
        X509_REVOKED* entry = X509_REVOKED_new();
        ASN1_TIME* now = X509_gmtime_adj(nullptr, 0);
        unsigned char* der = nullptr;
        // The new serial sorts last, so appending keeps the entries in order.
        if (crl == nullptr || entry == nullptr || now == nullptr ||
            X509_REVOKED_set_serialNumber(entry, X509_get_serialNumber(t.leaf.get())) != 1 ||
            X509_REVOKED_set_revocationDate(entry, now) != 1 ||
            X509_CRL_add0_revoked(crl, entry) != 1 || X509_CRL_sign(crl, key, EVP_sha256()) <= 0 ||
            i2d_X509_CRL(crl, &der) <= 0)
            state.SkipWithError("revoke failed");
        state.PauseTiming();
        OPENSSL_free(der);
        ASN1_TIME_free(now);
        X509_CRL_free(crl);
        state.ResumeTiming();
    }
}

void sized(benchmark::internal::Benchmark* b) {
    for (uint32_t size : sizes)
        b->Arg(size);
    b->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_DecodeDer_qxcrl)->Apply(sized);
BENCHMARK(BM_DecodeDer_openssl)->Apply(sized);
BENCHMARK(BM_LoadPemFile_qxcrl)->Apply(sized);
BENCHMARK(BM_LoadPemFile_openssl)->Apply(sized);
BENCHMARK(BM_HeldRss_qxcrl)->Arg(1000000)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_HeldRss_openssl)->Arg(1000000)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_MillionLookup_qxcrl)->ArgName("hit")->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MillionLookup_openssl)->ArgName("hit")->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MillionSpreadLookup_qxcrl)
    ->ArgName("hit")
    ->Arg(1)
    ->Arg(0)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MillionSpreadLookup_openssl)
    ->ArgName("hit")
    ->Arg(1)
    ->Arg(0)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CachedLookup_qxcrl)->Arg(1)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CachedLookup_openssl)->Arg(1)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Verify100k_qxcrl)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Verify100k_openssl)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CreateAndRevoke1000_qxcrl)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_CreateAndRevoke1000_openssl)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK_CAPTURE(BM_RevokeSignEncode10k_qxcrl, ec_p256, KeyKind::EcP256)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_RevokeSignEncode10k_openssl, ec_p256, KeyKind::EcP256)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_RevokeSignEncode10k_qxcrl, rsa_2048, KeyKind::Rsa2048)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_RevokeSignEncode10k_openssl, rsa_2048, KeyKind::Rsa2048)
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
