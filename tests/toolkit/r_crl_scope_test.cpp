// The scope of a CRL with an Issuing Distribution Point: shards made by
// `openssl ca` answer for the certificates that name them and for no
// other, and the "only contains" flags keep to basicConstraints.
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

const std::string shard1 = "http://crl.qxcrl.test/shard1.crl";
const std::string shard2 = "http://crl.qxcrl.test/shard2.crl";

class ToolkitCrlScope : public ToolkitTest {
  protected:
    // What R_CRL_find_entry says of cert in crl.
    int lookup(R_CRL* crl, const X509* cert) {
        CertPtr record = this->cert(cert);
        R_CRL_ENTRY* made = nullptr;
        EXPECT_EQ(R_CRL_ENTRY_new(lib, 0, &made), R_ERROR_NONE);
        EntryPtr entry(made);
        const int status = R_CRL_find_entry(crl, record.get(), entry.get());
        EXPECT_EQ(ERR_peek_error(), 0u);
        return status;
    }

    // A leaf of the shared issuer with one distribution point of these URIs
    // (none at all when empty).
    static Cert leaf(unsigned char serial, const std::vector<std::string>& uris) {
        LeafOptions recipe;
        recipe.serial = {serial};
        if (!uris.empty())
            recipe.distributionPoints = {uris};
        return make_leaf(shared_issuer(), recipe);
    }

    // A CRL of the shared issuer with an Issuing Distribution Point of DER
    // value idp, critical or not.
    static Bytes crl_with_idp(const Bytes& idp, bool critical = true) {
        CrlOptions recipe;
        recipe.revoked = {revoked_serial({0x11}), revoked_serial({0x12})};
        recipe.extensions = {{"2.5.29.28", critical, idp}};
        return make_crl(shared_issuer(), recipe);
    }

    int decode_status(const Bytes& der) {
        R_CRL* crl = nullptr;
        const int status =
            R_CRL_from_binary(lib, 0, static_cast<uint32_t>(der.size()), der.data(), nullptr, &crl);
        R_CRL_free(crl);
        EXPECT_EQ(ERR_peek_error(), 0u);
        return status;
    }
};

// The leaf again, as version 1: no extensions, so nothing says what it is.
Cert as_version_1(const X509* leaf) {
    Cert copy(X509_dup(leaf));
    while (X509_get_ext_count(copy.get()) > 0)
        X509_EXTENSION_free(X509_delete_ext(copy.get(), 0));
    X509_set_version(copy.get(), X509_VERSION_1);
    X509_sign(copy.get(), shared_issuer().key.get(), EVP_sha256());
    return copy;
}

} // namespace

TEST_F(ToolkitCrlScope, OpensslCaShardsAnswerForTheirOwnCertificatesOnly) {
    TempDir dir1, dir2;
    const auto shard = [](const TempDir& dir, const std::string& uri, const Bytes& serial) {
        OpensslCaOptions recipe;
        recipe.revoked = {serial};
        recipe.moreCrlExtensions =
            "issuingDistributionPoint = critical, @idp\n[ idp ]\nfullname = URI:" + uri + "\n";
        return openssl_ca_crl(dir.path(), shared_issuer(), recipe);
    };
    CrlPtr first = decode(shard(dir1, shard1, {0x11}));
    CrlPtr second = decode(shard(dir2, shard2, {0x12}));
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);

    const Cert inFirst = leaf(0x11, {shard1});
    const Cert inSecond = leaf(0x12, {shard2});
    EXPECT_EQ(lookup(first.get(), inFirst.get()), R_ERROR_NONE);
    EXPECT_EQ(lookup(second.get(), inFirst.get()), R_ERROR_OUT_OF_SCOPE);
    EXPECT_EQ(lookup(second.get(), inSecond.get()), R_ERROR_NONE);
    EXPECT_EQ(lookup(first.get(), inSecond.get()), R_ERROR_OUT_OF_SCOPE);
    // Any name of the point will do; a certificate of the shard it does not
    // list is not revoked by it.
    EXPECT_EQ(lookup(first.get(), leaf(0x11, {"ldap://elsewhere/cn=x", shard1}).get()),
              R_ERROR_NONE);
    EXPECT_EQ(lookup(first.get(), leaf(0x31, {shard1}).get()), R_ERROR_NOT_FOUND);
    // Without distribution points a certificate names no shard.
    EXPECT_EQ(lookup(first.get(), leaf(0x11, {}).get()), R_ERROR_OUT_OF_SCOPE);
    EXPECT_EQ(lookup(first.get(), leaf(0x11, {shard1 + "x"}).get()), R_ERROR_OUT_OF_SCOPE);
}

