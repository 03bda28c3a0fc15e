// The CRL cache: a long random sequence of adds, resizes, deletes and lookups
// checked after every step against a plain model of the list, and the edge
// cases of each operation.
#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "layer_fixture.h"
#include "test_pki.h"
#include "toolkit/r_toolkit.h"

using namespace qxtest;

namespace {

// One CRL variant: its DER, size and issuer.
struct Variant {
    Bytes der;
    size_t issuer;
};

class CrlCacheTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        ASSERT_EQ(qxcrl_CreateCacheOwner(ctx_, 0, &owner_), 0u);
        cache_ = owner_->crlCache;
    }
    void TearDown() override {
        EXPECT_EQ(qxcrl_DestroyCacheOwner(&owner_), 0u);
        EXPECT_EQ(owner_, nullptr);
        LayerTest::TearDown();
    }

    CrlObject* decode(const Bytes& der) {
        CrlObject* crl = nullptr;
        EXPECT_EQ(qxcrl_CreateCtx(ctx_, &crl, der.data(), static_cast<uint32_t>(der.size())), 0u);
        return crl;
    }
    static uint32_t size_of(const Bytes& der) { return static_cast<uint32_t>(der.size()); }
    std::string issuer_text(CrlObject* crl) {
        char text[1025] = {};
        EXPECT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_ISSUER_NAME, 0, text), 0u);
        return text;
    }
    // The list from head to tail, checking the links both ways and used.
    std::vector<CrlObject*> walk() {
        std::vector<CrlObject*> order;
        uint64_t used = 0;
        const CrlCacheEntry* previous = nullptr;
        for (const CrlCacheEntry* entry = cache_->head; entry != nullptr; entry = entry->next) {
            EXPECT_EQ(entry->prev, previous);
            EXPECT_NE(entry->crlObject, nullptr);
            EXPECT_GT(entry->size, 0u);
            used += entry->size;
            order.push_back(entry->crlObject);
            previous = entry;
        }
        EXPECT_EQ(cache_->tail, previous);
        EXPECT_EQ(used, cache_->used);
        EXPECT_LE(cache_->used, cache_->capacity);
        return order;
    }

    CrlCacheOwner* owner_ = nullptr;
    CrlCache* cache_ = nullptr;
};

} // namespace

