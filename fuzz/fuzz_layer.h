// What every fuzz target shares: one layer instance per process, made on
// first use, tracing at its most detailed level into a sink that reads every
// record, and a check that an input leaves no layer block behind.
#ifndef QXCRL_FUZZ_LAYER_H
#define QXCRL_FUZZ_LAYER_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <qxcrl.h>

namespace qxfuzz {

// Aborts with a reason: libFuzzer keeps the input and the stack shows where.
[[noreturn]] inline void fail(const char* what) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
}

inline void require(bool holds, const char* what) {
    if (!holds)
        fail(what);
}

// Bytes of trace text seen; kept so that reading the records is not optimised away.
inline volatile uint64_t traced_bytes = 0;

// Consumes a record the way a real sink would, so that the formatting code
// runs: reading the text to its end shows one that is not NUL-terminated.
inline void consume_trace(void*, const QxTraceRecord* record) {
    require(record != nullptr && record->function != nullptr && record->text != nullptr,
            "trace record with a missing member");
    require(record->function[0] != '\0', "trace record from an unnamed function");
    require(record->level == 1 || record->level == 2 || record->level == 4 || record->level == 5,
            "trace level the layer does not define");
    traced_bytes = traced_bytes + std::strlen(record->function) + std::strlen(record->text);
}

// The most detailed trace level the layer writes.
constexpr uint32_t trace_everything = 5;

// Made once and never released: LeakSanitizer sees it reachable from here.
inline SecurityContext* layer() {
    static SecurityContext* ctx = [] {
        QxLayerConfig config;
        qxlayer_default_config(&config);
        config.traceSink = consume_trace;
        config.traceLevel = trace_everything;
        SecurityContext* made = nullptr;
        if (qxlayer_create(&config, &made) != 0 || made == nullptr)
            fail("qxlayer_create");
        return made;
    }();
    return ctx;
}

// Aborts when the layer holds a different number of blocks than at
// construction: the layer's allocator is not malloc, so only this sees its leaks.
class BlockCheck {
  public:
    explicit BlockCheck(SecurityContext* ctx)
        : ctx_(ctx), before_(qxum_live_blocks(ctx->layerContext)) {}
    BlockCheck(const BlockCheck&) = delete;
    BlockCheck& operator=(const BlockCheck&) = delete;
    ~BlockCheck() {
        const uint64_t after = qxum_live_blocks(ctx_->layerContext);
        if (after != before_) {
            std::fprintf(stderr, "layer blocks: %llu before the input, %llu after\n",
                         static_cast<unsigned long long>(before_),
                         static_cast<unsigned long long>(after));
            std::abort();
        }
    }

  private:
    SecurityContext* ctx_;
    uint64_t before_;
};

} // namespace qxfuzz

#endif
