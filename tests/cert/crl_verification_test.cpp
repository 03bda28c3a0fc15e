// Verification of a CRL: its signature under the issuer's certificate, then
// its nextUpdate against a fixed clock, with the records each verdict writes.
#include <algorithm>
#include <optional>

#include <gtest/gtest.h>

#include "fixed_clock.h"
#include "layer_fixture.h"
#include "test_pki.h"

using namespace qxtest;

namespace {

constexpr int64_t now = 1767225600; // 2026-01-01T00:00:00Z

class CrlVerificationTest : public LayerTest {
  protected:
    CrlObject* decode(const Bytes& der) {
        CrlObject* crl = nullptr;
        EXPECT_EQ(qxcrl_CreateCtx(ctx_, &crl, der.data(), static_cast<uint32_t>(der.size())), 0u);
        crls_.push_back(crl);
        return crl;
    }
    void TearDown() override {
        for (CrlObject*& crl : crls_)
            qxcrl_Destroy(ctx_, &crl);
        LayerTest::TearDown();
    }
    // The level-4 texts written since the last clear, in order.
    std::vector<std::string> verdicts() const {
        std::vector<std::string> texts;
        for (const TraceEntry& entry : trace_.messages()) {
            EXPECT_EQ(entry.level, 4u);
            EXPECT_EQ(entry.function, "qxcrl_Verify");
            texts.push_back(entry.messageId.empty() ? entry.text
                                                    : entry.messageId + ":" + entry.text);
        }
        return texts;
    }
    CrlOptions recipe_at(std::optional<time_t> nextUpdate) {
        CrlOptions recipe;
        recipe.thisUpdate = now - 3600;
        recipe.nextUpdate = nextUpdate;
        recipe.revoked = {revoked_serial({0x42})};
        return recipe;
    }

    FixedClock clock_{now};
    std::vector<CrlObject*> crls_;
};

} // namespace

TEST_F(CrlVerificationTest, GoodSignatureAndCurrency) {
    for (KeyKind kind : {KeyKind::Rsa2048, KeyKind::RsaPss, KeyKind::EcP256, KeyKind::Ed25519}) {
        const Issuer& issuer = shared_issuer(kind);
        CrlObject* crl = decode(make_crl(issuer, recipe_at(now + 1)));
        CertificateRecord* issuerRecord = nullptr;
        const Bytes der = cert_der(issuer.cert.get());
        ASSERT_EQ(
            qxcert_from_bytes(ctx_, der.data(), static_cast<uint32_t>(der.size()), &issuerRecord),
            0u);
        trace_.clear();
        CrlValidity validity = 0;
        EXPECT_EQ(qxcrl_VerifyCRL(ctx_, crl, issuerRecord, &validity), 0u);
        qxcert_free(ctx_, &issuerRecord);
        EXPECT_EQ(validity, QXCRL_CRL_CURRENT);
        ASSERT_EQ(trace_.entries().size(), 2u);
        EXPECT_EQ(trace_.entries()[0].function, "qxcrlVCS_VerifyCRLSignature");
        EXPECT_EQ(trace_.entries()[0].kind, QX_TRACE_ENTRY);
        EXPECT_EQ(trace_.entries()[1].function, "qxcrl_Verify");
        EXPECT_EQ(trace_.entries()[1].kind, QX_TRACE_EXIT);
    }
}

