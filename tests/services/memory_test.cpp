// The layer's allocator: block accounting, resize, release through the
// variable, and the hook that fails one chosen allocation.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

#include "layer_fixture.h"

using qxtest::LayerTest;

using MemoryTest = LayerTest;

TEST_F(MemoryTest, CountsBlocksAndReleasesThroughTheVariable) {
    StatusCode status = 0;
    void* first = qxumalloc(ctx_, 24, &status);
    void* second = qxumalloc(ctx_, 0, &status);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % alignof(std::max_align_t), 0u);
    EXPECT_EQ(qxum_live_blocks(layer()), 2u);
    EXPECT_EQ(qxum_allocation_count(layer()), 2u);

    qxumfree(ctx_, &first);
    EXPECT_EQ(first, nullptr);
    EXPECT_EQ(qxum_live_blocks(layer()), 1u);
    // A block goes back to the layer it came from, whatever context frees it.
    qxumfree(nullptr, &second);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(qxum_live_blocks(layer()), 0u);

    void* none = nullptr;
    qxumfree(nullptr, &none);
    qxumfree(ctx_, &none);
    qxumfree(ctx_, nullptr);
    EXPECT_EQ(qxum_live_blocks(layer()), 0u);
}

TEST_F(MemoryTest, ResizeKeepsContentsAndCount) {
    StatusCode status = 0;
    auto* block = static_cast<char*>(qxumrealloc(ctx_, nullptr, 6, &status));
    ASSERT_NE(block, nullptr);
    std::memcpy(block, "qxcrl", 6);
    block = static_cast<char*>(qxumrealloc(ctx_, block, 1 << 20, &status));
    ASSERT_NE(block, nullptr);
    EXPECT_STREQ(block, "qxcrl");
    EXPECT_EQ(qxum_live_blocks(layer()), 1u);

    // A failed resize leaves the old block valid and still the caller's.
    qxum_fail_nth(layer(), 1);
    void* failed = qxumrealloc(ctx_, block, 1 << 21, &status);
    EXPECT_EQ(failed, nullptr);
    EXPECT_EQ(status, QXL_ERR_OUT_OF_MEMORY);
    EXPECT_STREQ(block, "qxcrl");
    qxumfree(ctx_, &block);
    EXPECT_EQ(qxum_live_blocks(layer()), 0u);
}

TEST_F(MemoryTest, FailsExactlyTheChosenAllocation) {
    qxum_fail_nth(layer(), 3);
    StatusCode statuses[5] = {0, 0, 0, 0, 0};
    void* blocks[5];
    for (int i = 0; i < 5; ++i)
        blocks[i] = qxumalloc(ctx_, 8, &statuses[i]);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(blocks[i] == nullptr, i == 2) << i;
        EXPECT_EQ(statuses[i], i == 2 ? QXL_ERR_OUT_OF_MEMORY : 0u) << i;
        qxumfree(ctx_, &blocks[i]);
    }
    // Turned off, nothing fails; another layer's hook does not reach this one.
    SecurityContext* other = make_layer(0);
    qxum_fail_nth(other->layerContext, 1);
    StatusCode status = 0;
    void* block = qxumalloc(ctx_, 8, &status);
    EXPECT_NE(block, nullptr);
    qxumfree(ctx_, &block);
    qxum_fail_nth(other->layerContext, 0);
    EXPECT_EQ(qxum_live_blocks(layer()), 0u);
}
