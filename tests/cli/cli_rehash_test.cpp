// qxcrl rehash beside `openssl rehash`: the same HASH.rN links in OpenSSL's
// naming, qxcrl hash's names in the library's, and nothing changed by a
// second run but what went stale.
#include <filesystem>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "cli_ca.h"
#include "files.h"

using namespace qxtest;

namespace {

// The symbolic links of dir named like HASH.rN, with their targets.
std::map<std::string, std::string> crl_links(const std::filesystem::path& dir) {
    std::map<std::string, std::string> links;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        if (entry.is_symlink() && name.size() > 10 && name.compare(8, 2, ".r") == 0)
            links[name] = std::filesystem::read_symlink(entry.path()).string();
    }
    return links;
}

class CliRehashTest : public CliCaTest {
  protected:
    // In crls/: two CRLs of the CA, one of them twice, a delta CRL, a GnuTLS
    // CRL of another issuer, a certificate and a text file.
    void SetUp() override {
        CliCaTest::SetUp();
        write_text(dir_ / "gca.tmpl", "cn = \"GnuTLS CA\"\nca\ncrl_signing_key\n");
        write_text(dir_ / "crl.tmpl", "crl_next_update = 7\ncrl_number = 5\n");
        shell("mkdir crls && openssl ca -config ca.cnf -revoke l1.pem && "
              "openssl ca -config ca.cnf -gencrl -out crls/first.pem && "
              "openssl ca -config ca.cnf -gencrl -crlexts crl_ext -out second.pem && "
              "openssl crl -in second.pem -outform DER -out crls/second.der && "
              "cp crls/first.pem crls/copy.pem && "
              "openssl ca -config ca.cnf -gencrl -crlexts delta_ext -out crls/delta.pem && "
              "certtool --generate-privkey --outfile gca.key && "
              "certtool --generate-self-signed --load-privkey gca.key --template gca.tmpl "
              "--outfile gca.pem && "
              "certtool --generate-crl --load-ca-privkey gca.key --load-ca-certificate gca.pem "
              "--template crl.tmpl --outfile crls/gnutls.crl && "
              "cp ca.pem crls/ca.pem && echo notes > crls/notes.txt");
    }
};

TEST_F(CliRehashTest, OpensslNamingLinksAsOpensslRehash) {
    shell("cp -r crls theirs && openssl rehash theirs");
    Result result = run("rehash crls --openssl");
    ASSERT_EQ(result.exit, 0) << result.err;
    EXPECT_EQ(result.out, "");
    // copy.pem (first.pem is the same CRL) and delta.pem under the CA's hash,
    // gnutls.crl under its own; and second.der, which openssl rehash leaves
    // alone for being DER, third under the CA's.
    std::map<std::string, std::string> expected = crl_links(dir_ / "theirs");
    ASSERT_EQ(expected.size(), 3u);
    const std::string ca = output_of("openssl crl -in crls/first.pem -noout -hash").substr(0, 8);
    EXPECT_EQ(expected.at(ca + ".r0"), "copy.pem");
    expected[ca + ".r2"] = "second.der";
    EXPECT_EQ(crl_links(dir_ / "crls"), expected);
}

TEST_F(CliRehashTest, LibraryNamingLinksAsQxcrlHashNames) {
    Result result = run("rehash crls --verbose");
    ASSERT_EQ(result.exit, 0) << result.err;
    // The library refuses the delta CRL: not linked, and said so.
    EXPECT_EQ(result.err, "qxcrl: note: crls/delta.pem is not linked: the library does not take "
                          "it\n");
    const std::string ca = run("hash crls/first.pem").out.substr(0, 8);
    const std::string gnutls = run("hash crls/gnutls.crl").out.substr(0, 8);
    ASSERT_EQ(ca.size(), 8u);
    ASSERT_NE(ca, gnutls);
    // Files are taken in name order: copy.pem before first.pem.
    const std::map<std::string, std::string> expected = {
        {ca + ".r0", "copy.pem"}, {ca + ".r1", "second.der"}, {gnutls + ".r0", "gnutls.crl"}};
    EXPECT_EQ(crl_links(dir_ / "crls"), expected);
    EXPECT_EQ(result.out, ca + ".r0 -> copy.pem\n" + ca + ".r1 -> second.der\n" + gnutls +
                              ".r0 -> gnutls.crl\n");
}

TEST_F(CliRehashTest, AgainChangesNothingButWhatWentStale) {
    ASSERT_EQ(run("rehash crls").exit, 0);
    const std::map<std::string, std::string> before = crl_links(dir_ / "crls");
    ASSERT_EQ(before.size(), 3u);
    Result result = run("rehash crls --verbose");
    ASSERT_EQ(result.exit, 0) << result.err;
    EXPECT_EQ(result.out, ""); // nothing to link
    EXPECT_EQ(crl_links(dir_ / "crls"), before);

    // A stale link, a link of another name and a certificate link stay or go as they should.
    shell("cd crls && ln -s gone.pem deadbeef.r0 && ln -s first.pem latest.pem && "
          "ln -s ca.pem 0badf00d.0 && rm copy.pem second.der");
    ASSERT_EQ(run("rehash crls").exit, 0);
    const std::string ca = run("hash crls/first.pem").out.substr(0, 8);
    const std::string gnutls = run("hash crls/gnutls.crl").out.substr(0, 8);
    const std::map<std::string, std::string> expected = {{ca + ".r0", "first.pem"},
                                                         {gnutls + ".r0", "gnutls.crl"}};
    EXPECT_EQ(crl_links(dir_ / "crls"), expected);
    EXPECT_TRUE(std::filesystem::is_symlink(dir_ / "crls" / "latest.pem"));
    EXPECT_TRUE(std::filesystem::is_symlink(dir_ / "crls" / "0badf00d.0"));
    EXPECT_TRUE(std::filesystem::exists(dir_ / "crls" / "notes.txt"));

    result = run("rehash nowhere");
    EXPECT_EQ(result.exit, 10);
    EXPECT_EQ(result.err.rfind("qxcrl: reading the directory nowhere: 29390 QXL_ERR_FILE (", 0), 0u)
        << result.err;
}

} // namespace