TEST_F(CrlVerificationTest, SignatureFailuresComeBeforeCurrency) {
    const Issuer& issuer = shared_issuer(KeyKind::EcP256);
    CertificateRecord* issuerRecord = nullptr;
    const Bytes issuerDer = cert_der(issuer.cert.get());
    ASSERT_EQ(qxcert_from_bytes(ctx_, issuerDer.data(), static_cast<uint32_t>(issuerDer.size()),
                                &issuerRecord),
              0u);

    // Good signature, current.
    CrlValidity validity = 0;
    CrlObject* good = decode(make_crl(issuer, recipe_at(now + 60)));
    EXPECT_EQ(qxcrl_VerifyCRL(ctx_, good, issuerRecord, &validity), 0u);
    EXPECT_EQ(validity, QXCRL_CRL_CURRENT);

    // One flipped bit in the signed part: the revoked serial 0x42 becomes 0x43.
    Bytes tampered = make_crl(issuer, recipe_at(now + 60));
    const Bytes serial{0x02, 0x01, 0x42};
    auto at = std::search(tampered.begin(), tampered.end(), serial.begin(), serial.end());
    ASSERT_NE(at, tampered.end());
    at[2] ^= 0x01;
    CrlObject* flipped = decode(tampered);
    trace_.clear();
    validity = 77;
    EXPECT_EQ(qxcrl_VerifyCRL(ctx_, flipped, issuerRecord, &validity), QXERR_CRL_SIGN);
    EXPECT_EQ(validity, 77u);
    std::vector<std::string> texts = verdicts();
    ASSERT_EQ(texts.size(), 1u); // a bad signature is a verdict, not a toolkit failure
    EXPECT_EQ(texts[0].rfind("CRL Verify failed with error:", 0), 0u);

    // Without an issuer certificate only currency counts.
    EXPECT_EQ(qxcrl_Verify(ctx_, flipped, nullptr, &validity), 0u);
    EXPECT_EQ(validity, QXCRL_CRL_CURRENT);
    CertificateRecord noCert = *issuerRecord;
    noCert.cert = nullptr;
    validity = 0;
    EXPECT_EQ(qxcrl_VerifyCRL(ctx_, flipped, &noCert, &validity), 0u);
    EXPECT_EQ(validity, QXCRL_CRL_CURRENT);

    // Another issuer's certificate, same algorithm and another one.
    for (KeyKind other : {KeyKind::EcP256, KeyKind::Rsa2048}) {
        IssuerOptions recipe;
        recipe.kind = other;
        recipe.commonName = issuer.commonName; // same name, other key
        const Issuer impostor = make_issuer(recipe);
        CertificateRecord* impostorRecord = nullptr;
        const Bytes der = cert_der(impostor.cert.get());
        ASSERT_EQ(
            qxcert_from_bytes(ctx_, der.data(), static_cast<uint32_t>(der.size()), &impostorRecord),
            0u);
        validity = 77;
        EXPECT_EQ(qxcrl_VerifyCRL(ctx_, good, impostorRecord, &validity), QXERR_CRL_SIGN);
        EXPECT_EQ(validity, 77u);
        qxcert_free(ctx_, &impostorRecord);
    }

    // Badly signed and expired: the signature decides, validity untouched.
    Bytes expired = make_crl(issuer, recipe_at(now - 60));
    at = std::search(expired.begin(), expired.end(), serial.begin(), serial.end());
    at[2] ^= 0x01;
    CrlObject* both = decode(expired);
    validity = 77;
    EXPECT_EQ(qxcrl_VerifyCRL(ctx_, both, issuerRecord, &validity), QXERR_CRL_SIGN);
    EXPECT_EQ(validity, 77u);
    qxcert_free(ctx_, &issuerRecord);
}

TEST_F(CrlVerificationTest, NextUpdateDecidesCurrency) {
    const Issuer& issuer = shared_issuer(KeyKind::EcP256);
    CrlValidity validity = 0;

    // Equal to now is expired.
    CrlObject* atNow = decode(make_crl(issuer, recipe_at(now)));
    trace_.clear();
    EXPECT_EQ(qxcrl_Verify(ctx_, atNow, nullptr, &validity), QXERR_CRL_EXPIRED);
    EXPECT_EQ(validity, QXCRL_CRL_EXPIRED);
    EXPECT_EQ(verdicts(), std::vector<std::string>{"CRL Verify failed, CRL expired:0"});

    CrlObject* past = decode(make_crl(issuer, recipe_at(now - 1)));
    trace_.clear();
    EXPECT_EQ(qxcrl_Verify(ctx_, past, nullptr, &validity), QXERR_CRL_EXPIRED);
    EXPECT_EQ(verdicts(), std::vector<std::string>{"CRL Verify failed, CRL expired:-1"});

    // thisUpdate in the future does not matter.
    CrlOptions early = recipe_at(now + 7200);
    early.thisUpdate = now + 3600;
    validity = 0;
    EXPECT_EQ(qxcrl_Verify(ctx_, decode(make_crl(issuer, early)), nullptr, &validity), 0u);
    EXPECT_EQ(validity, QXCRL_CRL_CURRENT);

    // No nextUpdate: a failure, not an expiry.
    CrlObject* open = decode(make_crl(issuer, recipe_at(std::nullopt)));
    trace_.clear();
    validity = 77;
    EXPECT_EQ(qxcrl_Verify(ctx_, open, nullptr, &validity), QXERR_CRL_SIGN);
    EXPECT_EQ(validity, 77u);
    const std::vector<std::string> texts = verdicts();
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0], "CRL validation failed as nextUpdate field in CRL is NULL\n");
    EXPECT_EQ(texts[1], "qx0229trc:" + catalogue_text(qx0229trc, R_ERROR_NOT_PRESENT));
}

TEST_F(CrlVerificationTest, MissingArguments) {
    CrlObject* crl = decode(make_crl(shared_issuer(), recipe_at(now + 60)));
    CrlValidity validity = 77;
    trace_.clear();
    EXPECT_EQ(qxcrl_Verify(nullptr, crl, nullptr, &validity), QXERR_BAD_PARAMETER);
    ASSERT_EQ(trace_.entries().size(), 1u);
    EXPECT_EQ(trace_.entries()[0].kind, QX_TRACE_EXIT);
    EXPECT_EQ(trace_.entries()[0].function, "qxcrl_Verify");
    EXPECT_EQ(trace_.entries()[0].context, nullptr);
    EXPECT_EQ(qxcrl_Verify(ctx_, nullptr, nullptr, &validity), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_Verify(ctx_, crl, nullptr, nullptr), QXERR_BAD_PARAMETER);
    trace_.clear();
    CertificateRecord none{};
    EXPECT_EQ(qxcrl_VerifyCRL(ctx_, crl, nullptr, &validity), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_VerifyCRL(nullptr, crl, &none, &validity), QXERR_BAD_PARAMETER);
    EXPECT_TRUE(trace_.entries().empty());
    EXPECT_EQ(validity, 77u);
}
