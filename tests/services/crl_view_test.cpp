// The display reader: every field of a CRL, CRLs the module refuses named
// with the reason, bytes that are no CRL, and its one allocation failed.
#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "layer_fixture.h"
#include "test_pki.h"

using namespace qxtest;

namespace {

using CrlViewTest = LayerTest;

constexpr time_t revoked_at = 1735689600; // 2025-01-01T00:00:00Z

CrlOptions recipe_with_entries() {
    CrlOptions recipe;
    recipe.crlNumber = 4242;
    RevokedEntry first = revoked_serial({0x10, 0x01});
    first.revocationDate = revoked_at;
    first.extensions = {{"2.5.29.21", false, {0x0a, 0x01, 0x01}}}; // keyCompromise
    RevokedEntry second = revoked_serial({0x00, 0x80});
    second.revocationDate = revoked_at;
    // An invalidity date of 2024-12-31T00:00:00Z, as a GeneralizedTime.
    const std::string time = "20241231000000Z";
    Bytes value = {0x18, static_cast<unsigned char>(time.size())};
    value.insert(value.end(), time.begin(), time.end());
    second.extensions = {{"2.5.29.24", false, value}};
    recipe.revoked = {first, second};
    return recipe;
}

TEST_F(CrlViewTest, DescribesEveryFieldAndEntry) {
    const Bytes der = make_crl(shared_issuer(), recipe_with_entries());
    QxCrlView* view = nullptr;
    ASSERT_EQ(qxview_crl(ctx_, der.data(), static_cast<uint32_t>(der.size()), &view), 0u);
    EXPECT_EQ(view->version, 1u);
    EXPECT_STREQ(view->signatureAlgorithm, "ecdsa-with-SHA256");
    EXPECT_STREQ(view->signatureOid, "1.2.840.10045.4.3.2");
    EXPECT_STREQ(view->crlNumber, "4242");
    EXPECT_EQ(view->deltaCrlIndicator, nullptr);
    EXPECT_EQ(view->refusal, nullptr);
    // Signing sorts the entries by serial.
    ASSERT_EQ(view->entryCount, 2u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(view->entries[1].serial),
                          view->entries[1].serialLength),
              std::string("\x10\x01", 2));
    EXPECT_STREQ(view->entries[1].revocationDate, "2025-01-01T00:00:00Z");
    EXPECT_EQ(view->entries[1].reason, 1);
    EXPECT_STREQ(view->entries[1].reasonName, "keyCompromise");
    EXPECT_EQ(view->entries[1].invalidityDate, nullptr);
    // A serial with its high bit set keeps its leading zero, as the module's does.
    EXPECT_EQ(view->entries[0].serialLength, 2u);
    EXPECT_EQ(view->entries[0].reason, -1);
    EXPECT_EQ(view->entries[0].reasonName, nullptr);
    EXPECT_STREQ(view->entries[0].invalidityDate, "2024-12-31T00:00:00Z");
    ASSERT_EQ(view->entries[0].extensionCount, 1u);
    EXPECT_STREQ(view->entries[0].extensions[0].oid, "2.5.29.24");
    unsigned char digest[32];
    unsigned int length = 0;
    ASSERT_EQ(EVP_Digest(der.data(), der.size(), digest, &length, EVP_sha256(), nullptr), 1);
    EXPECT_EQ(std::memcmp(view->sha256, digest, sizeof digest), 0);
    EXPECT_EQ(view->opensslIssuerHash,
              static_cast<uint32_t>(X509_NAME_hash_ex(
                  X509_get_subject_name(shared_issuer().cert.get()), nullptr, nullptr, nullptr)));
    bool sawNumber = false;
    for (uint32_t i = 0; i < view->extensionCount; ++i)
        if (std::strcmp(view->extensions[i].oid, "2.5.29.20") == 0) {
            sawNumber = true;
            EXPECT_STREQ(view->extensions[i].name, "X509v3 CRL Number");
            EXPECT_STREQ(view->extensions[i].value, "4242");
            EXPECT_EQ(view->extensions[i].critical, 0u);
        }
    EXPECT_TRUE(sawNumber);
    qxumfree(ctx_, &view);
    EXPECT_EQ(view, nullptr);
}