TEST_F(CrlCacheTest, RandomSequenceAgainstAModel) {
    // Three issuers, CRLs of three sizes each; serial 0x66 is revoked in all.
    std::vector<const Issuer*> issuers;
    std::vector<std::string> issuerTexts;
    std::vector<Variant> variants;
    static std::vector<Issuer> made;
    if (made.empty()) {
        for (const char* name : {"Cache CA One", "Cache CA Two", "Cache CA Three"}) {
            IssuerOptions options;
            options.commonName = name;
            made.push_back(make_issuer(options));
        }
    }
    for (size_t i = 0; i < made.size(); ++i) {
        for (uint32_t entries : {1u, 20u, 200u}) {
            CrlOptions recipe;
            recipe.revoked.push_back(revoked_serial({0x66}));
            for (uint32_t e = 1; e < entries; ++e)
                recipe.revoked.push_back(revoked_serial(
                    {0x10, static_cast<unsigned char>(e >> 8), static_cast<unsigned char>(e)}));
            variants.push_back({make_crl(made[i], recipe), i});
        }
    }
    std::vector<std::vector<CertificateRecord*>> leaves(made.size()); // [issuer]{listed, not}
    for (size_t i = 0; i < made.size(); ++i) {
        for (unsigned char serial : {0x66, 0x67}) {
            LeafOptions options;
            options.serial = {serial};
            const Bytes der = cert_der(make_leaf(made[i], options).get());
            CertificateRecord* leaf = nullptr;
            ASSERT_EQ(qxcert_from_bytes(ctx_, der.data(), size_of(der), &leaf), 0u);
            leaves[i].push_back(leaf);
        }
        CrlObject* probe = decode(variants[i * 3].der);
        issuerTexts.push_back(issuer_text(probe));
        qxcrl_Destroy(ctx_, &probe);
    }

    struct Cached {
        CrlObject* crl;
        uint32_t size;
        size_t issuer;
    };
    std::vector<Cached> model; // head first
    uint32_t capacity = 0;
    const uint64_t baseline = qxum_live_blocks(layer());
    std::mt19937 random(20261123);
    int adds = 0, refusals = 0, evictions = 0, deletes = 0, hits = 0;
    for (int step = 0; step < 4000; ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        const unsigned action = random() % 10;
        if (action < 5) { // add
            const Variant& variant = variants[random() % variants.size()];
            CrlObject* crl = decode(variant.der);
            const uint32_t size = size_of(variant.der);
            uint64_t used = 0;
            for (const Cached& c : model)
                used += c.size;
            const StatusCode status = qxcrl_AddCacheEntry(crl, cache_);
            if (used + size <= capacity) {
                ASSERT_EQ(status, 0u);
                model.insert(model.begin(), {crl, size, variant.issuer});
                ++adds;
            } else {
                ASSERT_EQ(status, QXERR_CACHE_FULL);
                qxcrl_Destroy(ctx_, &crl); // still the caller's
                ++refusals;
            }
        } else if (action < 7) { // resize
            capacity = static_cast<uint32_t>(random() % 40000);
            ASSERT_EQ(qxcrl_ResizeCache(capacity, cache_), 0u);
            uint64_t used = 0;
            for (const Cached& c : model)
                used += c.size;
            while (used > capacity) {
                used -= model.back().size;
                model.pop_back();
                ++evictions;
            }
        } else if (action < 8) { // delete by issuer
            const size_t issuer = random() % made.size();
            const std::string& text = issuerTexts[issuer];
            const size_t before = model.size();
            std::erase_if(model, [&](const Cached& c) { return c.issuer == issuer; });
            const StatusCode status = qxcrl_DeleteCRLCacheEntry(
                owner_, reinterpret_cast<const unsigned char*>(text.data()),
                static_cast<uint32_t>(text.size()));
            ASSERT_EQ(status, before != model.size() ? 0u : QXERR_CACHE_ENTRY_NOT_FOUND);
            deletes += before != model.size();
        } else { // lookup
            const size_t issuer = random() % made.size();
            const bool listed = random() % 2 == 0;
            CertRevocationStatus status = 0;
            ASSERT_EQ(qxcrl_GetCertStatusFromCache(leaves[issuer][listed ? 0 : 1], cache_, &status),
                      0u);
            auto found = std::find_if(model.begin(), model.end(),
                                      [&](const Cached& c) { return c.issuer == issuer; });
            if (found == model.end()) {
                ASSERT_EQ(status, QXCRL_CERT_UNKNOWN);
            } else {
                ASSERT_EQ(status, listed ? QXCRL_CERT_REVOKED : QXCRL_CERT_VALID);
                std::rotate(model.begin(), found, found + 1);
                ++hits;
            }
        }
        std::vector<CrlObject*> expected;
        for (const Cached& c : model)
            expected.push_back(c.crl);
        ASSERT_EQ(walk(), expected);
        ASSERT_EQ(cache_->capacity, capacity);
        // Each cached CRL is a record and an entry; nothing else is held.
        ASSERT_EQ(qxum_live_blocks(layer()), baseline + 2 * model.size());
    }
    EXPECT_GT(adds, 500);
    EXPECT_GT(refusals, 100);
    EXPECT_GT(evictions, 100);
    EXPECT_GT(deletes, 50);
    EXPECT_GT(hits, 200);
    for (auto& perIssuer : leaves)
        for (CertificateRecord*& leaf : perIssuer)
            qxcert_free(ctx_, &leaf);
}

