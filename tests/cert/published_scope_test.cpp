// CRLs as CAs publish them, judged at their time: the partitioned CRLs of
// Amazon's intermediates and the other published status cases, and the
// distribution point cases of the corpus's chromium set.
#include <ctime>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "files.h"
#include "fixed_clock.h"
#include "layer_fixture.h"
#include "test_pki.h"

using namespace qxtest;

namespace {

// Seconds since 1970 of "2025-02-25T00:00:00Z".
int64_t seconds_of(const std::string& text) {
    std::tm fields{};
    EXPECT_NE(strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &fields), nullptr) << text;
    return timegm(&fields);
}

class PublishedScopeTest : public LayerTest {
  protected:
    void TearDown() override {
        for (CertificateRecord*& cert : certs_)
            qxcert_free(ctx_, &cert);
        LayerTest::TearDown();
    }
    CertificateRecord* cert_from(const Bytes& bytes) {
        CertificateRecord* made = nullptr;
        EXPECT_EQ(qxcert_from_bytes(ctx_, bytes.data(), static_cast<uint32_t>(bytes.size()), &made),
                  0u);
        certs_.push_back(made);
        return made;
    }
    std::vector<CertificateRecord*> certs_;
};

} // namespace

// Every row answers as expected from a cache, with the CRL verified against
// its issuer where the corpus has the issuer's certificate.
TEST_F(PublishedScopeTest, PublishedCrlsAnswerAtTheirTime) {
    const std::filesystem::path corpus = corpus_dir();
    if (corpus.empty())
        GTEST_SKIP() << "no test corpus";
    const std::filesystem::path realworld = corpus / "realworld";
    int amazon = 0;
    for (const auto& row : read_tsv(realworld / "status_expectations.tsv")) {
        const std::string& certFile = row.at(0);
        const std::string& issuerFile = row.at(2);
        const std::string& crlFile = row.at(3);
        const std::string& expected = row.at(6);
        SCOPED_TRACE(certFile + " on " + crlFile);
        const FixedClock at(seconds_of(row.at(5)));
        CertificateRecord* cert = cert_from(read_file(realworld / certFile));
        const Bytes der = read_file(realworld / crlFile);
        CrlObject* crl = nullptr;
        ASSERT_EQ(qxcrl_CreateCtx(ctx_, &crl, der.data(), static_cast<uint32_t>(der.size())), 0u);
        if (issuerFile != "-") {
            CrlValidity validity = 0;
            EXPECT_EQ(
                qxcrl_VerifyCRL(ctx_, crl, cert_from(read_file(realworld / issuerFile)), &validity),
                0u);
            EXPECT_EQ(validity, QXCRL_CRL_CURRENT);
        }
        CrlCacheOwner* owner = nullptr;
        ASSERT_EQ(qxcrl_CreateCacheOwner(ctx_, 1u << 24, &owner), 0u);
        ASSERT_EQ(owner->addCrl(crl, owner->crlCache), 0u);
        CertRevocationStatus status = 0;
        EXPECT_EQ(qxcrl_GetCertStatusFromCacheInScope(cert, owner->crlCache, &status), 0u);
        EXPECT_EQ(status, expected == "revoked" ? QXCRL_CERT_REVOKED : QXCRL_CERT_VALID)
            << expected;
        qxcrl_DestroyCacheOwner(&owner);
        amazon += certFile.rfind("amazon/", 0) == 0 ? 1 : 0;
    }
    EXPECT_EQ(amazon, 28);
}

// Chromium's cases of Issuing Distribution Points and certificate
// distribution points: GOOD answers valid, REVOKED revoked, and UNKNOWN gets
// no answer, the CRL being refused or out of scope.
TEST_F(PublishedScopeTest, ChromiumDistributionPointCases) {
    const std::filesystem::path corpus = corpus_dir();
    if (corpus.empty())
        GTEST_SKIP() << "no test corpus";
    const std::filesystem::path dir = corpus / "edge" / "chromium-crl";
    const FixedClock at(seconds_of("2017-03-15T00:00:00Z")); // inside every CRL's dates
    int cases = 0;
    for (const auto& row : read_tsv(dir / "expectations.tsv")) {
        const std::string& file = row.at(0);
        const std::string& expected = row.at(1);
        if (file.find("idp") == std::string::npos && file.find("crldp") == std::string::npos)
            continue;
        SCOPED_TRACE(file + ": " + row.at(2));
        const Bytes der = pem_block(dir / file, "CRL");
        CertificateRecord* issuer = cert_from(pem_block(dir / file, "CA CERTIFICATE"));
        CertificateRecord* cert = cert_from(pem_block(dir / file, "CERTIFICATE"));
        ++cases;
        CrlObject* crl = nullptr;
        const StatusCode decoded =
            qxcrl_CreateCtx(ctx_, &crl, der.data(), static_cast<uint32_t>(der.size()));
        if (decoded != 0) {
            EXPECT_EQ(expected, "UNKNOWN");
            EXPECT_EQ(decoded, QXERR_CRL_DECODE);
            qxcrl_Destroy(ctx_, &crl); // the record is the caller's even then
            continue;
        }
        CrlValidity validity = 0;
        EXPECT_EQ(qxcrl_VerifyCRL(ctx_, crl, issuer, &validity), 0u);
        CertRevocationStatus status = 0;
        const StatusCode checked = qxcrl_CheckCertStatus(ctx_, crl, cert, &status);
        if (expected == "UNKNOWN") {
            EXPECT_EQ(checked, QXERR_TOOLKIT_FAILURE);
            EXPECT_EQ(status, QXCRL_CERT_UNKNOWN);
        } else {
            EXPECT_EQ(checked, 0u);
            EXPECT_EQ(status, expected == "REVOKED" ? QXCRL_CERT_REVOKED : QXCRL_CERT_VALID);
        }
        qxcrl_Destroy(ctx_, &crl);
    }
    EXPECT_EQ(cases, 19);
}
