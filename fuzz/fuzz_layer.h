// What every fuzz target shares: one layer instance per process, made on
// first use, and a check that an input leaves no layer block behind.
#ifndef QXCRL_FUZZ_LAYER_H
#define QXCRL_FUZZ_LAYER_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <qxcrl.h>

namespace qxfuzz {

// Made once and never released: LeakSanitizer sees it reachable from here.
inline SecurityContext* layer() {
    static SecurityContext* ctx = [] {
        QxLayerConfig config;
        qxlayer_default_config(&config);
        config.traceLevel = 0; // tracing every rejected input would only slow the run
        SecurityContext* made = nullptr;
        if (qxlayer_create(&config, &made) != 0 || made == nullptr) {
            std::fprintf(stderr, "qxlayer_create failed\n");
            std::abort();
        }
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
