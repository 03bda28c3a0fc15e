// A layer instance judging at a time of its own: what it reads as now, while
// other instances and the process's clock go on.
#include <cstdint>
#include <ctime>

#include <gtest/gtest.h>

#include "layer_fixture.h"
#include "test_pki.h"

using namespace qxtest;

namespace {

using LayerTimeTest = LayerTest;

constexpr int64_t then = 1740441600; // 2025-02-25T00:00:00Z

TEST_F(LayerTimeTest, OneInstanceJudgesAtItsTimeOthersAtTheClock) {
    SecurityContext* other = make_layer(0);
    SecurityContext* isolated = make_layer(1);
    ASSERT_EQ(qxlayer_set_time(ctx_, &then), 0u);
    ASSERT_EQ(qxlayer_set_time(isolated, &then), 0u);
    for (SecurityContext* ctx : {ctx_, isolated}) {
        EXPECT_EQ(qxtCheckValidity_ext(ctx, then, then), 0u);
        EXPECT_EQ(qxtCheckValidity_ext(ctx, then + 1, then + 2), QXL_ERR_CERT_NOT_YET_VALID);
    }
    EXPECT_EQ(qxtCheckValidity_ext(other, then, then), QXL_ERR_CERT_EXPIRED);

    // A CRL current at the time and long expired by the clock.
    CrlOptions recipe;
    recipe.thisUpdate = then - 86400;
    recipe.nextUpdate = then + 86400;
    const Bytes der = make_crl(shared_issuer(), recipe);
    for (SecurityContext* ctx : {ctx_, other}) {
        CrlObject* crl = nullptr;
        ASSERT_EQ(qxcrl_CreateCtx(ctx, &crl, der.data(), static_cast<uint32_t>(der.size())), 0u);
        CrlValidity validity = 0;
        EXPECT_EQ(qxcrl_Verify(ctx, crl, nullptr, &validity), ctx == ctx_ ? 0u : QXERR_CRL_EXPIRED);
        qxcrl_Destroy(ctx, &crl);
    }

    // Back to the clock.
    ASSERT_EQ(qxlayer_set_time(ctx_, nullptr), 0u);
    EXPECT_EQ(qxtCheckValidity_ext(ctx_, then, then), QXL_ERR_CERT_EXPIRED);
    EXPECT_EQ(qxtCheckValidity_ext(ctx_, 0, INT64_MAX), 0u);
    EXPECT_EQ(qxlayer_set_time(nullptr, &then), QXL_ERR_BAD_ARGUMENT);
}

} // namespace
