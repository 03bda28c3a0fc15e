// Digests against `openssl dgst` over the same bytes, in both library
// contexts a layer uses, and the toolkit function underneath.
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "files.h"
#include "layer_fixture.h"
#include "test_pki.h"
#include "toolkit/r_toolkit.h"

using namespace qxtest;

namespace {

struct Algorithm {
    uint32_t id;
    const char* dgstOption;
    uint32_t length;
};

const Algorithm algorithms[] = {
    {QX_DIGEST_MD5, "-md5", 16},
    {QX_DIGEST_SHA1, "-sha1", 20},
    {QX_DIGEST_SHA256, "-sha256", 32},
};

std::vector<Bytes> samples() {
    std::mt19937 generator(11);
    Bytes large(100000);
    for (unsigned char& byte : large)
        byte = static_cast<unsigned char>(generator());
    return {Bytes{}, Bytes{'a', 'b', 'c'}, large};
}

using DigestTest = LayerTest;

TEST_F(DigestTest, MatchesOpensslInBothToolkitModes) {
    TempDir dir;
    SecurityContext* isolated = make_layer(1);
    int sample = 0;
    for (const Bytes& data : samples()) {
        const std::string input = "data" + std::to_string(sample++) + ".bin";
        write_file(dir / input, data);
        for (const Algorithm& algorithm : algorithms) {
            SCOPED_TRACE(input + " " + algorithm.dgstOption);
            ASSERT_EQ(run_in(dir.path(), std::string("openssl dgst ") + algorithm.dgstOption +
                                             " -binary -out expected.bin " + input),
                      0);
            const Bytes expected = read_file(dir / "expected.bin");
            ASSERT_EQ(expected.size(), algorithm.length);
            for (SecurityContext* ctx : {ctx_, isolated}) {
                unsigned char digest[64] = {};
                uint32_t length = sizeof digest;
                ASSERT_EQ(qxty_digest(ctx, algorithm.id, data.empty() ? nullptr : data.data(),
                                      static_cast<uint32_t>(data.size()), digest, &length),
                          0u);
                EXPECT_EQ(Bytes(digest, digest + length), expected);
            }
        }
    }
}

TEST_F(DigestTest, RefusesUnknownAlgorithmsSmallBuffersAndBadArguments) {
    const unsigned char data[] = {'a', 'b', 'c'};
    unsigned char digest[32] = {};
    uint32_t length = sizeof digest;
    // The toolkit's own numbers are not the layer's.
    for (const uint32_t unknown : {0u, 1u, 2u, 3u, 9u, 13u, 0xFFFFFFFFu}) {
        EXPECT_EQ(qxty_digest(ctx_, unknown, data, 3, digest, &length), QXL_ERR_DIGEST) << unknown;
        EXPECT_EQ(length, sizeof digest);
    }

    for (const Algorithm& algorithm : algorithms) {
        length = algorithm.length - 1;
        EXPECT_EQ(qxty_digest(ctx_, algorithm.id, data, 3, digest, &length), QXL_ERR_DIGEST);
        EXPECT_EQ(length, algorithm.length - 1);
        length = algorithm.length;
        EXPECT_EQ(qxty_digest(ctx_, algorithm.id, data, 3, digest, &length), 0u);
        EXPECT_EQ(length, algorithm.length);
    }

    length = sizeof digest;
    EXPECT_EQ(qxty_digest(nullptr, QX_DIGEST_MD5, data, 3, digest, &length), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxty_digest(ctx_, QX_DIGEST_MD5, nullptr, 3, digest, &length), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxty_digest(ctx_, QX_DIGEST_MD5, data, 3, nullptr, &length), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxty_digest(ctx_, QX_DIGEST_MD5, data, 3, digest, nullptr), QXL_ERR_BAD_ARGUMENT);
    SecurityContext bare{};
    EXPECT_EQ(qxty_digest(&bare, QX_DIGEST_MD5, data, 3, digest, &length), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxum_allocation_count(layer()), 0u);
}

TEST(ToolkitDigest, ReportsTheLengthItNeeds) {
    R_LIB_CTX* lib = nullptr;
    ASSERT_EQ(R_LIB_CTX_new(R_LIB_CTX_ISOLATED, &lib), R_ERROR_NONE);
    const unsigned char data[] = {'a', 'b', 'c'};
    unsigned char digest[32] = {};
    uint32_t length = 19;
    EXPECT_EQ(R_digest(lib, R_DIGEST_SHA1, data, 3, digest, &length), R_ERROR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 20u);
    EXPECT_EQ(R_digest(lib, R_DIGEST_SHA1, data, 3, digest, &length), R_ERROR_NONE);
    EXPECT_EQ(length, 20u);
    EXPECT_EQ(R_digest(lib, 0, data, 3, digest, &length), R_ERROR_FAILED);
    EXPECT_EQ(R_digest(nullptr, R_DIGEST_SHA1, data, 3, digest, &length), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_digest(lib, R_DIGEST_SHA1, nullptr, 3, digest, &length), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_digest(lib, R_DIGEST_SHA1, nullptr, 0, digest, &length), R_ERROR_NONE);
    R_LIB_CTX_free(lib);
}

} // namespace
