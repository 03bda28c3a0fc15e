// A certificate's status from the cache: which cached CRL answers, what the
// layer's CRL policy lets an expired one do, the move to the head, and the
// shards of a partitioned CRL.
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/asn1.h>

#include "files.h"
#include "fixed_clock.h"
#include "layer_fixture.h"
#include "test_pki.h"

using namespace qxtest;

namespace {

class CrlCacheLookupTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        ASSERT_EQ(qxcrl_CreateCacheOwner(ctx_, 1u << 20, &owner_), 0u);
        cache_ = owner_->crlCache;
    }
    void TearDown() override {
        for (CertificateRecord*& leaf : leaves_)
            qxcert_free(ctx_, &leaf);
        qxcrl_DestroyCacheOwner(&owner_);
        LayerTest::TearDown();
    }
    // Caches a CRL of issuer revoking serial 0x66, current or expired; the record.
    CrlObject* cache(const Issuer& issuer, bool current = true) {
        CrlOptions recipe;
        recipe.revoked = {revoked_serial({0x66})};
        recipe.thisUpdate = std::time(nullptr) - 7200;
        recipe.nextUpdate = std::time(nullptr) + (current ? 3600 : -60);
        const Bytes der = make_crl(issuer, recipe);
        CrlObject* crl = nullptr;
        EXPECT_EQ(qxcrl_CreateCtx(ctx_, &crl, der.data(), static_cast<uint32_t>(der.size())), 0u);
        EXPECT_EQ(qxcrl_AddCacheEntry(crl, cache_), 0u);
        return crl;
    }
    // A leaf of issuer; with a URI, it names that one distribution point.
    CertificateRecord* leaf(const Issuer& issuer, unsigned char serial,
                            const std::string& uri = "") {
        LeafOptions options;
        options.serial = {serial};
        if (!uri.empty())
            options.distributionPoints = {{uri}};
        const Bytes der = cert_der(make_leaf(issuer, options).get());
        CertificateRecord* made = nullptr;
        EXPECT_EQ(qxcert_from_bytes(ctx_, der.data(), static_cast<uint32_t>(der.size()), &made),
                  0u);
        leaves_.push_back(made);
        return made;
    }
    std::vector<CrlObject*> order() const {
        std::vector<CrlObject*> crls;
        for (const CrlCacheEntry* entry = cache_->head; entry != nullptr; entry = entry->next)
            crls.push_back(entry->crlObject);
        return crls;
    }
    StatusCode lookup(CertificateRecord* cert, CertRevocationStatus& status) {
        status = 0;
        return qxcrl_GetCertStatusFromCache(cert, cache_, &status);
    }

    CrlCacheOwner* owner_ = nullptr;
    CrlCache* cache_ = nullptr;
    std::vector<CertificateRecord*> leaves_;
};

// Issuers made once per process; a map keeps references stable.
const Issuer& issuer_named(const std::string& name) {
    static std::map<std::string, Issuer> made;
    auto found = made.find(name);
    if (found == made.end()) {
        IssuerOptions options;
        options.commonName = name;
        found = made.emplace(name, make_issuer(options)).first;
    }
    return found->second;
}

} // namespace

TEST_F(CrlCacheLookupTest, WhichCrlAnswers) {
    const Issuer& mine = issuer_named("Lookup CA");
    const Issuer& other = issuer_named("Lookup Other CA");
    CertRevocationStatus status = 0;
    EXPECT_EQ(lookup(leaf(mine, 0x66), status), 0u);
    EXPECT_EQ(status, QXCRL_CERT_UNKNOWN); // empty cache

    CrlObject* others = cache(other);
    EXPECT_EQ(lookup(leaf(mine, 0x66), status), 0u);
    EXPECT_EQ(status, QXCRL_CERT_UNKNOWN); // other issuers only
    EXPECT_EQ(order(), std::vector<CrlObject*>{others});

    // Two of mine: the one nearer the head decides, even when it is expired.
    CrlObject* current = cache(mine, true);
    CrlObject* expired = cache(mine, false);
    ctx_->layerContext->crlPolicy = 0;
    EXPECT_EQ(lookup(leaf(mine, 0x66), status), QXERR_CRL_EXPIRED);
    EXPECT_EQ(status, QXCRL_CERT_UNKNOWN);
    EXPECT_EQ(order(), (std::vector<CrlObject*>{expired, current, others})); // failures don't move

    for (uint32_t policy : {0u, 2u, 5u}) {
        ctx_->layerContext->crlPolicy = policy;
        EXPECT_EQ(lookup(leaf(mine, 0x67), status), QXERR_CRL_EXPIRED) << policy;
    }
    for (uint32_t policy : {3u, 4u}) {
        ctx_->layerContext->crlPolicy = policy;
        EXPECT_EQ(lookup(leaf(mine, 0x66), status), 0u) << policy;
        EXPECT_EQ(status, QXCRL_CERT_REVOKED) << policy;
    }

    // Names that print alike but are encoded differently are different issuers.
    IssuerOptions printable, utf8;
    printable.subject = {{{"CN", "Same Text", V_ASN1_PRINTABLESTRING}}};
    utf8.subject = {{{"CN", "Same Text", V_ASN1_UTF8STRING}}};
    const Issuer asPrintable = make_issuer(printable);
    const Issuer asUtf8 = make_issuer(utf8);
    cache(asPrintable);
    EXPECT_EQ(lookup(leaf(asUtf8, 0x66), status), 0u);
    EXPECT_EQ(status, QXCRL_CERT_UNKNOWN);
    EXPECT_EQ(lookup(leaf(asPrintable, 0x66), status), 0u);
    EXPECT_EQ(status, QXCRL_CERT_REVOKED);
}

