// The layer's allocator: malloc underneath, every block counted against the
// account of the layer it was taken from, with a hook that fails the Nth
// allocation so that callers' failure paths can be tested one by one.
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "memory_account.h"

struct QxMemoryAccount {
    std::atomic<uint64_t> live{0};
    std::atomic<uint64_t> attempts{0};
    // The attempt number that fails; 0 when no failure is armed.
    std::atomic<uint64_t> failAt{0};
};

namespace {

// Each block starts with its account so that qxumfree needs no context.
struct alignas(std::max_align_t) BlockHeader {
    QxMemoryAccount* account;
};

QxMemoryAccount process_account;

QxMemoryAccount* account_of(const SecurityContext* ctx) {
    if (ctx != nullptr && ctx->layerContext != nullptr && ctx->layerContext->memory != nullptr)
        return ctx->layerContext->memory;
    return &process_account;
}

bool attempt_fails(QxMemoryAccount* account) {
    const uint64_t attempt = account->attempts.fetch_add(1) + 1;
    uint64_t armed = attempt;
    return account->failAt.compare_exchange_strong(armed, 0);
}

BlockHeader* header_of(void* block) {
    return static_cast<BlockHeader*>(block) - 1;
}

} // namespace

QxMemoryAccount* qxum_account_new() {
    return new (std::nothrow) QxMemoryAccount;
}

void qxum_account_free(QxMemoryAccount* account) {
    delete account;
}

extern "C" void* qxumalloc(SecurityContext* ctx, uint32_t size, StatusCode* status) {
    return qxumrealloc(ctx, nullptr, size, status);
}

extern "C" void* qxumrealloc(SecurityContext* ctx, void* block, uint32_t size, StatusCode* status) {
    QxMemoryAccount* account = block == nullptr ? account_of(ctx) : header_of(block)->account;
    void* raw = nullptr;
    if (!attempt_fails(account))
        raw =
            std::realloc(block == nullptr ? nullptr : header_of(block), sizeof(BlockHeader) + size);
    if (raw == nullptr) {
        if (status != nullptr)
            *status = QXL_ERR_OUT_OF_MEMORY;
        return nullptr;
    }
    auto* header = static_cast<BlockHeader*>(raw);
    header->account = account;
    if (block == nullptr)
        account->live.fetch_add(1);
    return header + 1;
}

extern "C" void qxumfree(SecurityContext*, void* blockAddress) {
    if (blockAddress == nullptr)
        return;
    void*& block = *static_cast<void**>(blockAddress);
    if (block == nullptr)
        return;
    BlockHeader* header = header_of(block);
    header->account->live.fetch_sub(1);
    std::free(header);
    block = nullptr;
}

extern "C" uint64_t qxum_live_blocks(const LayerContext* layer) {
    return layer == nullptr || layer->memory == nullptr ? 0 : layer->memory->live.load();
}

extern "C" uint64_t qxum_allocation_count(const LayerContext* layer) {
    return layer == nullptr || layer->memory == nullptr ? 0 : layer->memory->attempts.load();
}

extern "C" void qxum_fail_nth(LayerContext* layer, uint64_t n) {
    if (layer == nullptr || layer->memory == nullptr)
        return;
    layer->memory->failAt.store(n == 0 ? 0 : layer->memory->attempts.load() + n);
}
