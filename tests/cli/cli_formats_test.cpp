// Every command reads a CRL in DER or in PEM under any label the library
// knows, and qxcrl convert writes what `openssl crl` writes.
#include <string>

#include <gtest/gtest.h>

#include "cli_ca.h"
#include "files.h"

using namespace qxtest;

namespace {

// pem with its begin and end labels replaced and, optionally, CRLF line ends.
std::string relabelled(const std::string& pem, const std::string& label, bool crlf) {
    std::string out;
    for (size_t start = 0; start < pem.size();) {
        size_t end = pem.find('\n', start);
        if (end == std::string::npos)
            end = pem.size();
        std::string line = pem.substr(start, end - start);
        if (line == "-----BEGIN X509 CRL-----")
            line = "-----BEGIN " + label + "-----";
        else if (line == "-----END X509 CRL-----")
            line = "-----END " + label + "-----";
        out += line + (crlf ? "\r\n" : "\n");
        start = end + 1;
    }
    return out;
}

class CliFormatsTest : public CliCaTest {
  protected:
    void SetUp() override {
        CliCaTest::SetUp();
        shell("openssl ca -config ca.cnf -revoke l1.pem -crl_reason keyCompromise && "
              "openssl ca -config ca.cnf -gencrl -out crl.pem && "
              "openssl crl -in crl.pem -outform DER -out crl.der && sleep 1");
    }
};

TEST_F(CliFormatsTest, ConvertWritesWhatOpensslCrlWrites) {
    Result result = run("convert crl.pem --out out.der --der");
    ASSERT_EQ(result.exit, 0) << result.err;
    EXPECT_EQ(read_file(dir_ / "out.der"), read_file(dir_ / "crl.der"));
    result = run("convert crl.der --out out.pem");
    ASSERT_EQ(result.exit, 0) << result.err;
    EXPECT_EQ(slurp(dir_ / "out.pem"), output_of("openssl crl -in crl.der -inform DER"));
    EXPECT_EQ(run("convert crl.der --out pem.pem --pem").exit, 0);
    EXPECT_EQ(slurp(dir_ / "pem.pem"), slurp(dir_ / "out.pem"));

    for (const char* label : {"CRL", "CERTIFICATE REVOCATION LIST", "X509CRL"}) {
        SCOPED_TRACE(label);
        write_text(dir_ / "labelled.pem", relabelled(slurp(dir_ / "crl.pem"), label, true));
        ASSERT_EQ(run("convert labelled.pem --out labelled.der --der").exit, 0);
        EXPECT_EQ(read_file(dir_ / "labelled.der"), read_file(dir_ / "crl.der"));
    }

    // Two CRLs go to PEM as two blocks, not to one DER file.
    write_text(dir_ / "two.pem",
               slurp(dir_ / "crl.pem") + relabelled(slurp(dir_ / "crl.pem"), "CRL", false));
    result = run("convert two.pem --out two.der --der");
    EXPECT_EQ(result.exit, 10);
    EXPECT_EQ(result.err, "qxcrl: converting two.pem: 29300 QXL_ERR_BAD_ARGUMENT (it holds 2 CRLs "
                          "and a DER file holds one; write PEM instead)\n");
    EXPECT_FALSE(std::filesystem::exists(dir_ / "two.der"));
    ASSERT_EQ(run("convert two.pem --out two-out.pem").exit, 0);
    EXPECT_EQ(slurp(dir_ / "two-out.pem"), slurp(dir_ / "crl.pem") + slurp(dir_ / "crl.pem"));

    result = run("convert ca.pem --out no.der --der");
    EXPECT_EQ(result.exit, 10);
    EXPECT_NE(result.err.find("ca.pem"), std::string::npos) << result.err;
    EXPECT_EQ(run("convert crl.pem --out x --der --pem").exit, 64);
}

TEST_F(CliFormatsTest, EveryCommandReadsEveryLabel) {
    const std::string primaryShow = run("show crl.pem").out;
    ASSERT_FALSE(primaryShow.empty());
    const std::string primaryHash = run("hash crl.pem").out;
    for (const char* label : {"CRL", "CERTIFICATE REVOCATION LIST", "X509CRL"}) {
        for (const bool crlf : {false, true}) {
            SCOPED_TRACE(std::string(label) + (crlf ? " CRLF" : " LF"));
            write_text(dir_ / "in.pem", relabelled(slurp(dir_ / "crl.pem"), label, crlf));
            Result result = run("show in.pem");
            EXPECT_EQ(result.exit, 0) << result.err;
            EXPECT_EQ(result.out, primaryShow);
            result = run("verify in.pem --issuer ca.pem");
            EXPECT_EQ(result.out, "ok\n") << result.err;
            result = run("status --cert l1.pem --crl in.pem --issuer ca.pem");
            EXPECT_EQ(result.out, "revoked\n") << result.err;
            result = run("hash in.pem");
            EXPECT_EQ(result.out, primaryHash) << result.err;
            result = run("store in.pem --name ca --db s.db");
            EXPECT_EQ(result.exit, 0) << result.err;
            result = run("revoke in.pem --issuer ca.pem --key ca.key --cert l2.pem --out r.pem");
            EXPECT_EQ(result.exit, 0) << result.err;
            EXPECT_NE(run("show r.pem").out.find("\n  serial 1001 revoked "), std::string::npos);
            result = run("next-update in.pem --issuer ca.pem --key ca.key --next-update 2d "
                         "--out n.pem");
            EXPECT_EQ(result.exit, 0) << result.err;
            EXPECT_EQ(run("verify n.pem --issuer ca.pem").out, "ok\n");
        }
    }
}

} // namespace
