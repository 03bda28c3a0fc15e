// qxcrl show beside `openssl crl -text` and `certtool --crl-info`: the same
// serials, dates, numbers, extension values and fingerprint, and CRLs the
// library refuses still shown with the reason.
#include <algorithm>
#include <cctype>
#include <string>

#include <gtest/gtest.h>

#include "cli_ca.h"
#include "files.h"

using namespace qxtest;

namespace {

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

std::string without_colons(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), ':'), text.end());
    return text;
}

// The first line after the line holding label in text, leading blanks trimmed.
std::string line_after(const std::string& text, const std::string& label) {
    const size_t at = text.find(label);
    if (at == std::string::npos) {
        ADD_FAILURE() << "no \"" << label << "\" in:\n" << text;
        return "";
    }
    const size_t start = text.find_first_not_of(" \t", text.find('\n', at) + 1);
    return text.substr(start, text.find('\n', start) - start);
}

class CliShowTest : public CliCaTest {};

TEST_F(CliShowTest, PrintsWhatOpensslCrlTextPrints) {
    shell("openssl ca -config ca.cnf -revoke l1.pem -crl_reason keyCompromise && "
          "openssl ca -config ca.cnf -revoke l2.pem -crl_compromise 20250101000000Z && "
          "openssl ca -config ca.cnf -revoke l3.pem -crl_reason superseded && "
          "openssl ca -config ca.cnf -gencrl -crlexts crl_ext -out crl.pem && "
          "openssl crl -in crl.pem -outform DER -out crl.der");
    const std::string openssl =
        output_of("openssl crl -in crl.pem -noout -text -fingerprint -sha256");
    const std::string fingerprint = after(openssl, "256 Fingerprint=");
    const std::string keyId = line_after(openssl, "X509v3 Authority Key Identifier:");
    ASSERT_FALSE(fingerprint.empty());

    for (const char* file : {"crl.pem", "crl.der"}) {
        SCOPED_TRACE(file);
        const Result text = run(std::string("show ") + file);
        ASSERT_EQ(text.exit, 0) << text.err;
        EXPECT_EQ(after(text.out, "SHA-256 fingerprint: "), fingerprint);
        EXPECT_EQ(after(text.out, "signature algorithm: "),
                  "ecdsa-with-SHA256 (1.2.840.10045.4.3.2)");
        EXPECT_EQ(after(text.out, "CRL number: "), line_after(openssl, "X509v3 CRL Number:"));
        EXPECT_EQ(line_after(text.out, "X509v3 Authority Key Identifier (2.5.29.35):"), keyId);
        EXPECT_EQ(line_after(text.out, "X509v3 Issuing Distribution Point (2.5.29.28):"),
                  "Full Name:");
        EXPECT_NE(text.out.find("URI:http://crl.qxcrl.test/full.crl"), std::string::npos);
        EXPECT_EQ(line_after(text.out, "X509v3 Freshest CRL (2.5.29.46):"), "Full Name:");
        EXPECT_NE(text.out.find("URI:http://crl.qxcrl.test/delta.crl"), std::string::npos);
        // Each entry: OpenSSL's serial, its reason, and l2's invalidity date.
        for (const char* serial : {"1000", "1001", "1002"})
            EXPECT_NE(openssl.find(std::string("Serial Number: ") + serial), std::string::npos);
        EXPECT_NE(after(text.out, "  serial 1000 revoked ").find(" reason keyCompromise (1)"),
                  std::string::npos);
        EXPECT_NE(after(text.out, "  serial 1001 revoked ")
                      .find(" reason keyCompromise (1) invalid since 2025-01-01T00:00:00Z"),
                  std::string::npos)
            << text.out;
        EXPECT_NE(after(text.out, "  serial 1002 revoked ").find(" reason superseded (4)"),
                  std::string::npos);
        EXPECT_NE(openssl.find("Superseded"), std::string::npos);
        EXPECT_NE(openssl.find("Jan  1 00:00:00 2025 GMT"), std::string::npos);
        EXPECT_NE(text.out.find("library: takes it\n"), std::string::npos);

        const Result json = run(std::string("show --json ") + file);
        ASSERT_EQ(json.exit, 0) << json.err;
        EXPECT_NE(json.out.find("\"sha256Fingerprint\":\"" + fingerprint + "\""), std::string::npos)
            << json.out;
        EXPECT_NE(json.out.find("{\"serial\":\"1001\",\"revocationDate\":"), std::string::npos);
        EXPECT_NE(
            json.out.find(",\"reason\":1,\"reasonName\":\"keyCompromise\","
                          "\"invalidityDate\":\"2025-01-01T00:00:00Z\",\"placeholder\":false"),
            std::string::npos)
            << json.out;
        EXPECT_NE(json.out.find("{\"oid\":\"2.5.29.35\",\"name\":\"X509v3 Authority Key "
                                "Identifier\",\"critical\":false,\"value\":\"" +
                                keyId + "\"}"),
                  std::string::npos)
            << json.out;
        EXPECT_NE(json.out.find("\"oid\":\"2.5.29.46\""), std::string::npos);
        EXPECT_NE(json.out.find("\"oid\":\"2.5.29.28\""), std::string::npos);
        EXPECT_NE(json.out.find("\"accepted\":true,\"refusal\":null}"), std::string::npos);
        EXPECT_EQ(json.out.find('\n'), json.out.size() - 1);
    }
}

