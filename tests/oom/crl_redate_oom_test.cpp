// Re-dating a CRL read from DER while OpenSSL fails one allocation after
// another: whether the new next update stays or not, the CRL must write and
// verify what it says.
#include <string>

#include <gtest/gtest.h>

#include "layer_fixture.h"
#include "openssl_allocator.h"
#include "test_pki.h"
#include "toolkit/r_toolkit.h"
#include "toolkit_bytes.h"

using namespace qxtest;

namespace {

class RedateOomTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        der_ = make_crl(shared_issuer(), {});
        reload();
        const Bytes issuerDer = cert_der(shared_issuer().cert.get());
        ASSERT_EQ(qxcert_from_bytes(ctx_, issuerDer.data(), size_of(issuerDer), &issuer_), 0u);
        IssuerOptions lapsed;
        lapsed.notAfter = std::time(nullptr) - 60;
        const Bytes expiredDer = cert_der(make_issuer(lapsed).cert.get());
        ASSERT_EQ(qxcert_from_bytes(ctx_, expiredDer.data(), size_of(expiredDer), &expired_), 0u);
        const Bytes keyDer = key_der(shared_issuer().key.get());
        ASSERT_EQ(qxdk_key_from_bytes(ctx_, keyDer.data(), size_of(keyDer), nullptr, &key_), 0u);
        before_ = next_update();
        // A certificate's name keeps its canonical form once compared: made
        // here, it is not counted against the sweep's runs.
        EXPECT_EQ(verify(), 0u);
    }
    void TearDown() override {
        qxdk_key_free(ctx_, &key_);
        qxcert_free(ctx_, &expired_);
        qxcert_free(ctx_, &issuer_);
        qxcrl_Destroy(ctx_, &crl_);
        LayerTest::TearDown();
    }

    static uint32_t size_of(const Bytes& bytes) { return static_cast<uint32_t>(bytes.size()); }

    // crl_ as decoded from der_ again.
    void reload() {
        qxcrl_Destroy(ctx_, &crl_);
        ASSERT_EQ(qxcrl_CreateCtx(ctx_, &crl_, der_.data(), size_of(der_)), 0u);
    }
    std::string next_update() {
        char text[129] = {};
        EXPECT_EQ(qxcrl_GetDetails(ctx_, crl_, QXCRL_DETAIL_NEXT_UPDATE, 0, text), 0u);
        return text;
    }
    StatusCode verify() {
        CrlValidity validity = 0;
        return qxcrl_VerifyCRL(ctx_, crl_, issuer_, &validity);
    }

    Bytes der_;
    CrlObject* crl_ = nullptr;
    CertificateRecord* issuer_ = nullptr;
    CertificateRecord* expired_ = nullptr;
    QxPrivateKey* key_ = nullptr;
    std::string before_;
};

} // namespace

TEST_F(RedateOomTest, WhatTheCrlSaysIsWhatItWrites) {
    // An expired issuer may not sign, so every run ends unsigned.
    const uint64_t failuresInjected = sweep_openssl_allocations(
        [&] { return qxcrl_SetNextUpdate(ctx_, crl_, key_, expired_, "30d"); },
        [&](uint32_t status, bool injected) {
            const std::string nextUpdate = next_update();
            const Bytes written = toolkit_bytes(crl_->crl, R_CRL_to_binary);
            // The layer's own clock can fail too once the date has moved.
            EXPECT_TRUE(
                status == QXL_ERR_CERT_EXPIRED ||
                (injected && (status == QXERR_TOOLKIT_FAILURE || status == QXL_ERR_TOOLKIT)))
                << status;
            if (nextUpdate != before_) {
                // Moved: written so, and no longer under the old signature.
                Crl read = openssl_crl(written);
                ASSERT_NE(read, nullptr);
                EXPECT_EQ(rfc3339(X509_CRL_get0_nextUpdate(read.get())), nextUpdate);
                EXPECT_EQ(verify(), QXERR_CRL_SIGN);
            } else {
                EXPECT_NE(status, QXL_ERR_CERT_EXPIRED);
                EXPECT_EQ(written, der_);
                EXPECT_EQ(verify(), 0u);
            }
            reload();
        });
    EXPECT_GT(failuresInjected, 0u);
}
