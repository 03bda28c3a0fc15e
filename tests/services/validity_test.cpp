// The validity check against the toolkit's clock held still: both ends of
// the period are inside it, one second out either way is not.
#include <cstdint>
#include <ctime>
#include <limits>

#include <gtest/gtest.h>

#include "fixed_clock.h"
#include "layer_fixture.h"

using namespace qxtest;

namespace {

using ValidityTest = LayerTest;

constexpr int64_t now = 1767225600; // 2026-01-01T00:00:00Z

} // namespace

TEST_F(ValidityTest, BothEndsOfThePeriodAreValid) {
    const FixedClock clock(now);
    SecurityContext* isolated = make_layer(1);
    for (SecurityContext* ctx : {ctx_, isolated}) {
        SCOPED_TRACE(ctx == ctx_ ? "toolkit mode 0" : "toolkit mode 1");
        EXPECT_EQ(qxtCheckValidity_ext(ctx, now - 86400, now + 86400), 0u);
        EXPECT_EQ(qxtCheckValidity_ext(ctx, now, now + 86400), 0u);
        EXPECT_EQ(qxtCheckValidity_ext(ctx, now - 86400, now), 0u);
        EXPECT_EQ(qxtCheckValidity_ext(ctx, now, now), 0u);
        EXPECT_EQ(qxtCheckValidity_ext(ctx, now + 1, now + 86400), QXL_ERR_CERT_NOT_YET_VALID);
        EXPECT_EQ(qxtCheckValidity_ext(ctx, now - 86400, now - 1), QXL_ERR_CERT_EXPIRED);
        // Before 1970 and the end of time are ordinary dates.
        EXPECT_EQ(qxtCheckValidity_ext(ctx, -86400, std::numeric_limits<int64_t>::max()), 0u);
        EXPECT_EQ(qxtCheckValidity_ext(ctx, std::numeric_limits<int64_t>::min(), -1),
                  QXL_ERR_CERT_EXPIRED);
        // A period that ends before it starts is never valid; it has not begun.
        EXPECT_EQ(qxtCheckValidity_ext(ctx, now + 1, now - 1), QXL_ERR_CERT_NOT_YET_VALID);
    }
}

TEST_F(ValidityTest, FollowsTheToolkitsClock) {
    {
        const FixedClock later(now + 2 * 86400);
        EXPECT_EQ(qxtCheckValidity_ext(ctx_, now - 86400, now + 86400), QXL_ERR_CERT_EXPIRED);
    }
    {
        const FixedClock earlier(now - 2 * 86400);
        EXPECT_EQ(qxtCheckValidity_ext(ctx_, now - 86400, now + 86400), QXL_ERR_CERT_NOT_YET_VALID);
    }
    // The system clock again.
    const int64_t system = std::time(nullptr);
    EXPECT_EQ(qxtCheckValidity_ext(ctx_, system - 3600, system + 3600), 0u);
    EXPECT_EQ(qxtCheckValidity_ext(ctx_, system + 3600, system + 7200), QXL_ERR_CERT_NOT_YET_VALID);
}

TEST_F(ValidityTest, RefusesWhatItCannotJudge) {
    EXPECT_EQ(qxtCheckValidity_ext(nullptr, 0, now), QXL_ERR_BAD_ARGUMENT);
    SecurityContext bare{};
    EXPECT_EQ(qxtCheckValidity_ext(&bare, 0, now), QXL_ERR_BAD_ARGUMENT);
    // The toolkit does not give out a time before 1970 as seconds.
    const FixedClock before(-5);
    EXPECT_EQ(qxtCheckValidity_ext(ctx_, -10, 0), QXL_ERR_TOOLKIT);
}
