// A CA kept by `openssl ca` in a scratch directory, for tests that compare
// the qxcrl command with OpenSSL and GnuTLS on the same CRLs.
#ifndef QXCRL_TESTS_CLI_CLI_CA_H
#define QXCRL_TESTS_CLI_CLI_CA_H

#include <string>

#include <gtest/gtest.h>

#include "cli_run.h"
#include "files.h"

namespace qxtest {

// An `openssl ca` configuration for a CA in the current directory (ca.pem,
// ca.key, index.txt, serial, crlnumber, newcerts), with sections appended.
inline std::string openssl_ca_config(const std::string& sections) {
    return "[ ca ]\ndefault_ca = test_ca\n"
           "[ test_ca ]\ndir = .\ndatabase = ./index.txt\n"
           "new_certs_dir = ./newcerts\ncertificate = ./ca.pem\n"
           "private_key = ./ca.key\nserial = ./serial\n"
           "crlnumber = ./crlnumber\ndefault_md = sha256\nunique_subject = no\n"
           "default_crl_days = 7\npolicy = policy_any\n"
           "[ policy_any ]\ncommonName = supplied\n" +
           sections;
}

// The CA's key is P-256 (ca.key, ca.pem); leaves l1.pem to l3.pem have
// serials 1000 to 1002. CRL extension sections of ca.cnf: crl_ext (AKI, an
// Issuing Distribution Point and a Freshest CRL), crit_ext (an unknown
// critical extension) and delta_ext (a Delta CRL Indicator of base 41).
class CliCaTest : public ::testing::Test {
  protected:
    void SetUp() override {
        write_text(dir_ / "ca.cnf",
                   openssl_ca_config("[ crl_ext ]\nauthorityKeyIdentifier = keyid:always\n"
                                     "issuingDistributionPoint = @idp\n"
                                     "freshestCRL = URI:http://crl.qxcrl.test/delta.crl\n"
                                     "[ idp ]\nfullname = URI:http://crl.qxcrl.test/full.crl\n"
                                     "[ crit_ext ]\nauthorityKeyIdentifier = keyid:always\n"
                                     "1.3.6.1.4.1.99999.1 = critical,ASN1:UTF8String:hello\n"
                                     "[ delta_ext ]\nauthorityKeyIdentifier = keyid:always\n"
                                     "2.5.29.27 = critical,DER:02:01:29\n"));
        const std::string ec = "-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes";
        ASSERT_EQ(run_in(dir_.path(),
                         "mkdir newcerts && touch index.txt && echo 2a > crlnumber && "
                         "echo 1000 > serial && openssl req -x509 " +
                             ec +
                             " -keyout ca.key -out ca.pem -days 30 -subj '/CN=qxcrl CLI CA' && "
                             "openssl req -new " +
                             ec +
                             " -keyout leaf.key -out leaf.csr -subj /CN=leaf && "
                             "for n in 1 2 3; do openssl ca -batch -config ca.cnf -in leaf.csr "
                             "-out l$n.pem -days 7 || exit 1; done"),
                  0)
            << "see " << (dir_ / "log.txt");
    }

    // Runs a shell command in the directory and asserts that it worked.
    void shell(const std::string& command) {
        ASSERT_EQ(run_in(dir_.path(), command), 0) << command << "; see " << (dir_ / "log.txt");
    }

    // What a shell command prints on its standard output.
    std::string output_of(const std::string& command) {
        shell(command + " > shell.out");
        return slurp(dir_ / "shell.out");
    }

    Result run(const std::string& arguments) { return qxcrl(dir_.path(), arguments); }

    TempDir dir_;
};

// The rest of the line after the first occurrence of prefix in text, without
// trailing blanks; empty with a test failure when there is none.
inline std::string after(const std::string& text, const std::string& prefix) {
    const size_t at = text.find(prefix);
    if (at == std::string::npos) {
        ADD_FAILURE() << "no \"" << prefix << "\" in:\n" << text;
        return "";
    }
    const size_t start = at + prefix.size();
    std::string rest = text.substr(start, text.find('\n', start) - start);
    while (!rest.empty() && (rest.back() == ' ' || rest.back() == '\t' || rest.back() == '\r'))
        rest.pop_back();
    return rest;
}

} // namespace qxtest

#endif
