// The display reader while OpenSSL fails one allocation after another: each
// failure ends in a failure status with no view, and leaks nothing.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "layer_fixture.h"
#include "openssl_allocator.h"
#include "test_pki.h"

using namespace qxtest;

namespace {

using CrlViewOomTest = LayerTest;

TEST_F(CrlViewOomTest, FailsCleanly) {
    CrlOptions recipe;
    RevokedEntry entry = revoked_serial({0x10});
    entry.extensions = {{"2.5.29.21", false, {0x0a, 0x01, 0x01}}};
    recipe.revoked = {entry, revoked_serial({0x80, 0x01})};
    recipe.crlNumber = 7;
    recipe.extensions = {{"2.5.29.27", false, {0x02, 0x01, 0x05}}};
    const Bytes der = make_crl(shared_issuer(), recipe);
    QxCrlView* view = nullptr;
    // What the view says with memory to spare: a run that succeeds says the same.
    ASSERT_EQ(qxview_crl(ctx_, der.data(), static_cast<uint32_t>(der.size()), &view), 0u);
    const std::string issuer = view->issuer;
    std::vector<std::string> values;
    for (uint32_t i = 0; i < view->extensionCount; ++i)
        values.push_back(view->extensions[i].value);
    ASSERT_EQ(view->entryCount, 2u);
    const int32_t reasons[] = {view->entries[0].reason, view->entries[1].reason};
    qxumfree(ctx_, &view);
    const uint64_t injected = sweep_openssl_allocations(
        [&] { return qxview_crl(ctx_, der.data(), static_cast<uint32_t>(der.size()), &view); },
        [&](uint32_t status, bool failed) {
            if (!failed) {
                ASSERT_EQ(status, 0u);
            }
            if (status == 0) {
                EXPECT_STREQ(view->crlNumber, "7");
                EXPECT_NE(view->refusal, nullptr);
                EXPECT_EQ(view->issuer, issuer);
                ASSERT_EQ(view->extensionCount, values.size());
                for (uint32_t i = 0; i < view->extensionCount; ++i)
                    EXPECT_EQ(view->extensions[i].value, values[i]);
                ASSERT_EQ(view->entryCount, 2u);
                EXPECT_EQ(view->entries[0].reason, reasons[0]);
                EXPECT_EQ(view->entries[1].reason, reasons[1]);
            } else {
                // The fingerprint's digest fails as the layer's digest does.
                EXPECT_TRUE(status == QXL_ERR_OUT_OF_MEMORY || status == QXL_ERR_DIGEST) << status;
                EXPECT_EQ(view, nullptr);
            }
            qxumfree(ctx_, &view);
        });
    EXPECT_GT(injected, 10u);
}

} // namespace