TEST_F(CrlCacheTest, AddAndResizeEdges) {
    std::vector<Bytes> ders;
    for (unsigned char serial : {0x01, 0x02, 0x03}) {
        CrlOptions recipe;
        recipe.revoked = {revoked_serial({serial})};
        ders.push_back(make_crl(shared_issuer(), recipe));
    }
    CrlObject* a = decode(ders[0]);
    EXPECT_EQ(qxcrl_AddCacheEntry(a, cache_), QXERR_CACHE_FULL); // capacity 0
    const uint32_t total = size_of(ders[0]) + size_of(ders[1]) + size_of(ders[2]);
    ASSERT_EQ(qxcrl_ResizeCache(total, cache_), 0u);
    CrlObject* b = decode(ders[1]);
    CrlObject* c = decode(ders[2]);
    for (CrlObject* crl : {a, b, c})
        ASSERT_EQ(qxcrl_AddCacheEntry(crl, cache_), 0u);
    EXPECT_EQ(walk(), (std::vector<CrlObject*>{c, b, a}));
    EXPECT_EQ(cache_->used, total); // exactly full is allowed
    CrlObject* d = decode(ders[0]);
    EXPECT_EQ(qxcrl_AddCacheEntry(d, cache_), QXERR_CACHE_FULL);
    EXPECT_EQ(walk().size(), 3u);
    qxcrl_Destroy(ctx_, &d);

    EXPECT_EQ(qxcrl_ResizeCache(total, cache_), 0u); // to exactly used: nothing goes
    EXPECT_EQ(walk().size(), 3u);
    EXPECT_EQ(qxcrl_ResizeCache(size_of(ders[2]), cache_), 0u); // only C fits
    EXPECT_EQ(walk(), std::vector<CrlObject*>{c});
    EXPECT_EQ(qxcrl_ResizeCache(total * 2, cache_), 0u);
    EXPECT_EQ(walk(), std::vector<CrlObject*>{c});
    EXPECT_EQ(qxcrl_ResizeCache(0, cache_), 0u);
    EXPECT_TRUE(walk().empty());
    EXPECT_EQ(cache_->head, nullptr);

    CrlObject empty{nullptr};
    EXPECT_EQ(qxcrl_AddCacheEntry(&empty, cache_), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_AddCacheEntry(nullptr, cache_), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_ResizeCache(5, nullptr), QXERR_BAD_PARAMETER);
}

