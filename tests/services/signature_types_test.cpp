// The layer's signature types both ways, checked against the signatures of
// real certificates and OpenSSL's own names for the algorithms.
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/objects.h>

#include "qxlayer.h"
#include "test_pki.h"
#include "toolkit/r_toolkit.h"

using namespace qxtest;

namespace {

struct Row {
    uint32_t type;
    uint32_t algorithm;
    const char* opensslName; // OpenSSL's short name of the signature algorithm
};

// The layer's numbering of signature types.
const std::vector<Row> rows = {
    {2, R_SIG_ALG_MD5_WITH_RSA, "RSA-MD5"},
    {1, R_SIG_ALG_SHA1_WITH_RSA, "RSA-SHA1"},
    {6, R_SIG_ALG_SHA256_WITH_RSA, "RSA-SHA256"},
    {7, R_SIG_ALG_SHA384_WITH_RSA, "RSA-SHA384"},
    {8, R_SIG_ALG_SHA512_WITH_RSA, "RSA-SHA512"},
    {9, R_SIG_ALG_ECDSA_SHA256, "ecdsa-with-SHA256"},
    {10, R_SIG_ALG_ECDSA_SHA384, "ecdsa-with-SHA384"},
    {11, R_SIG_ALG_ECDSA_SHA512, "ecdsa-with-SHA512"},
    {12, R_SIG_ALG_ED25519, "ED25519"},
    {13, R_SIG_ALG_ED448, "ED448"},
    {14, R_SIG_ALG_RSA_PSS_SHA256, "SHA256"},
    {15, R_SIG_ALG_RSA_PSS_SHA384, "SHA384"},
    {16, R_SIG_ALG_RSA_PSS_SHA512, "SHA512"},
};

} // namespace

TEST(SignatureTypes, MapBothWays) {
    for (const Row& row : rows) {
        SCOPED_TRACE("type " + std::to_string(row.type));
        // The toolkit's identifiers are OpenSSL's NIDs (PSS: its hash's NID on a base).
        const uint32_t nid = row.algorithm >= R_SIG_ALG_RSA_PSS_BASE
                                 ? row.algorithm - R_SIG_ALG_RSA_PSS_BASE
                                 : row.algorithm;
        EXPECT_STREQ(OBJ_nid2sn(static_cast<int>(nid)), row.opensslName);

        uint32_t type = 0xdead;
        EXPECT_EQ(qxbc_map_sign2(row.algorithm, &type), 0u);
        EXPECT_EQ(type, row.type);

        uint32_t algorithm = 0xdead;
        if (row.type == QX_SIG_RSA_MD5) {
            // MD5 is read, never signed with.
            EXPECT_EQ(qxbc_map_sign(row.type, &algorithm), QXL_ERR_SIGNATURE_TYPE);
            EXPECT_EQ(algorithm, 0xdeadu);
        } else {
            EXPECT_EQ(qxbc_map_sign(row.type, &algorithm), 0u);
            EXPECT_EQ(algorithm, row.algorithm);
        }
    }
    // The fixed-type entry points sign with type 6.
    EXPECT_EQ(QX_SIG_RSA_SHA256, 6u);

    for (uint32_t unknown : {0u, 3u, 4u, 5u, 17u, 100u, 0xffffffffu}) {
        uint32_t algorithm = 0xdead;
        EXPECT_EQ(qxbc_map_sign(unknown, &algorithm), QXL_ERR_SIGNATURE_TYPE) << unknown;
        EXPECT_EQ(algorithm, 0xdeadu);
    }
    for (uint32_t unknown : {0u, 6u, 672u /* SHA-256 alone */, 912u /* PSS without a hash */,
                             R_SIG_ALG_RSA_PSS_BASE, R_SIG_ALG_RSA_PSS_BASE + 64u, 0xffffffffu}) {
        uint32_t type = 0xdead;
        EXPECT_EQ(qxbc_map_sign2(unknown, &type), QXL_ERR_SIGNATURE_TYPE) << unknown;
        EXPECT_EQ(type, 0xdeadu);
    }
    EXPECT_EQ(qxbc_map_sign(6, nullptr), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxbc_map_sign2(R_SIG_ALG_ED25519, nullptr), QXL_ERR_BAD_ARGUMENT);
}

// The algorithm on a certificate the test PKI signed reads back as its type.
TEST(SignatureTypes, ReadsRealSignatures) {
    const std::vector<std::pair<KeyKind, uint32_t>> kinds = {
        {KeyKind::Rsa2048, QX_SIG_RSA_SHA256},
        {KeyKind::EcP256, QX_SIG_ECDSA_SHA256},
        {KeyKind::Ed25519, QX_SIG_ED25519},
    };
    for (const auto& [kind, expected] : kinds) {
        const int nid = X509_get_signature_nid(shared_issuer(kind).cert.get());
        uint32_t type = 0;
        EXPECT_EQ(qxbc_map_sign2(static_cast<uint32_t>(nid), &type), 0u);
        EXPECT_EQ(type, expected);
    }
}