TEST_F(CliShowTest, PrintsWhatCerttoolCrlInfoPrints) {
    write_text(dir_ / "ca.tmpl", "cn = \"GnuTLS CA\"\nca\ncert_signing_key\ncrl_signing_key\n"
                                 "expiration_days = 30\n");
    write_text(dir_ / "leaf.tmpl", "cn = leaf\nserial = 4660\nexpiration_days = 7\n");
    write_text(dir_ / "crl.tmpl", "crl_next_update = 7\ncrl_number = 1234567\n");
    shell("certtool --generate-privkey --key-type ecdsa --curve secp384r1 --outfile gca.key && "
          "certtool --generate-self-signed --load-privkey gca.key --template ca.tmpl "
          "--outfile gca.pem && "
          "certtool --generate-certificate --load-privkey leaf.key --load-ca-certificate gca.pem "
          "--load-ca-privkey gca.key --template leaf.tmpl --outfile gleaf.pem && "
          "certtool --generate-crl --load-ca-privkey gca.key --load-ca-certificate gca.pem "
          "--load-certificate gleaf.pem --template crl.tmpl --outfile gnutls.crl");
    const std::string info = output_of("certtool --crl-info --infile gnutls.crl");
    const std::string fingerprint =
        after(output_of("openssl crl -in gnutls.crl -noout -fingerprint -sha256"),
              "256 Fingerprint="); // "SHA256" or "SHA2-256", by OpenSSL's version

    const Result text = run("show gnutls.crl");
    ASSERT_EQ(text.exit, 0) << text.err;
    EXPECT_EQ(after(info, "Serial Number (hex): "), "1234");
    EXPECT_NE(text.out.find("\n  serial 1234 revoked "), std::string::npos) << text.out;
    // certtool writes the number in hex.
    EXPECT_EQ(std::stoul(after(info, "CRL Number (not critical): "), nullptr, 16), 1234567u);
    EXPECT_EQ(after(text.out, "CRL number: "), "1234567");
    EXPECT_EQ(
        upper(without_colons(line_after(text.out, "X509v3 Authority Key Identifier (2.5.29.35):"))),
        upper(line_after(info, "Authority Key Identifier (not critical):")));
    EXPECT_EQ(after(info, "Signature Algorithm: "), "ECDSA-SHA384");
    EXPECT_EQ(after(text.out, "signature type: "), "10 (ecdsa-with-SHA384)");
    EXPECT_EQ(after(text.out, "SHA-256 fingerprint: "), fingerprint);
    EXPECT_EQ(after(text.out, "issuer: "), after(info, "Issuer: "));
}