TEST_F(CrlCacheTest, DeleteByIssuerText) {
    IssuerOptions other;
    other.commonName = "Other Cache CA";
    const Issuer second = make_issuer(other);
    ASSERT_EQ(qxcrl_ResizeCache(1u << 20, cache_), 0u);
    std::vector<CrlObject*> mine, theirs;
    for (int i = 0; i < 3; ++i) {
        CrlOptions recipe;
        recipe.revoked = {revoked_serial({static_cast<unsigned char>(i + 1)})};
        mine.push_back(decode(make_crl(shared_issuer(), recipe)));
        theirs.push_back(decode(make_crl(second, recipe)));
    }
    // Head to tail: mine[2] theirs[1] mine[1] theirs[0] mine[0]
    for (CrlObject* crl : {mine[0], theirs[0], mine[1], theirs[1], mine[2]})
        ASSERT_EQ(qxcrl_AddCacheEntry(crl, cache_), 0u);
    const std::string text = issuer_text(mine[0]);
    const auto remove = [&](const std::string& name, size_t length) {
        return qxcrl_DeleteCRLCacheEntry(owner_,
                                         reinterpret_cast<const unsigned char*>(name.data()),
                                         static_cast<uint32_t>(length));
    };
    // A prefix, or the text plus one byte, is not the issuer.
    EXPECT_EQ(remove(text, text.size() - 1), QXERR_CACHE_ENTRY_NOT_FOUND);
    EXPECT_EQ(remove(text + "x", text.size() + 1), QXERR_CACHE_ENTRY_NOT_FOUND);
    EXPECT_EQ(walk().size(), 5u);
    // Head, middle and tail go at once; the others close ranks.
    EXPECT_EQ(remove(text, text.size()), 0u);
    EXPECT_EQ(walk(), (std::vector<CrlObject*>{theirs[1], theirs[0]}));
    EXPECT_EQ(remove(text, text.size()), QXERR_CACHE_ENTRY_NOT_FOUND);
    const std::string otherText = issuer_text(theirs[0]);
    EXPECT_EQ(remove(otherText, otherText.size()), 0u);
    EXPECT_TRUE(walk().empty());
    EXPECT_EQ(remove(otherText, otherText.size()), QXERR_CACHE_ENTRY_NOT_FOUND);
    qxcrl_Destroy(ctx_, &theirs[2]); // never cached
    EXPECT_EQ(qxcrl_DeleteCRLCacheEntry(nullptr, nullptr, 0), QXERR_BAD_PARAMETER);

    // A name too long for the text limit stops the walk where it stands.
    IssuerOptions longName;
    for (int i = 0; i < 18; ++i)
        longName.subject.push_back({{"OU", std::string(60, static_cast<char>('a' + i))}});
    const Issuer wide = make_issuer(longName);
    CrlObject* before = decode(make_crl(shared_issuer(), CrlOptions{}));
    CrlObject* tooLong = decode(make_crl(wide, CrlOptions{}));
    CrlObject* after = decode(make_crl(shared_issuer(), CrlOptions{}));
    for (CrlObject* crl : {after, tooLong, before})
        ASSERT_EQ(qxcrl_AddCacheEntry(crl, cache_), 0u);
    EXPECT_EQ(remove(text, text.size()), QXERR_TOOLKIT_FAILURE);
    EXPECT_EQ(walk(), (std::vector<CrlObject*>{tooLong, after})); // the head was removed first
}

TEST_F(CrlCacheTest, DestroyAndSweeps) {
    CrlCache* none = nullptr;
    EXPECT_EQ(qxcrl_DestroyCache(nullptr), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_DestroyCache(&none), QXERR_BAD_PARAMETER);
    ASSERT_EQ(qxcrl_ResizeCache(1u << 20, cache_), 0u);

    const Bytes der = make_crl(shared_issuer(), CrlOptions{});
    CrlObject* crl = decode(der);
    sweep_allocations([&] { return qxcrl_AddCacheEntry(crl, cache_); },
                      [&](StatusCode status, bool injected) {
                          EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : 0u);
                          EXPECT_EQ(walk().size(), injected ? 0u : 1u);
                          if (injected)
                              return; // the record is still ours, for the next run
                          // Taken: evict it, and hold a fresh record as before the run.
                          EXPECT_EQ(qxcrl_ResizeCache(0, cache_), 0u);
                          EXPECT_EQ(qxcrl_ResizeCache(1u << 20, cache_), 0u);
                          crl = decode(der);
                      });
    qxcrl_Destroy(ctx_, &crl);

    // The owner's cache, with CRLs in it, goes with everything it holds.
    CrlCacheOwner* second = nullptr;
    ASSERT_EQ(qxcrl_CreateCacheOwner(ctx_, 1u << 20, &second), 0u);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(qxcrl_AddCacheEntry(decode(der), second->crlCache), 0u);
    EXPECT_EQ(qxcrl_DestroyCache(&second->crlCache), 0u);
    EXPECT_EQ(second->crlCache, nullptr);
    EXPECT_EQ(qxcrl_DestroyCacheOwner(&second), 0u);

    sweep_allocations([&] { return qxcrl_CreateCacheOwner(ctx_, 100, &second); },
                      [&](StatusCode status, bool injected) {
                          EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : 0u);
                          EXPECT_EQ(second == nullptr, injected);
                          if (second != nullptr) {
                              EXPECT_EQ(qxcrl_DestroyCacheOwner(&second), 0u);
                          }
                      });
}
