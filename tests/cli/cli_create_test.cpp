// qxcrl create signs with the signature type its key calls for, or the one
// --sig-type names, by name or number; openssl reads the algorithm back and
// verifies the signature.
#include <string>

#include <gtest/gtest.h>

#include "cli_ca.h"
#include "files.h"

using namespace qxtest;

namespace {

using CliCreateTest = CliCaTest;

TEST_F(CliCreateTest, SignsAsTheKeyCallsFor) {
    const struct {
        const char* name;
        const char* genpkey;
        const char* algorithm; // as `openssl crl -text` prints it
    } keys[] = {
        {"p256", "-algorithm EC -pkeyopt ec_paramgen_curve:P-256", "ecdsa-with-SHA256"},
        {"p384", "-algorithm EC -pkeyopt ec_paramgen_curve:P-384", "ecdsa-with-SHA384"},
        {"p521", "-algorithm EC -pkeyopt ec_paramgen_curve:P-521", "ecdsa-with-SHA512"},
        {"ed25519", "-algorithm ED25519", "ED25519"},
        {"ed448", "-algorithm ED448", "ED448"},
        {"rsa", "-algorithm RSA -pkeyopt rsa_keygen_bits:2048", "sha256WithRSAEncryption"},
        {"pss", "-algorithm RSA-PSS -pkeyopt rsa_keygen_bits:2048", "rsassaPss"},
    };
    for (const auto& key : keys) {
        SCOPED_TRACE(key.name);
        const std::string name = key.name;
        shell("openssl genpkey " + std::string(key.genpkey) + " -out " + name +
              ".key && openssl req -x509 -key " + name + ".key -out " + name +
              ".pem -days 30 -subj /CN=" + name + " -addext keyUsage=critical,keyCertSign,cRLSign");
        const Result result = run("create --issuer " + name + ".pem --key " + name +
                                  ".key --next-update 1d --out " + name + ".crl");
        ASSERT_EQ(result.exit, 0) << result.err;
        const std::string text = output_of("openssl crl -in " + name + ".crl -noout -text");
        EXPECT_EQ(after(text, "Signature Algorithm: "), key.algorithm) << text;
        if (name == "pss") {
            EXPECT_NE(text.find("Hash Algorithm: sha256"), std::string::npos) << text;
        }
        EXPECT_TRUE(openssl_crl_verifies(dir_.path(), name + ".crl", name + ".pem"));
        EXPECT_EQ(run("verify " + name + ".crl --issuer " + name + ".pem").out, "ok\n");
    }
}

TEST_F(CliCreateTest, SigTypeByNameOrNumber) {
    const struct {
        const char* sigType;
        const char* algorithm;
    } cases[] = {
        {"ecdsa-with-SHA384", "ecdsa-with-SHA384"},
        {"ECDSA-WITH-SHA512", "ecdsa-with-SHA512"},
        {"9", "ecdsa-with-SHA256"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sigType);
        const Result result = run(std::string("create --issuer ca.pem --key ca.key --next-update "
                                              "1d --out named.crl --sig-type ") +
                                  c.sigType);
        ASSERT_EQ(result.exit, 0) << result.err;
        EXPECT_EQ(
            after(output_of("openssl crl -in named.crl -noout -text"), "Signature Algorithm: "),
            c.algorithm);
    }
    shell("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out rsa.key && "
          "openssl req -x509 -key rsa.key -out rsa.pem -days 30 -subj /CN=rsa");
    ASSERT_EQ(run("create --issuer rsa.pem --key rsa.key --next-update 1d --out rsa.crl "
                  "--sig-type sha384WithRSAEncryption")
                  .exit,
              0);
    EXPECT_EQ(after(output_of("openssl crl -in rsa.crl -noout -text"), "Signature Algorithm: "),
              "sha384WithRSAEncryption");
    ASSERT_EQ(run("revoke rsa.crl --issuer rsa.pem --key rsa.key --cert l1.pem --sig-type "
                  "rsassaPss-SHA512")
                  .exit,
              0);
    const std::string pss = output_of("openssl crl -in rsa.crl -noout -text");
    EXPECT_EQ(after(pss, "Signature Algorithm: "), "rsassaPss");
    EXPECT_NE(pss.find("Hash Algorithm: sha512"), std::string::npos) << pss;

    const Result bad = run("create --issuer ca.pem --key ca.key --next-update 1d --out x.crl "
                           "--sig-type ecdsa-with-SHA1");
    EXPECT_EQ(bad.exit, 64);
    EXPECT_NE(bad.err.find("--sig-type needs a signature type's number or one of its names: "
                           "sha1WithRSAEncryption, "),
              std::string::npos)
        << bad.err;
}

} // namespace
