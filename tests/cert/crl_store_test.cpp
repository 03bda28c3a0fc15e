// Storing CRLs as PEM text in the layer's persistent store.
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "files.h"
#include "layer_fixture.h"
#include "test_pki.h"

using namespace qxtest;

namespace {

class CrlStoreTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        ctx_ = make_layer(0, (dir_ / "store.db").c_str());
        for (unsigned char serial : {0x01, 0x02}) {
            CrlOptions recipe;
            recipe.revoked = {revoked_serial({serial})};
            const Bytes der = make_crl(shared_issuer(), recipe);
            CrlObject* crl = nullptr;
            ASSERT_EQ(qxcrl_CreateCtx(ctx_, &crl, der.data(), static_cast<uint32_t>(der.size())),
                      0u);
            crls_.push_back(crl);
        }
    }
    void TearDown() override {
        for (CrlObject*& crl : crls_)
            qxcrl_Destroy(ctx_, &crl);
        LayerTest::TearDown();
    }
    std::string pem(CrlObject* crl) {
        char* text = nullptr;
        uint32_t length = 0;
        EXPECT_EQ(qxcrl_GetBase64(ctx_, crl, &text, &length), 0u);
        std::string copy(text, length);
        qxumfree(ctx_, &text);
        return copy;
    }
    // The text stored under name at version (0 current), or "" when there is none.
    std::string stored(const char* name, uint32_t version) {
        char* text = nullptr;
        uint32_t length = 0;
        if (qxir_read(ctx_, name, version, &text, &length) != 0)
            return "";
        std::string copy(text, length);
        qxumfree(ctx_, &text);
        return copy;
    }

    TempDir dir_;
    std::vector<CrlObject*> crls_;
};

} // namespace

TEST_F(CrlStoreTest, StoresReplacesAndKeepsHistory) {
    EXPECT_EQ(qxcrl_Store(ctx_, crls_[0], "ca-one"), 0u);
    EXPECT_EQ(stored("ca-one", 0), pem(crls_[0]));
    EXPECT_EQ(stored("ca-one", 1), "");

    // The second store under the name becomes current; the first is history.
    EXPECT_EQ(qxcrlSTC_StoreCRL(ctx_, crls_[1], "ca-one"), 0u);
    EXPECT_EQ(stored("ca-one", 0), pem(crls_[1]));
    EXPECT_EQ(stored("ca-one", 1), pem(crls_[0]));

    // Names are keys of their own, the empty one included.
    EXPECT_EQ(qxcrl_Store(ctx_, crls_[0], ""), 0u);
    EXPECT_EQ(stored("", 0), pem(crls_[0]));
    EXPECT_EQ(stored("ca-one", 0), pem(crls_[1]));
    EXPECT_TRUE(trace_.entries().empty());
}

TEST_F(CrlStoreTest, FailuresOpenNothingAndCrashNothing) {
    const std::filesystem::path database = dir_ / "store.db";
    CrlObject empty{nullptr};
    EXPECT_EQ(qxcrl_Store(ctx_, &empty, "x"), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_Store(ctx_, crls_[0], nullptr), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_Store(nullptr, crls_[0], "x"), QXERR_BAD_PARAMETER);
    EXPECT_FALSE(std::filesystem::exists(database)) << "the store was opened";

    SecurityContext* nowhere = make_layer(0, (dir_ / "missing" / "store.db").c_str());
    EXPECT_EQ(qxcrl_Store(nowhere, crls_[0], "x"), QXL_ERR_STORE);
    write_text(dir_ / "not-a-database", "this is not SQLite\n");
    SecurityContext* garbage = make_layer(0, (dir_ / "not-a-database").c_str());
    EXPECT_EQ(qxcrl_Store(garbage, crls_[0], "x"), QXL_ERR_STORE);
}

TEST_F(CrlStoreTest, AllocationFailureSweep) {
    sweep_allocations([&] { return qxcrl_Store(ctx_, crls_[0], "swept"); },
                      [&](StatusCode status, bool injected) {
                          EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : 0u);
                      });
    EXPECT_EQ(stored("swept", 0), pem(crls_[0]));
}
