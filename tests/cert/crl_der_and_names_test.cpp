// The CRL's DER for writers outside the library, and the issuer names of
// CRLs and certificates that qxcrl_FileForIssuer takes.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "layer_fixture.h"
#include "test_pki.h"

using namespace qxtest;

namespace {

class CrlDerAndNamesTest : public LayerTest {};

TEST_F(CrlDerAndNamesTest, DerIsTheDecodedBytesAndNamesGiveTheSameFile) {
    const Issuer& issuer = shared_issuer();
    const Issuer& other = shared_issuer(KeyKind::Ed25519);
    const Bytes der = make_crl(issuer, {});
    CrlObject* crl = nullptr;
    ASSERT_EQ(qxcrl_CreateCtx(ctx_, &crl, der.data(), static_cast<uint32_t>(der.size())), 0u);
    const uint64_t before = qxum_live_blocks(layer());
    unsigned char* out = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(qxcrl_GetDER(ctx_, crl, &out, &length), 0u);
    EXPECT_EQ(Bytes(out, out + length), der);
    qxumfree(ctx_, &out);
    EXPECT_EQ(qxum_live_blocks(layer()), before);

    // A leaf's issuer and its CRL's issuer name the same file; another issuer does not.
    const Bytes leafDer = cert_der(make_leaf(issuer, {}).get());
    const Bytes otherDer = cert_der(other.cert.get());
    CertificateRecord* leaf = nullptr;
    CertificateRecord* stranger = nullptr;
    ASSERT_EQ(qxcert_from_bytes(ctx_, leafDer.data(), static_cast<uint32_t>(leafDer.size()), &leaf),
              0u);
    ASSERT_EQ(
        qxcert_from_bytes(ctx_, otherDer.data(), static_cast<uint32_t>(otherDer.size()), &stranger),
        0u);
    std::string files[3];
    for (int i = 0; i < 3; ++i) {
        R_CERT_NAME* name = nullptr;
        const StatusCode status = i == 0   ? qxcrl_GetIssuerName(ctx_, crl, &name)
                                  : i == 1 ? qxcrl_GetCertIssuerName(ctx_, leaf, &name)
                                           : qxcrl_GetCertIssuerName(ctx_, stranger, &name);
        ASSERT_EQ(status, 0u);
        char file[12] = {};
        ASSERT_EQ(qxcrl_FileForIssuer(ctx_, name, nullptr, file), 0u);
        files[i] = file;
        qxcrl_FreeName(&name);
        EXPECT_EQ(name, nullptr);
    }
    EXPECT_EQ(files[0], files[1]);
    EXPECT_NE(files[0], files[2]);
    EXPECT_EQ(files[0].size(), 11u);

    R_CERT_NAME* name = nullptr;
    EXPECT_EQ(qxcrl_GetDER(ctx_, nullptr, &out, &length), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_GetIssuerName(ctx_, crl, nullptr), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_GetCertIssuerName(nullptr, leaf, &name), QXERR_BAD_PARAMETER);
    qxcrl_FreeName(nullptr);
    qxcert_free(ctx_, &leaf);
    qxcert_free(ctx_, &stranger);
    qxcrl_Destroy(ctx_, &crl);
}

} // namespace