TEST_F(CrlCacheLookupTest, DefiniteAnswersMoveToTheHead) {
    const Issuer& a = issuer_named("Lookup A");
    const Issuer& b = issuer_named("Lookup B");
    const Issuer& c = issuer_named("Lookup C");
    CrlObject* crlA = cache(a);
    CrlObject* crlB = cache(b);
    CrlObject* crlC = cache(c);
    ASSERT_EQ(order(), (std::vector<CrlObject*>{crlC, crlB, crlA}));
    CertRevocationStatus status = 0;

    // The tail answers valid: it becomes the head and its neighbour the tail.
    EXPECT_EQ(lookup(leaf(a, 0x01), status), 0u);
    EXPECT_EQ(status, QXCRL_CERT_VALID);
    EXPECT_EQ(order(), (std::vector<CrlObject*>{crlA, crlC, crlB}));
    EXPECT_EQ(cache_->tail->crlObject, crlB);
    // A middle one answers revoked.
    EXPECT_EQ(lookup(leaf(c, 0x66), status), 0u);
    EXPECT_EQ(status, QXCRL_CERT_REVOKED);
    EXPECT_EQ(order(), (std::vector<CrlObject*>{crlC, crlA, crlB}));
    // The head answering leaves the list alone.
    EXPECT_EQ(lookup(leaf(c, 0x01), status), 0u);
    EXPECT_EQ(order(), (std::vector<CrlObject*>{crlC, crlA, crlB}));
    const uint32_t used = cache_->used;

    // A failing status check (the certificate's issuer name is fine, its
    // toolkit certificate is not) answers nothing and moves nothing.
    CertificateRecord broken = *leaf(b, 0x01);
    broken.cert = nullptr;
    EXPECT_EQ(qxcrl_GetCertStatusFromCache(&broken, cache_, &status), QXERR_TOOLKIT_FAILURE);
    EXPECT_EQ(order(), (std::vector<CrlObject*>{crlC, crlA, crlB}));
    EXPECT_EQ(cache_->used, used);

    status = 77;
    EXPECT_EQ(qxcrl_GetCertStatusFromCache(nullptr, cache_, &status), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_GetCertStatusFromCache(leaf(a, 1), nullptr, &status), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_GetCertStatusFromCache(leaf(a, 1), cache_, nullptr), QXERR_BAD_PARAMETER);
    EXPECT_EQ(status, 77u);

    // The lookup takes no memory of the layer.
    CertificateRecord* probe = leaf(b, 0x66);
    sweep_allocations([&] { return qxcrl_GetCertStatusFromCache(probe, cache_, &status); },
                      [&](StatusCode result, bool injected) {
                          EXPECT_FALSE(injected);
                          EXPECT_EQ(result, 0u);
                          EXPECT_EQ(status, QXCRL_CERT_REVOKED);
                      });
}

