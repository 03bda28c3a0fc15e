#include "sqlite_allocator.h"

#include <string>

#include <gtest/gtest.h>
#include <sqlite3.h>

namespace qxtest {

namespace {

sqlite3_mem_methods original{};
uint64_t live = 0;
uint64_t attempts = 0;
uint64_t failAt = 0;

bool attempt_fails() {
    return ++attempts == failAt;
}

void* counted_malloc(int size) {
    if (attempt_fails())
        return nullptr;
    void* block = original.xMalloc(size);
    live += block != nullptr;
    return block;
}

void* counted_realloc(void* block, int size) {
    return attempt_fails() ? nullptr : original.xRealloc(block, size);
}

void counted_free(void* block) {
    live -= block != nullptr;
    original.xFree(block);
}

// Swaps SQLite's allocator; SQLite must hold no connection.
bool replace_allocator(const sqlite3_mem_methods& methods) {
    return sqlite3_shutdown() == SQLITE_OK &&
           sqlite3_config(SQLITE_CONFIG_MALLOC, &methods) == SQLITE_OK &&
           sqlite3_initialize() == SQLITE_OK;
}

class CountedAllocator {
  public:
    CountedAllocator() {
        // SQLite settles on its own allocator when first initialized.
        installed_ = sqlite3_initialize() == SQLITE_OK && sqlite3_shutdown() == SQLITE_OK &&
                     sqlite3_config(SQLITE_CONFIG_GETMALLOC, &original) == SQLITE_OK;
        sqlite3_mem_methods counted = original;
        counted.xMalloc = counted_malloc;
        counted.xRealloc = counted_realloc;
        counted.xFree = counted_free;
        installed_ = installed_ && replace_allocator(counted);
    }
    ~CountedAllocator() { EXPECT_TRUE(replace_allocator(original)); }
    CountedAllocator(const CountedAllocator&) = delete;
    CountedAllocator& operator=(const CountedAllocator&) = delete;
    bool installed() const { return installed_; }

  private:
    bool installed_ = false;
};

} // namespace

uint64_t sweep_sqlite_allocations(const std::function<uint32_t()>& op,
                                  const std::function<void(uint32_t, bool)>& check) {
    const CountedAllocator allocator;
    if (!allocator.installed()) {
        ADD_FAILURE() << "SQLite's allocator could not be replaced";
        return 0;
    }
    for (uint64_t n = 1; n < 100000; ++n) {
        const uint64_t liveBefore = live;
        const uint64_t before = attempts;
        failAt = before + n;
        const uint32_t status = op();
        const bool injected = attempts - before >= n;
        failAt = 0;
        SCOPED_TRACE("SQLite allocation " + std::to_string(n));
        check(status, injected);
        EXPECT_EQ(live, liveBefore) << "SQLite blocks leaked";
        if (!injected || ::testing::Test::HasFailure())
            return n - 1;
    }
    ADD_FAILURE() << "the operation never ran without an injected failure";
    return 0;
}

} // namespace qxtest
