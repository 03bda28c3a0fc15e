// Issuer-hash file names against `openssl crl -hash_old` for issuers of many
// kinds of name, and the operation's failures.
#include <cstring>
#include <fstream>
#include <regex>

#include <gtest/gtest.h>
#include <openssl/asn1.h>

#include "files.h"
#include "layer_fixture.h"
#include "test_pki.h"
#include "toolkit/r_toolkit.h"

using namespace qxtest;

namespace {

class IssuerFileNameTest : public LayerTest {
  protected:
    // The CRL's issuer as a toolkit name made in the layer's certificate context.
    R_CERT_NAME* issuer_of(const Bytes& crlDer) {
        R_CRL* crl = nullptr;
        EXPECT_EQ(R_CRL_from_binary(ctx_->layerContext->toolkitContexts[2], 0,
                                    static_cast<uint32_t>(crlDer.size()), crlDer.data(), nullptr,
                                    &crl),
                  R_ERROR_NONE);
        R_ITEM der{};
        EXPECT_EQ(R_CRL_get_info(crl, R_CRL_INFO_ISSUER_NAME, &der), R_ERROR_NONE);
        R_CERT_CTX* certCtx = nullptr;
        EXPECT_EQ(qxGCC_GetCertcCtx(ctx_, &certCtx), 0u);
        uint32_t consumed = 0;
        R_CERT_NAME* name = nullptr;
        EXPECT_EQ(R_CERT_NAME_from_binary(certCtx, 0, der.len, der.data, &consumed, &name),
                  R_ERROR_NONE);
        R_CRL_free(crl);
        return name;
    }
};

NameAttribute utf8(const std::string& type, const std::string& value) {
    return {type, value, MBSTRING_UTF8};
}

} // namespace