TEST_F(ToolkitCrlScope, OnlyContainsFlagsFollowBasicConstraints) {
    const Cert user = leaf(0x11, {});
    const Cert ca = make_issuer(IssuerOptions{}).cert;
    const Cert old = as_version_1(user.get());
    const struct {
        const char* what;
        Bytes idp;
        bool critical;
        int user, ca, old;
    } cases[] = {
        {"only user certificates",
         {0x30, 0x03, 0x81, 0x01, 0xFF},
         true,
         R_ERROR_NONE,
         R_ERROR_OUT_OF_SCOPE,
         R_ERROR_OUT_OF_SCOPE},
        {"only CA certificates",
         {0x30, 0x03, 0x82, 0x01, 0xFF},
         true,
         R_ERROR_OUT_OF_SCOPE,
         R_ERROR_NOT_FOUND,
         R_ERROR_OUT_OF_SCOPE},
        {"only CA certificates, not marked critical",
         {0x30, 0x03, 0x82, 0x01, 0xFF},
         false,
         R_ERROR_OUT_OF_SCOPE,
         R_ERROR_NOT_FOUND,
         R_ERROR_OUT_OF_SCOPE},
        {"only some reasons",
         {0x30, 0x04, 0x83, 0x02, 0x06, 0x40},
         true,
         R_ERROR_OUT_OF_SCOPE,
         R_ERROR_OUT_OF_SCOPE,
         R_ERROR_OUT_OF_SCOPE},
        {"an indirect CRL",
         {0x30, 0x03, 0x84, 0x01, 0xFF},
         true,
         R_ERROR_OUT_OF_SCOPE,
         R_ERROR_OUT_OF_SCOPE,
         R_ERROR_OUT_OF_SCOPE},
        {"only attribute certificates",
         {0x30, 0x03, 0x85, 0x01, 0xFF},
         true,
         R_ERROR_OUT_OF_SCOPE,
         R_ERROR_OUT_OF_SCOPE,
         R_ERROR_OUT_OF_SCOPE},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        CrlPtr crl = decode(crl_with_idp(c.idp, c.critical));
        ASSERT_NE(crl, nullptr);
        EXPECT_EQ(lookup(crl.get(), user.get()), c.user);
        EXPECT_EQ(lookup(crl.get(), ca.get()), c.ca);
        EXPECT_EQ(lookup(crl.get(), old.get()), c.old);
    }
}

// An IDP that cannot be kept to, and a delta CRL however it is marked, make
// a CRL that answers for nobody: it is refused whole.
TEST_F(ToolkitCrlScope, CrlsWithoutAScopeToKeepToAreRefused) {
    EXPECT_EQ(decode_status(crl_with_idp({0x30, 0x00})), R_ERROR_UNSUPPORTED);
    EXPECT_EQ(decode_status(crl_with_idp({0x30, 0x06, 0x81, 0x01, 0xFF, 0x82, 0x01, 0xFF})),
              R_ERROR_UNSUPPORTED);
    EXPECT_EQ(decode_status(crl_with_idp({0x30, 0x03, 0x81, 0x01}, false)), R_ERROR_UNSUPPORTED);
    CrlOptions delta;
    delta.extensions = {{"2.5.29.27", false, {0x02, 0x01, 0x01}}};
    EXPECT_EQ(decode_status(make_crl(shared_issuer(), delta)), R_ERROR_UNSUPPORTED);
    EXPECT_EQ(decode_status(crl_with_idp({0x30, 0x03, 0x81, 0x01, 0xFF})), R_ERROR_NONE);

    CrlPtr full = decode(make_crl(shared_issuer(), CrlOptions{}));
    EXPECT_EQ(R_CRL_check_scope(full.get(), nullptr), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_CRL_check_scope(nullptr, cert(leaf(0x11, {}).get()).get()), R_ERROR_NULL_ARG);
}