TEST_F(CrlCacheLookupTest, OwnerRefusesIssuerNamesTheCacheCannotCompare) {
    const Issuer& honest = issuer_named("Honest Cache CA");
    CrlObject* kept = cache(honest);
    const uint32_t used = cache_->used;

    // One issuer over 1,025 bytes as DER; one that fits as DER but whose
    // commas, escaped, make its text longer than 1,024 bytes.
    IssuerOptions wideDer;
    for (int i = 0; i < 18; ++i)
        wideDer.subject.push_back({{"OU", std::string(60, static_cast<char>('a' + i))}});
    IssuerOptions wideText;
    for (int i = 0; i < 14; ++i)
        wideText.subject.push_back({{"OU", std::string(56, ',')}});
    for (const IssuerOptions* options : {&wideDer, &wideText}) {
        const Bytes der = make_crl(make_issuer(*options), CrlOptions{});
        // Handed over by the owner's add: refused, nothing taken.
        CrlObject* crl = nullptr;
        ASSERT_EQ(qxcrl_CreateCtx(ctx_, &crl, der.data(), static_cast<uint32_t>(der.size())), 0u);
        EXPECT_EQ(owner_->addCrl(crl, cache_), QXL_ERR_ISSUER_TOO_LONG);
        EXPECT_EQ(qxcrl_Destroy(ctx_, &crl), 0u);
        // Through the decoder's hand-over, which releases what was refused.
        EXPECT_EQ(qxcrl_SetDERCrl(owner_, der.data(), static_cast<uint32_t>(der.size())),
                  QXL_ERR_ISSUER_TOO_LONG);
    }
    EXPECT_EQ(order(), (std::vector<CrlObject*>{kept}));
    EXPECT_EQ(cache_->used, used);

    // The honest issuer's CRL still answers, and can still be deleted by name.
    CertRevocationStatus status = 0;
    EXPECT_EQ(lookup(leaf(honest, 0x66), status), 0u);
    EXPECT_EQ(status, QXCRL_CERT_REVOKED);
    char text[1025] = {};
    ASSERT_EQ(qxcrl_GetDetails(ctx_, kept, QXCRL_DETAIL_ISSUER_NAME, 0, text), 0u);
    EXPECT_EQ(qxcrl_DeleteCRLCacheEntry(owner_, reinterpret_cast<const unsigned char*>(text),
                                        static_cast<uint32_t>(std::strlen(text))),
              0u);
    EXPECT_TRUE(order().empty());
}

// Two shards of one issuer, made by `openssl ca` with critical Issuing
// Distribution Points: each answers for the certificates that name it, and
// the first CRL of the issuer never answers for the other shard's.
TEST_F(CrlCacheLookupTest, ShardsOfOneIssuerEachAnswerForTheirOwnCertificates) {
    const Issuer& issuer = shared_issuer();
    const std::string uris[] = {"http://crl.qxcrl.test/1.crl", "http://crl.qxcrl.test/2.crl"};
    TempDir dirs[2];
    for (int shard = 0; shard < 2; ++shard) {
        OpensslCaOptions recipe;
        recipe.revoked = {{static_cast<unsigned char>(0x11 + shard)}};
        recipe.moreCrlExtensions = "issuingDistributionPoint = critical, @idp\n[ idp ]\n"
                                   "fullname = URI:" +
                                   uris[shard] + "\n";
        const Bytes der = openssl_ca_crl(dirs[shard].path(), issuer, recipe);
        CrlObject* crl = nullptr;
        ASSERT_EQ(qxcrl_CreateCtx(ctx_, &crl, der.data(), static_cast<uint32_t>(der.size())), 0u);
        ASSERT_EQ(owner_->addCrl(crl, cache_), 0u);
    }
    // Revoked leaves of each shard, and one of the first that is not revoked.
    CertificateRecord* first = leaf(issuer, 0x11, uris[0]);
    CertificateRecord* second = leaf(issuer, 0x12, uris[1]);
    CertificateRecord* good = leaf(issuer, 0x13, uris[0]);
    CertificateRecord* unnamed = leaf(issuer, 0x11);
    const std::vector<CrlObject*> added = order();
    ASSERT_EQ(added.size(), 2u);
    // A minute on: a revocation dated this very second does not count yet.
    const FixedClock later(std::time(nullptr) + 60);

    CertRevocationStatus status = 0;
    for (CertificateRecord* cert : {first, second, good, second, first}) {
        EXPECT_EQ(qxcrl_GetCertStatusFromCacheInScope(cert, cache_, &status), 0u);
        EXPECT_EQ(status, cert == good ? QXCRL_CERT_VALID : QXCRL_CERT_REVOKED);
    }
    // A certificate that names no shard gets no answer from either.
    EXPECT_EQ(qxcrl_GetCertStatusFromCacheInScope(unnamed, cache_, &status), 0u);
    EXPECT_EQ(status, QXCRL_CERT_UNKNOWN);
    // The first CRL of the issuer is the first shard now: the other shard's
    // certificate gets a failure, never "valid".
    ASSERT_EQ(order().front(), added.back());
    EXPECT_EQ(lookup(second, status), QXERR_TOOLKIT_FAILURE);
    EXPECT_EQ(status, QXCRL_CERT_UNKNOWN);
    EXPECT_EQ(qxcrl_CheckCertStatus(ctx_, added.front(), first, &status), QXERR_TOOLKIT_FAILURE);
    EXPECT_EQ(status, QXCRL_CERT_UNKNOWN);
}
