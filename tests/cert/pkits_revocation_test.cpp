// NIST PKITS cases on revocation by one CRL (section 4.4: basic revocation,
// bad CRL signature, bad CRL issuer name, wrong CRL, unknown critical CRL and
// entry extensions, CRL dates, negative and long serials, separate CRL keys;
// section 4.7: issuers whose keyUsage leaves out cRLSign; section 4.14:
// distribution points, the scope of partitioned CRLs, indirect CRLs): what
// verification and the status check give, against the expected outcome
// listed for each case.
#include <filesystem>
#include <set>

#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include "files.h"
#include "fixed_clock.h"
#include "layer_fixture.h"
#include "test_pki.h"

using namespace qxtest;

namespace {

// Whether OpenSSL reads an Issuing Distribution Point marking der as an indirect CRL.
bool is_indirect(const Bytes& der) {
    const unsigned char* cursor = der.data();
    X509_CRL* crl = d2i_X509_CRL(nullptr, &cursor, static_cast<long>(der.size()));
    auto* idp = crl == nullptr ? nullptr
                               : static_cast<ISSUING_DIST_POINT*>(X509_CRL_get_ext_d2i(
                                     crl, NID_issuing_distribution_point, nullptr, nullptr));
    const bool indirect = idp != nullptr && idp->indirectCRL != 0;
    ISSUING_DIST_POINT_free(idp);
    X509_CRL_free(crl);
    return indirect;
}

class PkitsRevocationTest : public LayerTest {
  protected:
    CertificateRecord* load_cert(const std::filesystem::path& path) {
        CertificateRecord* record = nullptr;
        EXPECT_EQ(qxcert_from_file(ctx_, path.c_str(), &record), 0u) << path;
        return record;
    }
};

} // namespace

