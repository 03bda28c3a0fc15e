#include "openssl_allocator.h"

#include <atomic>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <openssl/err.h>

namespace qxtest {

namespace {

std::atomic<uint64_t> live{0};
std::atomic<uint64_t> attempts{0};
std::atomic<uint64_t> failAt{0};

bool attempt_fails() {
    const uint64_t attempt = attempts.fetch_add(1) + 1;
    return failAt.load() == attempt;
}

void* counted_malloc(size_t size, const char*, int) {
    if (attempt_fails())
        return nullptr;
    void* block = std::malloc(size);
    if (block != nullptr)
        live.fetch_add(1);
    return block;
}

void* counted_realloc(void* block, size_t size, const char*, int) {
    if (attempt_fails())
        return nullptr;
    void* moved = std::realloc(block, size);
    if (moved != nullptr && block == nullptr)
        live.fetch_add(1);
    return moved;
}

void counted_free(void* block, const char*, int) {
    if (block != nullptr)
        live.fetch_sub(1);
    std::free(block);
}

} // namespace

bool install_openssl_allocator() {
    return CRYPTO_set_mem_functions(counted_malloc, counted_realloc, counted_free) == 1;
}

uint64_t openssl_live_blocks() {
    return live.load();
}

uint64_t sweep_openssl_allocations(const std::function<uint32_t()>& op,
                                   const std::function<void(uint32_t, bool)>& check) {
    for (uint64_t n = 1; n < 100000; ++n) {
        // OpenSSL keeps per-thread buffers (error texts among them) for reuse;
        // dropping them around each run leaves only what the run kept.
        OPENSSL_thread_stop();
        const uint64_t liveBefore = live.load();
        const uint64_t before = attempts.load();
        failAt.store(before + n);
        const uint32_t status = op();
        const bool injected = attempts.load() - before >= n;
        failAt.store(0);
        SCOPED_TRACE("OpenSSL allocation " + std::to_string(n));
        check(status, injected);
        // The toolkit clears what it leaves in OpenSSL's error queue; an
        // entry left there holds memory that is not a leak but is a fault.
        EXPECT_EQ(ERR_peek_error(), 0ul) << "error left in OpenSSL's queue after status " << status
                                         << ": " << ERR_error_string(ERR_peek_error(), nullptr);
        ERR_clear_error();
        OPENSSL_thread_stop();
        EXPECT_EQ(live.load(), liveBefore) << "OpenSSL blocks leaked";
        if (!injected || ::testing::Test::HasFailure())
            return n - 1;
    }
    ADD_FAILURE() << "the operation never ran without an injected failure";
    return 0;
}

} // namespace qxtest
