// Whether a certificate issued a CRL: the signature under its key, the
// names, and its right to sign CRLs, on CRLs made at test time and on the
// corpus's published cases.
#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/err.h>

#include "files.h"
#include "test_pki.h"
#include "toolkit/r_toolkit.h"
#include "toolkit_fixture.h"

using namespace qxtest;

namespace {

class ToolkitCrlVerify : public ToolkitTest {
  protected:
    // The verdict R_CRL_verify gives, or -1 when it fails.
    long verdict(const Bytes& crlDer, const X509* issuerCert) {
        CrlPtr crl = decode(crlDer);
        CertPtr issuer = cert(issuerCert);
        if (crl == nullptr || issuer == nullptr)
            return -1;
        uint32_t result = 0xdead;
        const int status = R_CRL_verify(crl.get(), issuer.get(), &result);
        EXPECT_EQ(ERR_peek_error(), 0u);
        return status == R_ERROR_NONE ? static_cast<long>(result) : -1;
    }
};

// An issuer whose certificate is named's but whose key is signer's: what
// signs a CRL under a name that is not its own.
Issuer under_name_of(const Issuer& named, const Issuer& signer) {
    EVP_PKEY_up_ref(signer.key.get());
    X509_up_ref(named.cert.get());
    return Issuer{named.commonName, signer.kind, Pkey(signer.key.get()), Cert(named.cert.get())};
}

// The certificate in the first PEM block labelled label of the file at path.
Cert cert_in(const std::filesystem::path& path, const std::string& label) {
    const Bytes der = pem_block(path, label);
    const unsigned char* p = der.data();
    return Cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
}

} // namespace

TEST_F(ToolkitCrlVerify, TellsGoodSignaturesFromBad) {
    TempDir dir;
    const std::vector<std::pair<KeyKind, KeyKind>> kinds = {
        {KeyKind::Rsa2048, KeyKind::EcP256},
        {KeyKind::RsaPss, KeyKind::EcP256},
        {KeyKind::EcP256, KeyKind::Ed25519},
        {KeyKind::Ed25519, KeyKind::Rsa2048},
    };
    for (const auto& [kind, otherKind] : kinds) {
        SCOPED_TRACE(static_cast<int>(kind));
        const Issuer& issuer = shared_issuer(kind);
        CrlOptions recipe;
        recipe.revoked = {revoked_serial({0x42})};
        const Bytes good = make_crl(issuer, recipe);
        // Turn the revoked serial 0x42 into 0x43, inside the signed part.
        const Bytes serial = {0x02, 0x01, 0x42};
        auto at = std::search(good.begin(), good.end(), serial.begin(), serial.end());
        ASSERT_NE(at, good.end());
        Bytes tampered = good;
        tampered[static_cast<size_t>(at - good.begin()) + 2] ^= 0x01;

        EXPECT_EQ(verdict(good, issuer.cert.get()), 0);
        EXPECT_EQ(verdict(tampered, issuer.cert.get()), R_CRL_VERIFY_BAD_SIGNATURE);

        // The openssl command agrees on both.
        write_text(dir / "ca.pem", cert_pem(issuer.cert.get()));
        write_file(dir / "good.crl", good);
        write_file(dir / "tampered.crl", tampered);
        EXPECT_TRUE(openssl_crl_verifies(dir.path(), "good.crl", "ca.pem"));
        EXPECT_FALSE(openssl_crl_verifies(dir.path(), "tampered.crl", "ca.pem"));

        // Another key of the same kind, under the same name.
        IssuerOptions sameName;
        sameName.kind = kind;
        sameName.commonName = issuer.commonName;
        EXPECT_EQ(verdict(good, make_issuer(sameName).cert.get()), R_CRL_VERIFY_BAD_SIGNATURE);

        // With a key of another algorithm the check cannot even be made.
        sameName.kind = otherKind;
        EXPECT_EQ(verdict(good, make_issuer(sameName).cert.get()), -1);

        CrlPtr crl = decode(good);
        CertPtr issuerCert = cert(issuer.cert.get());
        uint32_t result = 0;
        EXPECT_EQ(R_CRL_verify(crl.get(), issuerCert.get(), nullptr), R_ERROR_NULL_ARG);
        EXPECT_EQ(R_CRL_verify(crl.get(), nullptr, &result), R_ERROR_NULL_ARG);
        EXPECT_EQ(R_CRL_verify(nullptr, issuerCert.get(), &result), R_ERROR_NULL_ARG);
    }
}

