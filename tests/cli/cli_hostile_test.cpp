// The qxcrl command on inputs an attacker shapes: values longer than any
// buffer, a forged CRL carrying an issuer's exact name, and times no CRL can
// carry.
#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "cli_run.h"
#include "files.h"
#include "test_pki.h"

using namespace qxtest;

namespace {

std::string hex(const Bytes& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (const unsigned char byte : bytes) {
        out += digits[byte >> 4];
        out += digits[byte & 0x0f];
    }
    return out;
}

} // namespace

TEST(CliHostile, ShowPrintsSerialsAndNumbersOfAnyLength) {
    // 1,100 bytes each: past the 1 KiB a reader might size for them.
    const Bytes serial(1100, 0x5a);
    Bytes number = {0x02, 0x82, 0x04, 0x4c};
    number.resize(number.size() + 1100, 0x21);
    CrlOptions recipe;
    recipe.crlNumber = std::nullopt;
    recipe.extensions = {{"2.5.29.20", false, number}};
    recipe.revoked = {revoked_serial(serial), revoked_serial({0x07})};
    TempDir dir;
    write_file(dir / "long.der", make_crl(shared_issuer(), recipe));

    const Result result = qxcrl(dir.path(), "show long.der");
    ASSERT_EQ(result.exit, 0) << result.err;
    // In decimal, as OpenSSL's bignums write it.
    const Bytes magnitude(1100, 0x21);
    BIGNUM* value = BN_bin2bn(magnitude.data(), static_cast<int>(magnitude.size()), nullptr);
    ASSERT_NE(value, nullptr);
    char* digits = BN_bn2dec(value);
    const std::string decimal = digits;
    OPENSSL_free(digits);
    BN_free(value);
    EXPECT_NE(result.out.find("CRL number: " + decimal + "\n"), std::string::npos)
        << result.out.substr(0, 300);
    EXPECT_NE(result.out.find("entries: 2\n"), std::string::npos);
    EXPECT_NE(result.out.find("  serial " + hex(serial) + " revoked "), std::string::npos);
    EXPECT_NE(result.out.find("  serial 07 revoked "), std::string::npos);
}

TEST(CliHostile, StatusJsonFindsTheEntryOfASerialOfAnyLength) {
    // 1,100 bytes: past any buffer a reader might size for a serial.
    const Bytes serial(1100, 0x5a);
    LeafOptions leaf;
    leaf.serial = serial;
    CrlOptions recipe;
    RevokedEntry entry = revoked_serial(serial);
    entry.revocationDate = 1735689600;                             // 2025-01-01T00:00:00Z
    entry.extensions = {{"2.5.29.21", false, {0x0a, 0x01, 0x05}}}; // cessationOfOperation
    recipe.revoked = {entry};
    TempDir dir;
    write_text(dir / "leaf.pem", cert_pem(make_leaf(shared_issuer(), leaf).get()));
    write_file(dir / "long.der", make_crl(shared_issuer(), recipe));
    const Result result = qxcrl(dir.path(), "status --cert leaf.pem --crl long.der --json");
    EXPECT_EQ(result.exit, 1) << result.err;
    EXPECT_NE(result.out.find("\"revocationDate\":\"2025-01-01T00:00:00Z\",\"reason\":"
                              "\"cessationOfOperation\",\"reasonCode\":5,"),
              std::string::npos)
        << result.out;
}