TEST_F(CrlViewTest, NamesWhatMakesTheModuleRefuseACrl) {
    CrlOptions critical;
    critical.extensions = {{"1.3.6.1.4.1.99999.7", true, {0x05, 0x00}}};
    CrlOptions delta;
    delta.extensions = {{"2.5.29.27", false, {0x02, 0x01, 0x05}}};
    CrlOptions entry;
    RevokedEntry issuerEntry = revoked_serial({0x33});
    issuerEntry.extensions = {{"2.5.29.29", true, {0x30, 0x00}}}; // Certificate Issuer
    entry.revoked = {issuerEntry};
    const struct {
        CrlOptions recipe;
        const char* refusal;
    } cases[] = {
        {critical, "it carries the critical extension 1.3.6.1.4.1.99999.7 "
                   "(1.3.6.1.4.1.99999.7), which the library does not process"},
        {delta, "it carries the extension X509v3 Delta CRL Indicator (2.5.29.27): as a delta CRL "
                "it lists only the changes since its base CRL"},
        {entry, "entry 1 (serial 33) carries the critical extension X509v3 Certificate Issuer "
                "(2.5.29.29), which the library does not process"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.refusal);
        const Bytes der = make_crl(shared_issuer(), c.recipe);
        QxCrlView* view = nullptr;
        ASSERT_EQ(qxview_crl(ctx_, der.data(), static_cast<uint32_t>(der.size()), &view), 0u);
        EXPECT_STREQ(view->refusal, c.refusal);
        qxumfree(ctx_, &view);
        // And the module does refuse it.
        CrlObject* crl = nullptr;
        EXPECT_EQ(qxcrl_CreateCtx(ctx_, &crl, der.data(), static_cast<uint32_t>(der.size())),
                  QXERR_CRL_DECODE);
        qxcrl_Destroy(ctx_, &crl);
    }
    QxCrlView* view = nullptr;
    const Bytes der = make_crl(shared_issuer(), delta);
    ASSERT_EQ(qxview_crl(ctx_, der.data(), static_cast<uint32_t>(der.size()), &view), 0u);
    EXPECT_STREQ(view->deltaCrlIndicator, "5");
    qxumfree(ctx_, &view);
}

TEST_F(CrlViewTest, RefusesBytesThatAreNoCrlAndFailsWholeWithoutMemory) {
    const unsigned char junk[] = {0x30, 0x03, 0x02, 0x01, 0x01};
    QxCrlView* view = reinterpret_cast<QxCrlView*>(1);
    EXPECT_EQ(qxview_crl(ctx_, junk, sizeof junk, &view), QXL_ERR_NOT_A_CRL);
    EXPECT_EQ(view, nullptr);
    EXPECT_EQ(qxview_crl(nullptr, junk, sizeof junk, &view), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxview_crl(ctx_, nullptr, 0, &view), QXL_ERR_BAD_ARGUMENT);

    const Bytes der = make_crl(shared_issuer(), recipe_with_entries());
    sweep_allocations(
        [&] { return qxview_crl(ctx_, der.data(), static_cast<uint32_t>(der.size()), &view); },
        [&](StatusCode status, bool failed) {
            if (failed) {
                EXPECT_EQ(status, QXL_ERR_OUT_OF_MEMORY);
                EXPECT_EQ(view, nullptr);
            } else {
                ASSERT_EQ(status, 0u);
                EXPECT_EQ(view->entryCount, 2u);
            }
            qxumfree(ctx_, &view);
        });
}

TEST_F(CrlViewTest, GivesACertificatesSerialAsTheCrlsEntriesHoldIt) {
    LeafOptions options;
    options.serial = {0x80, 0x01};
    const Cert leaf = make_leaf(shared_issuer(), options);
    const Bytes der = cert_der(leaf.get());
    CertificateRecord* record = nullptr;
    ASSERT_EQ(qxcert_from_bytes(ctx_, der.data(), static_cast<uint32_t>(der.size()), &record), 0u);
    unsigned char serial[8];
    uint32_t length = 2;
    EXPECT_EQ(qxview_cert_serial(record, serial, &length), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(length, 3u); // the leading zero the high bit needs
    length = sizeof serial;
    ASSERT_EQ(qxview_cert_serial(record, serial, &length), 0u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(serial), length), std::string("\x00\x80\x01", 3));
    qxcert_free(ctx_, &record);
}

} // namespace