TEST_F(PkitsRevocationTest, SingleCrlCases) {
    const std::filesystem::path corpus = corpus_dir();
    if (corpus.empty())
        GTEST_SKIP() << "no test corpus";
    const std::filesystem::path pkits = corpus / "pkits";
    FixedClock clock(1767225600); // 2026-01-01: the PKITS CRLs run to 2030

    std::set<std::string> covered;
    for (const std::vector<std::string>& f : read_tsv(pkits / "revocation_expectations.tsv")) {
        const std::string& id = f.at(0);
        const std::string& crlFile = f.at(7);
        const std::string& expected = f.at(9);
        // One CRL per case, in the basic CRL, key usage and distribution point sections.
        const bool section =
            id.rfind("4.4.", 0) == 0 || id.rfind("4.7.", 0) == 0 || id.rfind("4.14.", 0) == 0;
        if (!section || crlFile == "-" || crlFile.find(';') != std::string::npos)
            continue;
        SCOPED_TRACE(id + " " + f.at(1));
        trace_.clear();

        const Bytes der = read_file(pkits / "crls" / crlFile);
        CrlObject* crl = nullptr;
        const StatusCode decoded =
            qxcrl_CreateCtx(ctx_, &crl, der.data(), static_cast<uint32_t>(der.size()));
        if (expected.rfind("unknown-critical", 0) == 0) {
            // Never relied on: the CRL is refused outright.
            EXPECT_EQ(decoded, QXERR_CRL_DECODE);
            qxcrl_Destroy(ctx_, &crl);
            covered.insert(id);
            continue;
        }
        CertificateRecord* leaf = load_cert(pkits / "certs" / f.at(3));
        CertRevocationStatus status = 0;
        if (is_indirect(der)) {
            // An indirect CRL speaks for other issuers' certificates too,
            // which no single CRL here answers for: refused, or no answer
            // for its issuer's own certificates; for another issuer's, the
            // check gives what it gives for any CRL of another issuer.
            const bool ownIssuer = f.at(6) == f.at(8);
            if (decoded == 0) {
                EXPECT_EQ(qxcrl_CheckCertStatus(ctx_, crl, leaf, &status),
                          ownIssuer ? QXERR_TOOLKIT_FAILURE : 0u);
                EXPECT_EQ(status, ownIssuer ? QXCRL_CERT_UNKNOWN : QXCRL_CERT_VALID);
            }
            covered.insert(id);
            qxcert_free(ctx_, &leaf);
            qxcrl_Destroy(ctx_, &crl);
            continue;
        }
        ASSERT_EQ(decoded, 0u);
        CertificateRecord* signer = load_cert(pkits / "certs" / f.at(8));
        CrlValidity validity = 0;
        const StatusCode verified = qxcrl_VerifyCRL(ctx_, crl, signer, &validity);
        const StatusCode checked = qxcrl_CheckCertStatus(ctx_, crl, leaf, &status);

        if (expected == "revoked" || expected == "not-revoked") {
            EXPECT_EQ(verified, 0u);
            EXPECT_EQ(validity, QXCRL_CRL_CURRENT);
            EXPECT_EQ(checked, 0u);
            EXPECT_EQ(status, expected == "revoked" ? QXCRL_CERT_REVOKED : QXCRL_CERT_VALID);
        } else if (expected == "bad-signature" || expected == "issuer-not-crl-signer") {
            EXPECT_EQ(verified, QXERR_CRL_SIGN);
        } else if (expected == "crl-expired") {
            EXPECT_EQ(verified, QXERR_CRL_EXPIRED);
            EXPECT_EQ(validity, QXCRL_CRL_EXPIRED);
        } else if (expected == "out-of-scope" && id == "4.14.27") {
            // Good CA's CRL, for a certificate of another issuer that names
            // Good CA as its CRL issuer: the check treats it as any CRL of
            // another issuer.
            EXPECT_EQ(checked, 0u);
            EXPECT_EQ(status, QXCRL_CERT_VALID);
        } else if (expected == "out-of-scope") {
            // The CRL is its issuer's, but not for this certificate.
            EXPECT_EQ(verified, 0u);
            EXPECT_EQ(checked, QXERR_TOOLKIT_FAILURE);
            EXPECT_EQ(status, QXCRL_CERT_UNKNOWN);
        } else if (expected == "crl-issuer-mismatch") {
            // 4.4.5's CRL is signed with its CA's key under another name: not the CA's.
            if (id == "4.4.5") {
                EXPECT_EQ(verified, QXERR_CRL_SIGN);
            }
            // The CRL does not speak for the certificate: no entry is looked up.
            EXPECT_EQ(checked, 0u);
            EXPECT_EQ(status, QXCRL_CERT_VALID);
            for (const TraceEntry& entry : trace_.messages())
                EXPECT_NE(entry.function, "qxcrl_CheckCertStatus") << entry.text;
        } else {
            ADD_FAILURE() << "no rule for " << expected;
        }
        covered.insert(id);
        qxcert_free(ctx_, &leaf);
        qxcert_free(ctx_, &signer);
        qxcrl_Destroy(ctx_, &crl);
    }
    const std::set<std::string> mustCover = {
        "4.4.3",   "4.4.4",   "4.4.5",   "4.4.6",   "4.4.8",   "4.4.9",   "4.4.10",  "4.4.11",
        "4.4.12",  "4.4.13",  "4.4.14",  "4.4.15",  "4.4.16",  "4.4.17",  "4.4.18",  "4.4.19",
        "4.4.20",  "4.7.4",   "4.7.5",   "4.14.1",  "4.14.2",  "4.14.3",  "4.14.4",  "4.14.5",
        "4.14.6",  "4.14.7",  "4.14.8",  "4.14.9",  "4.14.10", "4.14.11", "4.14.12", "4.14.13",
        "4.14.14", "4.14.22", "4.14.23", "4.14.24", "4.14.25", "4.14.26", "4.14.27", "4.14.30",
        "4.14.31", "4.14.32", "4.14.33", "4.14.34", "4.14.35"};
    EXPECT_EQ(covered, mustCover);
}
