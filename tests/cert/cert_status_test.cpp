// A certificate's status in one CRL against a fixed clock: other issuer, not
// listed, revoked in the past, now and in the future.
#include <gtest/gtest.h>

#include "fixed_clock.h"
#include "layer_fixture.h"
#include "test_pki.h"

using namespace qxtest;

namespace {

constexpr int64_t now = 1767225600; // 2026-01-01T00:00:00Z

class CertStatusTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        CrlOptions recipe;
        recipe.thisUpdate = now - 7200;
        recipe.nextUpdate = now - 60; // expired: currency is not this operation's business
        for (auto [serial, date] :
             {std::pair<unsigned char, int64_t>{0x10, now - 100}, {0x11, now}, {0x12, now + 100}}) {
            RevokedEntry entry = revoked_serial({serial});
            entry.revocationDate = date;
            recipe.revoked.push_back(entry);
        }
        const Bytes der = make_crl(shared_issuer(), recipe);
        ASSERT_EQ(qxcrl_CreateCtx(ctx_, &crl_, der.data(), static_cast<uint32_t>(der.size())), 0u);
    }
    void TearDown() override {
        qxcrl_Destroy(ctx_, &crl_);
        LayerTest::TearDown();
    }

    // The status of a leaf with this serial issued by issuer; the level-4 texts in verdicts.
    StatusCode check(const Issuer& issuer, unsigned char serial, CertRevocationStatus& status,
                     std::vector<std::string>& verdicts) {
        LeafOptions recipe;
        recipe.serial = {serial};
        Cert leaf = make_leaf(issuer, recipe);
        const Bytes der = cert_der(leaf.get());
        CertificateRecord* record = nullptr;
        EXPECT_EQ(qxcert_from_bytes(ctx_, der.data(), static_cast<uint32_t>(der.size()), &record),
                  0u);
        trace_.clear();
        const StatusCode result = qxcrl_CheckCertStatus(ctx_, crl_, record, &status);
        for (const TraceEntry& entry : trace_.messages()) {
            EXPECT_EQ(entry.function, "qxcrl_CheckCertStatus");
            EXPECT_EQ(entry.level, 4u);
            verdicts.push_back(entry.messageId.empty() ? entry.text
                                                       : entry.messageId + ":" + entry.text);
        }
        EXPECT_EQ(trace_.count(QX_TRACE_ENTRY, "qxcrl_CheckCertStatus"), 1u);
        EXPECT_EQ(trace_.count(QX_TRACE_EXIT, "qxcrl_CheckCertStatus"), 1u);
        qxcert_free(ctx_, &record);
        return result;
    }

    FixedClock clock_{now};
    CrlObject* crl_ = nullptr;
};

} // namespace

TEST_F(CertStatusTest, AnswersFromOneCrl) {
    struct Case {
        const char* what;
        const Issuer& issuer;
        unsigned char serial;
        CertRevocationStatus expected;
        std::vector<std::string> verdicts;
    };
    const Issuer& other = shared_issuer(KeyKind::Ed25519);
    const std::string future = "Certificate revocation time is in future; returning valid status\n";
    const std::vector<Case> cases = {
        {"other issuer: no lookup, no verdict", other, 0x10, QXCRL_CERT_VALID, {}},
        {"not listed",
         shared_issuer(),
         0x20,
         QXCRL_CERT_VALID,
         {"Certificate not in CRL; returning valid status\n",
          "qx0232trc:" + catalogue_text(qx0232trc, 10008)}},
        {"revoked before now",
         shared_issuer(),
         0x10,
         QXCRL_CERT_REVOKED,
         {"Certificate found in CRL; returning revoked status\n"}},
        {"revoked exactly now", shared_issuer(), 0x11, QXCRL_CERT_VALID, {future}},
        {"revoked in the future", shared_issuer(), 0x12, QXCRL_CERT_VALID, {future}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        CertRevocationStatus status = 0;
        std::vector<std::string> verdicts;
        EXPECT_EQ(check(c.issuer, c.serial, status, verdicts), 0u);
        EXPECT_EQ(status, c.expected);
        EXPECT_EQ(verdicts, c.verdicts);
    }
}

TEST_F(CertStatusTest, MissingArgumentsLeaveTheStatusAlone) {
    CertRevocationStatus status = 99;
    CertificateRecord empty{};
    trace_.clear();
    EXPECT_EQ(qxcrl_CheckCertStatus(nullptr, crl_, &empty, &status), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_CheckCertStatus(ctx_, crl_, &empty, &status), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_CheckCertStatus(ctx_, crl_, nullptr, &status), QXERR_BAD_PARAMETER);
    EXPECT_EQ(status, 99u);
    EXPECT_EQ(trace_.count(QX_TRACE_ENTRY, "qxcrl_CheckCertStatus"), 0u);
    EXPECT_EQ(trace_.count(QX_TRACE_EXIT, "qxcrl_CheckCertStatus"), 3u);
}
