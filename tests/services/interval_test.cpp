// Length-counted texts and the durations the layer reads from them: every
// accepted form with its exact value, the refusals (overflow at 2^63-1
// included), and allocation failures of the text copy.
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "layer_fixture.h"

using namespace qxtest;

namespace {

constexpr uint64_t max_seconds = INT64_MAX;
constexpr uint64_t week = 7 * 86400;

QxString view(const std::string& text) {
    return QxString{const_cast<char*>(text.data()), static_cast<uint32_t>(text.size())};
}

using IntervalTest = LayerTest;

} // namespace

TEST_F(IntervalTest, CopiesTextsWithTheirLength) {
    EXPECT_STREQ(QX_STR_CURTIME, "now");

    QxString string{};
    ASSERT_EQ(qxstr_alloc(ctx_, &string, "7d12h and more", 5), 0u);
    EXPECT_EQ(string.length, 5u);
    EXPECT_EQ(std::string(string.data, 6), std::string("7d12h\0", 6));
    EXPECT_EQ(qxum_live_blocks(layer()), 1u);
    qxstrfc_free_content(ctx_, &string);
    EXPECT_EQ(string.data, nullptr);
    EXPECT_EQ(string.length, 0u);
    EXPECT_EQ(qxum_live_blocks(layer()), 0u);

    // An empty text is a text; bytes after a NUL are still copied.
    ASSERT_EQ(qxstr_alloc(ctx_, &string, nullptr, 0), 0u);
    EXPECT_STREQ(string.data, "");
    qxstrfc_free_content(ctx_, &string);
    ASSERT_EQ(qxstr_alloc(ctx_, &string, "a\0b", 3), 0u);
    EXPECT_EQ(std::string(string.data, string.length), std::string("a\0b", 3));
    qxstrfc_free_content(ctx_, &string);

    // Releasing a string that was never filled, or twice, is harmless.
    QxString never{};
    qxstrfc_free_content(ctx_, &never);
    qxstrfc_free_content(ctx_, &string);
    qxstrfc_free_content(ctx_, nullptr);

    EXPECT_EQ(qxstr_alloc(ctx_, nullptr, "x", 1), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxstr_alloc(ctx_, &never, nullptr, 1), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxstr_alloc(ctx_, &never, "x", UINT32_MAX), QXL_ERR_OUT_OF_MEMORY);
    EXPECT_EQ(never.data, nullptr);

    sweep_allocations([&] { return qxstr_alloc(ctx_, &string, "90m", 3); },
                      [&](StatusCode status, bool injected) {
                          EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : 0u);
                          EXPECT_EQ(string.data == nullptr, injected);
                          if (!injected) {
                              EXPECT_STREQ(string.data, "90m");
                          }
                          qxstrfc_free_content(ctx_, &string);
                      });
}

TEST_F(IntervalTest, ReadsPlainSecondsAndUnitGroups) {
    const std::vector<std::pair<std::string, uint64_t>> accepted = {
        {"0", 0},
        {"86400", 86400},
        {"007", 7},
        {"30s", 30},
        {"90m", 5400},
        {"2h", 7200},
        {"7d", 7 * 86400},
        {"1d12h", 129600},
        {"2w", 2 * week},
        {"1w2d3h4m5s", week + 2 * 86400 + 3 * 3600 + 4 * 60 + 5},
        {"0d0s", 0},
        // Groups may repeat and come in any order; they add up.
        {"1h1h", 7200},
        {"5s1w", week + 5},
        // The largest duration there is, however it is written.
        {"9223372036854775807", max_seconds},
        {"9223372036854775807s", max_seconds},
        {"9223372036854775806s1s", max_seconds},
        {std::to_string(max_seconds / week) + "w" + std::to_string(max_seconds % week) + "s",
         max_seconds},
    };
    for (const auto& [text, expected] : accepted) {
        SCOPED_TRACE(text);
        const QxString string = view(text);
        uint64_t seconds = 12345;
        EXPECT_EQ(qxutmtts_tsecs(ctx_, &string, &seconds), 0u);
        EXPECT_EQ(seconds, expected);
    }

    // Only the counted bytes are read, whatever follows them.
    const std::string longer = "7d9x";
    QxString counted{const_cast<char*>(longer.data()), 2};
    uint64_t seconds = 0;
    EXPECT_EQ(qxutmtts_tsecs(nullptr, &counted, &seconds), 0u);
    EXPECT_EQ(seconds, 7 * 86400u);
}

TEST_F(IntervalTest, RefusesAnythingElseAndLeavesTheResultAlone) {
    const std::vector<std::string> refused = {
        "",
        "-1d",
        "+5",
        "-0",
        "5x",
        "1D",
        "d",
        "s5",
        "1d5",     // a number without unit after a group
        "1d12h30", // the same further on
        " 5",
        "5 ",
        "1d 2h",
        "1.5h",
        "0x10",
        "now",
        std::string("5\0", 2),
        std::string("1d\0", 3),
        // One past 2^63-1, however it is reached.
        "9223372036854775808",
        "9223372036854775808s",
        "9223372036854775807s1s",
        "99999999999999999999999",
        std::to_string(max_seconds / week + 1) + "w",
        std::to_string(max_seconds / 86400 + 1) + "d",
        std::to_string(max_seconds / 60 + 1) + "m",
        "18446744073709551616", // 2^64 wraps to 0 in 64 bits
        "18446744073709551617s",
    };
    for (const std::string& text : refused) {
        SCOPED_TRACE("\"" + text + "\"");
        const QxString string = view(text);
        uint64_t seconds = 424242;
        EXPECT_EQ(qxutmtts_tsecs(ctx_, &string, &seconds), QXL_ERR_INTERVAL);
        EXPECT_EQ(seconds, 424242u);
    }

    uint64_t seconds = 1;
    const QxString nothing{nullptr, 0};
    EXPECT_EQ(qxutmtts_tsecs(ctx_, &nothing, &seconds), QXL_ERR_INTERVAL);
    const QxString broken{nullptr, 3};
    EXPECT_EQ(qxutmtts_tsecs(ctx_, &broken, &seconds), QXL_ERR_BAD_ARGUMENT);
    const std::string text = "7d";
    const QxString string = view(text);
    EXPECT_EQ(qxutmtts_tsecs(ctx_, nullptr, &seconds), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxutmtts_tsecs(ctx_, &string, nullptr), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(seconds, 1u);
}