TEST(CliHostile, StatusAnswersOnlyFromACrlItCouldVerify) {
    // The CA's subject and, differing only in case, the name its leaf carries
    // as issuer: RFC 5280 matching takes them as one name, their DER differs.
    IssuerOptions caOptions;
    caOptions.subject = {{{"CN", "qxcrl Case CA"}}};
    const Issuer ca = make_issuer(caOptions);
    IssuerOptions impostorOptions;
    impostorOptions.subject = {{{"CN", "QXCRL CASE CA"}}};
    const Issuer impostor = make_issuer(impostorOptions);
    LeafOptions leafOptions;
    leafOptions.serial = {0x31};
    Cert leaf = make_leaf(ca, leafOptions);
    ASSERT_EQ(X509_set_issuer_name(leaf.get(), X509_get_subject_name(impostor.cert.get())), 1);
    ASSERT_GT(X509_sign(leaf.get(), ca.key.get(), EVP_sha256()), 0);

    TempDir dir;
    write_text(dir / "ca.pem", cert_pem(ca.cert.get()));
    write_text(dir / "leaf.pem", cert_pem(leaf.get()));
    CrlOptions revokes;
    revokes.revoked = {revoked_serial({0x31})};
    write_file(dir / "genuine.der", make_crl(ca, revokes));
    // The forgery carries the leaf's issuer bytes exactly and lists nothing.
    write_file(dir / "forged.der", make_crl(impostor, CrlOptions{}));

    // Only the forgery's issuer DER is the leaf's: it is the CRL that answers.
    Result result = qxcrl(dir.path(), "status --cert leaf.pem --crl genuine.der --crl forged.der "
                                      "--issuer ca.pem --json");
    EXPECT_EQ(result.exit, 10) << result.out;
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find("verifying the CRL that answered against ca.pem: 29176 "
                              "QXERR_CRL_SIGN (the signature is not made with the issuer's key)\n"),
              std::string::npos)
        << result.err;

    // Without an issuer the answer comes, and says it was not verified.
    result = qxcrl(dir.path(), "status --cert leaf.pem --crl forged.der --json");
    EXPECT_EQ(result.exit, 0);
    EXPECT_EQ(result.out.rfind("{\"status\":\"valid\",\"verified\":false,", 0), 0u) << result.out;
    EXPECT_NE(result.out.find("\"crl\":{\"file\":\"forged.der\","), std::string::npos);
    result = qxcrl(dir.path(), "status --cert leaf.pem --crl forged.der");
    EXPECT_EQ(result.out, "valid\n");
    EXPECT_NE(result.err.find("not verified"), std::string::npos) << result.err;

    // A leaf carrying the CA's own name is answered by the genuine CRL, verified.
    Cert honest = make_leaf(ca, leafOptions);
    write_text(dir / "honest.pem", cert_pem(honest.get()));
    result = qxcrl(dir.path(), "status --cert honest.pem --crl forged.der --crl genuine.der "
                               "--issuer ca.pem --json");
    EXPECT_EQ(result.exit, 1) << result.err;
    EXPECT_EQ(result.out.rfind("{\"status\":\"revoked\",\"verified\":true,", 0), 0u) << result.out;
    EXPECT_NE(result.out.find("\"crl\":{\"file\":\"genuine.der\","), std::string::npos);
    EXPECT_EQ(result.err, "");
}

TEST(CliHostile, AuthoringRefusesTimesNoCrlCanCarry) {
    const Issuer& ca = shared_issuer();
    TempDir dir;
    write_text(dir / "ca.pem", cert_pem(ca.cert.get()));
    write_text(dir / "ca.key", key_pem(ca.key.get()));
    const std::string authority = " --issuer ca.pem --key ca.key ";

    Result result =
        qxcrl(dir.path(), "create" + authority + "--next-update 3000000d --out far.pem");
    EXPECT_EQ(result.exit, 64);
    EXPECT_NE(result.err.find("--next-update is past 9999-12-31"), std::string::npos) << result.err;
    EXPECT_FALSE(std::filesystem::exists(dir / "far.pem"));

    ASSERT_EQ(qxcrl(dir.path(), "create" + authority + "--next-update 1d --out crl.pem").exit, 0);
    const std::string before = slurp(dir / "crl.pem");
    result = qxcrl(dir.path(), "next-update crl.pem" + authority + "--next-update 500000w");
    EXPECT_EQ(result.exit, 64);
    EXPECT_EQ(slurp(dir / "crl.pem"), before);
    // The last day itself is still a day a CRL can carry.
    result = qxcrl(dir.path(), "create" + authority + "--next-update 2900000d --out late.pem");
    EXPECT_EQ(result.exit, 0) << result.err;
    result = qxcrl(dir.path(), "show late.pem");
    EXPECT_NE(result.out.find("next update: 99"), std::string::npos) << result.out;
}
