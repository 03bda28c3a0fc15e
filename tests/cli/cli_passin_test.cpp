// The passphrase of an encrypted issuer key from wherever --passin says, as
// `openssl -passin` takes it: never needed on the command line.
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "cli_ca.h"
#include "files.h"

using namespace qxtest;

namespace {

class CliPassinTest : public CliCaTest {
  protected:
    void SetUp() override {
        CliCaTest::SetUp();
        shell("openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -aes256 "
              "-pass pass:s3cret -out enc.key && "
              "openssl req -x509 -key enc.key -passin pass:s3cret -out enc.pem -days 30 "
              "-subj '/CN=qxcrl encrypted CA'");
        write_text(dir_ / "pass.txt", "s3cret\nsecond line\n");
        write_text(dir_ / "wrong.txt", "wrong\n");
    }
    Result create(const std::string& passin) {
        return run("create --issuer enc.pem --key enc.key --next-update 1d --out enc.crl " +
                   passin);
    }
};

TEST_F(CliPassinTest, ReadsThePassphraseFromEverySource) {
    ASSERT_EQ(setenv("QXCRL_TEST_PASSPHRASE", "s3cret", 1), 0);
    for (const char* passin :
         {"--passin pass:s3cret", "--passin env:QXCRL_TEST_PASSPHRASE", "--passin file:pass.txt",
          "--passin fd:3 3< pass.txt", "--passin stdin < pass.txt", "--pass s3cret"}) {
        SCOPED_TRACE(passin);
        std::filesystem::remove(dir_ / "enc.crl");
        const Result result = create(passin);
        EXPECT_EQ(result.exit, 0) << result.err;
        EXPECT_TRUE(openssl_crl_verifies(dir_.path(), "enc.crl", "enc.pem"));
    }
    // revoke and next-update read it the same way.
    EXPECT_EQ(run("revoke enc.crl --issuer enc.pem --key enc.key --cert l1.pem --passin "
                  "file:pass.txt")
                  .exit,
              0);
    EXPECT_EQ(run("next-update enc.crl --issuer enc.pem --key enc.key --next-update 2d "
                  "--passin env:QXCRL_TEST_PASSPHRASE")
                  .exit,
              0);
    unsetenv("QXCRL_TEST_PASSPHRASE");
}

TEST_F(CliPassinTest, SaysWhatWentWrong) {
    unsetenv("QXCRL_TEST_PASSPHRASE");
    Result result = create("--passin env:QXCRL_TEST_PASSPHRASE");
    EXPECT_EQ(result.exit, 10);
    EXPECT_EQ(result.err, "qxcrl: reading the passphrase from the environment: 29340 QXL_ERR_KEY "
                          "(no variable QXCRL_TEST_PASSPHRASE)\n");
    result = create("--passin file:nowhere.txt");
    EXPECT_EQ(result.exit, 10);
    EXPECT_EQ(result.err, "qxcrl: reading the passphrase from nowhere.txt: 29390 QXL_ERR_FILE (no "
                          "such file)\n");
    result = create("--passin file:wrong.txt");
    EXPECT_EQ(result.exit, 10);
    EXPECT_EQ(result.err, "qxcrl: loading enc.key: 29340 QXL_ERR_KEY (not a private key, or not "
                          "under this passphrase)\n");
    EXPECT_FALSE(std::filesystem::exists(dir_ / "enc.crl"));
    for (const char* bad : {"--passin s3cret", "--passin env:", "--passin fd:x",
                            "--passin pass:s3cret --pass s3cret"}) {
        SCOPED_TRACE(bad);
        result = create(bad);
        EXPECT_EQ(result.exit, 64);
        EXPECT_NE(result.err.find("--pass"), std::string::npos) << result.err;
    }
}

} // namespace