TEST_F(IssuerFileNameTest, MatchesOpensslOldHashForManyNames) {
    // Attributes are capped at 64 characters; length comes from many of them.
    const std::string longValue(64, 'L');
    const std::vector<NameRecipe> names = {
        {{utf8("CN", "Simple CA")}},
        {{utf8("C", "US")}, {utf8("O", "qxcrl tests")}, {utf8("CN", "Three RDNs")}},
        {{utf8("CN", "Zoë Çağrı 日本語 CA")}},
        {{utf8("O", "Org")}, {utf8("OU", "Multi"), utf8("CN", "Valued")}},
        {{utf8("CN", "a"), utf8("CN", "b"), utf8("OU", "c")}},
        {{utf8("CN", longValue)},
         {utf8("OU", longValue)},
         {utf8("OU", longValue)},
         {utf8("OU", longValue)},
         {utf8("OU", longValue)},
         {utf8("OU", longValue)},
         {utf8("OU", longValue)},
         {utf8("OU", longValue)},
         {utf8("O", longValue)}},
        {{utf8("CN", "Comma, Plus+ Quote\" Back\\slash <Less> Semi; Eq=")}},
        {{utf8("CN", " leading and trailing ")}},
        {{utf8("CN", "#hash first")}},
        {{utf8("DC", "example")}, {utf8("DC", "org")}, {utf8("CN", "Domain Components")}},
        {{utf8("emailAddress", "ca@example.org")}, {utf8("CN", "Mail CA")}},
        {{utf8("serialNumber", "12345")}, {utf8("title", "Root")}, {utf8("CN", "Attrs")}},
        {{utf8("L", "Zürich")}, {utf8("ST", "ZH")}, {utf8("C", "CH")}, {utf8("CN", "Loc")}},
        {{{"CN", "Same Text", V_ASN1_PRINTABLESTRING}}},
        {{{"CN", "Same Text", V_ASN1_UTF8STRING}}},
        {{{"CN", "Same Text", V_ASN1_IA5STRING}}},
        {{utf8("CN", "Case")}},
        {{utf8("CN", "case")}},
        {{utf8("OU", "1")},
         {utf8("OU", "2")},
         {utf8("OU", "3")},
         {utf8("OU", "4")},
         {utf8("OU", "5")},
         {utf8("OU", "6")},
         {utf8("OU", "7")},
         {utf8("CN", "Deep")}},
        {{utf8("givenName", "Ada"), utf8("surname", "Lovelace")}, {utf8("CN", "Person CA")}},
        {{utf8("CN", "Ελληνικά и кириллица")}},
        {{utf8("CN", "Tab\there")}},
    };
    TempDir dir;
    std::vector<std::string> ours;
    for (size_t i = 0; i < names.size(); ++i) {
        IssuerOptions options;
        options.subject = names[i];
        const Issuer issuer = make_issuer(options);
        const Bytes der = make_crl(issuer, CrlOptions{});
        // Zero-padded so that the shell lists them in this order.
        std::string label = std::to_string(i);
        label = std::string(3 - label.size(), '0') + label + ".der";
        write_file(dir / label, der);

        R_CERT_NAME* name = issuer_of(der);
        char fileName[16];
        std::memset(fileName, 'x', sizeof fileName);
        ASSERT_EQ(qxcrl_FileForIssuer(ctx_, name, nullptr, fileName), 0u);
        EXPECT_EQ(fileName[12], 'x'); // exactly 12 bytes written
        char again[12];
        int unused = 42;
        ASSERT_EQ(qxcrl_FileForIssuer(ctx_, name, &unused, again), 0u);
        EXPECT_STREQ(again, fileName);
        R_CERT_NAME_free(name);
        ours.push_back(fileName);
    }
    ASSERT_EQ(run_in(dir.path(), "for f in *.der; do openssl crl -inform DER -in $f -noout "
                                 "-hash_old; done > hashes.txt"),
              0);
    std::ifstream hashes(dir / "hashes.txt");
    const std::regex form("[0-9a-f]{8}\\.rN");
    for (size_t i = 0; i < ours.size(); ++i) {
        std::string hash;
        ASSERT_TRUE(std::getline(hashes, hash)) << i;
        EXPECT_EQ(ours[i], hash + ".rN") << "name " << i;
        EXPECT_TRUE(std::regex_match(ours[i], form)) << ours[i];
    }
    // Names that print alike but differ in their bytes get their own files.
    EXPECT_NE(ours[13], ours[14]);
    EXPECT_NE(ours[14], ours[15]);
    EXPECT_NE(ours[16], ours[17]);
}

TEST_F(IssuerFileNameTest, FailuresLeaveTheBufferAlone) {
    R_CERT_NAME* name = issuer_of(make_crl(shared_issuer(), CrlOptions{}));
    char fileName[12];
    std::memset(fileName, 'x', sizeof fileName);
    trace_.clear();
    EXPECT_EQ(qxcrl_FileForIssuer(nullptr, name, nullptr, fileName), QXERR_BAD_PARAMETER);
    ASSERT_EQ(trace_.entries().size(), 1u);
    EXPECT_EQ(trace_.entries()[0].kind, QX_TRACE_EXIT);
    EXPECT_EQ(trace_.entries()[0].function, "qxcrlFFI_FileForIssuer");
    EXPECT_EQ(trace_.entries()[0].context, nullptr);

    trace_.clear();
    EXPECT_EQ(qxcrl_FileForIssuer(ctx_, nullptr, nullptr, fileName), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_FileForIssuer(ctx_, name, nullptr, nullptr), QXERR_BAD_PARAMETER);
    EXPECT_EQ(trace_.count(QX_TRACE_ENTRY, "qxcrlFFI_FileForIssuer"), 2u);
    EXPECT_EQ(trace_.count(QX_TRACE_EXIT, "qxcrlFFI_FileForIssuer"), 2u);
    EXPECT_EQ(trace_.messages().size(), 0u);

    sweep_allocations([&] { return qxcrl_FileForIssuer(ctx_, name, nullptr, fileName); },
                      [&](StatusCode status, bool injected) {
                          EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : 0u);
                          EXPECT_EQ(fileName[0] == 'x', injected);
                      });
    R_CERT_NAME_free(name);
}