// A key signs for every name its certificates bear; a CRL is the issuer's
// only when it carries the issuer's name (compared as RFC 5280 compares
// names) and the issuer may sign CRLs.
TEST_F(ToolkitCrlVerify, TheNameAndTheRightToSignCrlsCount) {
    const Issuer& issuer = shared_issuer(KeyKind::EcP256);
    CrlOptions recipe;
    recipe.revoked = {revoked_serial({0x42})};

    IssuerOptions other;
    other.commonName = "qxcrl Other CA";
    const Issuer otherCa = make_issuer(other);
    const Bytes forged = make_crl(under_name_of(otherCa, issuer), recipe);
    EXPECT_EQ(verdict(forged, issuer.cert.get()), R_CRL_VERIFY_OTHER_ISSUER);
    EXPECT_EQ(verdict(forged, otherCa.cert.get()), R_CRL_VERIFY_BAD_SIGNATURE);

    // The same name in other case and spacing is the same name.
    IssuerOptions folded;
    folded.commonName = issuer.commonName;
    std::transform(folded.commonName.begin(), folded.commonName.end(), folded.commonName.begin(),
                   [](char c) { return c == ' ' ? '\t' : static_cast<char>(std::toupper(c)); });
    const Bytes refolded = make_crl(under_name_of(make_issuer(folded), issuer), recipe);
    EXPECT_EQ(verdict(refolded, issuer.cert.get()), 0);

    // keyUsage decides only when the certificate has one.
    struct Case {
        std::string keyUsage;
        long verdict;
    };
    for (const Case& c : {Case{"", 0}, Case{"cRLSign", 0}, Case{"critical,keyCertSign,cRLSign", 0},
                          Case{"critical,keyCertSign", R_CRL_VERIFY_NOT_CRL_SIGNER},
                          Case{"digitalSignature,keyCertSign", R_CRL_VERIFY_NOT_CRL_SIGNER}}) {
        SCOPED_TRACE(c.keyUsage);
        IssuerOptions usage;
        usage.keyUsage = c.keyUsage;
        const Issuer ca = make_issuer(usage);
        EXPECT_EQ(verdict(make_crl(ca, recipe), ca.cert.get()), c.verdict);
    }
}

// Published cases where the signature verifies but the issuer did not issue
// the CRL, beside cases that must still verify.
TEST_F(ToolkitCrlVerify, PublishedCasesOfNamesAndKeyUsage) {
    const std::filesystem::path corpus = corpus_dir();
    if (corpus.empty())
        GTEST_SKIP() << "no test corpus";
    struct Case {
        std::string bundle;      // the CRL and its issuers' certificates
        std::string issuerLabel; // the PEM label of the issuer's certificate
        long verdict;
    };
    const std::vector<Case> chromium = {
        {"good.pem", "CA CERTIFICATE", 0},
        {"good_issuer_name_normalization.pem", "CA CERTIFICATE", 0},
        {"good_issuer_no_keyusage.pem", "CA CERTIFICATE", 0},
        {"good_key_rollover.pem", "CA CERTIFICATE 2", 0},
        {"bad_wrong_issuer.pem", "CA CERTIFICATE", R_CRL_VERIFY_OTHER_ISSUER},
        {"invalid_issuer_keyusage_no_crlsign.pem", "CA CERTIFICATE", R_CRL_VERIFY_NOT_CRL_SIGNER},
        {"invalid_key_rollover_issuer_keyusage_no_crlsign.pem", "CA CERTIFICATE 2",
         R_CRL_VERIFY_NOT_CRL_SIGNER},
    };
    for (const Case& c : chromium) {
        SCOPED_TRACE(c.bundle);
        const std::filesystem::path file = corpus / "edge" / "chromium-crl" / c.bundle;
        const Cert issuerCert = cert_in(file, c.issuerLabel);
        ASSERT_NE(issuerCert, nullptr);
        EXPECT_EQ(verdict(pem_block(file, "CRL"), issuerCert.get()), c.verdict);
    }
    for (const auto& [limbo, expected] :
         {std::pair{"issuer-missing-crlsign", long{R_CRL_VERIFY_NOT_CRL_SIGNER}},
          std::pair{"issuer-no-keyusage-extension", 0L},
          std::pair{"issuer-valid-crlsign-and-keycertsign", 0L}}) {
        SCOPED_TRACE(limbo);
        const std::filesystem::path dir = corpus / "edge" / "limbo-crl" / limbo;
        const Cert issuerCert = cert_in(dir / "trusted_0.pem", "CERTIFICATE");
        ASSERT_NE(issuerCert, nullptr);
        EXPECT_EQ(verdict(pem_block(dir / "crl_0.pem", "X509 CRL"), issuerCert.get()), expected);
    }
}
