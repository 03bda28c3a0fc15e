// The persistent store when SQLite runs out of memory: every one of SQLite's
// allocations under an operation failed in turn. The operation fails with
// QXL_ERR_STORE and a trace or succeeds whole, leaks nothing, and leaves a
// store file the next writer can use.
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "files.h"
#include "layer_fixture.h"
#include "sqlite_allocator.h"
#include "store_calls.h"

using namespace qxtest;

namespace {

// A sweep sets up a store file hundreds of times, and on a disk each set-up
// waits for its syncs; memory is what is tested here, not durability.
std::filesystem::path memory_backed_directory() {
    const std::filesystem::path shared = "/dev/shm";
    return std::filesystem::is_directory(shared) ? shared : std::filesystem::temp_directory_path();
}

class StoreMemoryTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        ctx_ = make_layer(0, path_.c_str());
    }

    // Whether the last message traced came from function.
    bool traced_last(const std::string& function) const {
        const std::vector<TraceEntry> messages = trace_.messages();
        return !messages.empty() && messages.back().function == function;
    }

    TempDir dir_{memory_backed_directory()};
    std::filesystem::path path_ = dir_ / "store.db";
};

StatusCode collect(void* arg, uint32_t, const char* text, uint32_t length) {
    static_cast<std::vector<std::string>*>(arg)->emplace_back(text, length);
    return 0;
}

} // namespace

TEST_F(StoreMemoryTest, FirstStoreFailsCleanlyOrSucceeds) {
    const uint64_t injected = sweep_sqlite_allocations(
        [&] {
            // Each run sets up the file anew.
            for (const char* suffix : {"", "-wal", "-shm"})
                std::filesystem::remove(path_.string() + suffix);
            trace_.clear();
            QxStoreHandle* handle = nullptr;
            StatusCode status = open_for(ctx_, named("ca"), &handle);
            if (status == 0)
                status = store(ctx_, handle, {"first"});
            qxirclose(ctx_, &handle);
            return status;
        },
        [&](StatusCode status, bool) {
            if (status != 0) {
                EXPECT_EQ(status, QXL_ERR_STORE);
                EXPECT_TRUE(traced_last("qxiropen") || traced_last("qxirstore"));
                // Whatever the failed run left, the next writer sets it up.
                QxStoreHandle* handle = nullptr;
                ASSERT_EQ(open_for(ctx_, named("ca"), &handle), 0u);
                ASSERT_EQ(store(ctx_, handle, {"first"}), 0u);
                qxirclose(ctx_, &handle);
            }
            EXPECT_EQ(versions(ctx_, "ca"), std::vector<std::string>{"first"});
        });
    EXPECT_GT(injected, 0u);
}

TEST_F(StoreMemoryTest, HistoryWalkFailsCleanlyOrSucceeds) {
    QxStoreHandle* handle = nullptr;
    ASSERT_EQ(open_for(ctx_, named("ca"), &handle), 0u);
    ASSERT_EQ(store(ctx_, handle, {"first", "second", "third"}), 0u);
    qxirclose(ctx_, &handle);
    const std::vector<std::string> all = {"third", "second", "first"};
    std::vector<std::string> seen;
    const uint64_t injected = sweep_sqlite_allocations(
        [&] {
            seen.clear();
            trace_.clear();
            return qxir_read_history(ctx_, "ca", collect, &seen);
        },
        [&](StatusCode status, bool) {
            if (status == 0) {
                EXPECT_EQ(seen, all);
                return;
            }
            EXPECT_EQ(status, QXL_ERR_STORE);
            EXPECT_TRUE(traced_last("qxir_read_history"));
            // What was seen before the failure is the newest versions.
            ASSERT_LT(seen.size(), all.size());
            EXPECT_TRUE(std::equal(seen.begin(), seen.end(), all.begin()));
        });
    EXPECT_GT(injected, 0u);
}