TEST_F(CliShowTest, ShowsWhatTheLibraryRefusesAndWhy) {
    shell("openssl ca -config ca.cnf -revoke l1.pem -crl_reason keyCompromise && "
          "openssl ca -config ca.cnf -gencrl -crlexts crit_ext -out critical.pem && "
          "openssl ca -config ca.cnf -gencrl -crlexts delta_ext -out delta.pem");
    const struct {
        const char* file;
        const char* reason;
    } cases[] = {
        {"critical.pem", "it carries the critical extension 1.3.6.1.4.1.99999.1 "
                         "(1.3.6.1.4.1.99999.1), which the library does not process"},
        {"delta.pem", "it carries the extension X509v3 Delta CRL Indicator (2.5.29.27): as a "
                      "delta CRL it lists only the changes since its base CRL"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const Result text = run(std::string("show ") + c.file);
        EXPECT_EQ(text.exit, 20);
        EXPECT_EQ(text.err, std::string("qxcrl: ") + c.file + ": refused: " + c.reason + "\n");
        EXPECT_NE(text.out.find(std::string("library: refuses it: ") + c.reason + "\n"),
                  std::string::npos)
            << text.out;
        // Everything is still shown.
        EXPECT_NE(text.out.find("\n  serial 1000 revoked "), std::string::npos) << text.out;
        EXPECT_EQ(after(text.out, "issuer: "), "CN=qxcrl CLI CA");
        const Result json = run(std::string("show --json ") + c.file);
        EXPECT_EQ(json.exit, 20);
        EXPECT_NE(json.out.find(std::string("\"accepted\":false,\"refusal\":\"") + c.reason),
                  std::string::npos)
            << json.out;
        // Commands that need an answer from the CRL refuse it the same way.
        const Result verify = run(std::string("verify ") + c.file + " --issuer ca.pem");
        EXPECT_EQ(verify.exit, 20);
        EXPECT_EQ(verify.err, text.err);
        const Result status = run(std::string("status --cert l1.pem --crl ") + c.file);
        EXPECT_EQ(status.exit, 20);
        EXPECT_EQ(status.err, text.err);
    }
    const Result delta = run("show delta.pem");
    EXPECT_EQ(after(delta.out, "delta CRL of base CRL number: "), "41");
    EXPECT_NE(delta.out.find("X509v3 Delta CRL Indicator (2.5.29.27), critical:\n"),
              std::string::npos);
    EXPECT_NE(run("show --json delta.pem").out.find("\"deltaCrlIndicator\":\"41\""),
              std::string::npos);

    // A file that is no CRL at all is a failure, not a refusal.
    const Result notCrl = run("show ca.pem");
    EXPECT_EQ(notCrl.exit, 10);
    EXPECT_EQ(notCrl.err, "qxcrl: loading ca.pem: 28788 QXERR_CRL_DECODE (not a CRL in DER, nor "
                          "in PEM under a CRL label)\n");
}

TEST_F(CliShowTest, NamesEverySignatureAlgorithm) {
    // A DSA CA: the layer has no signature type for it, the command still names it.
    shell("openssl genpkey -genparam -algorithm DSA -pkeyopt dsa_paramgen_bits:1024 "
          "-out dsa.param && openssl req -x509 -newkey dsa:dsa.param -nodes -keyout ca.key "
          "-out ca.pem -days 30 -subj '/CN=qxcrl DSA CA' && "
          "openssl ca -config ca.cnf -gencrl -out dsa.pem");
    Result result = run("show dsa.pem");
    ASSERT_EQ(result.exit, 0) << result.err;
    EXPECT_EQ(after(result.out, "signature type: "), "none (dsa_with_SHA256)");
    EXPECT_EQ(after(result.out, "signature algorithm: "),
              "dsa_with_SHA256 (2.16.840.1.101.3.4.3.2)");
    EXPECT_NE(run("show --json dsa.pem")
                  .out.find("\"signatureType\":null,\"signatureAlgorithm\":\"dsa_with_SHA256\""),
              std::string::npos);

    // An algorithm nobody knows: its OID (dsa-with-sha256's last arc changed to 127).
    std::vector<unsigned char> der = pem_block(dir_ / "dsa.pem", "X509 CRL");
    const std::vector<unsigned char> oid = {0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                            0x65, 0x03, 0x04, 0x03, 0x02};
    int replaced = 0;
    for (auto at = std::search(der.begin(), der.end(), oid.begin(), oid.end()); at != der.end();
         at = std::search(at + 1, der.end(), oid.begin(), oid.end())) {
        at[oid.size() - 1] = 0x7f;
        ++replaced;
    }
    ASSERT_EQ(replaced, 2);
    write_file(dir_ / "unknown.der", der);
    result = run("show unknown.der");
    ASSERT_EQ(result.exit, 0) << result.err;
    EXPECT_EQ(after(result.out, "signature algorithm: "),
              "2.16.840.1.101.3.4.3.127 (2.16.840.1.101.3.4.3.127)");
}

TEST_F(CliShowTest, MarksThePlaceholderEntryOfCrlsTheLibraryCreates) {
    ASSERT_EQ(run("create --issuer ca.pem --key ca.key --next-update 1d --out made.pem").exit, 0);
    ASSERT_EQ(run("revoke made.pem --issuer ca.pem --key ca.key --cert l1.pem").exit, 0);
    const Result text = run("show made.pem");
    ASSERT_EQ(text.exit, 0) << text.err;
    // Its serial is the 16 ASCII bytes of "DUMMYCERTIFICATE".
    EXPECT_NE(after(text.out, "  serial 44554d4d594345525449464943415445 revoked ")
                  .find("(placeholder: the entry every CRL this library creates starts with; no "
                        "certificate)"),
              std::string::npos)
        << text.out;
    EXPECT_EQ(after(text.out, "  serial 1000 revoked ").find("placeholder"), std::string::npos);
    const Result json = run("show --json made.pem");
    EXPECT_NE(json.out.find("\"serial\":\"44554d4d594345525449464943415445\""), std::string::npos);
    EXPECT_NE(json.out.find("\"placeholder\":true"), std::string::npos) << json.out;
    EXPECT_NE(json.out.find("\"placeholder\":false"), std::string::npos) << json.out;
}

} // namespace
