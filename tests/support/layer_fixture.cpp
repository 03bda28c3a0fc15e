#include "layer_fixture.h"

namespace qxtest {

void TraceLog::sink(void* log, const QxTraceRecord* record) {
    static_cast<TraceLog*>(log)->entries_.push_back(
        {record->context, record->function, record->level, record->kind,
         record->messageId ? record->messageId : "", record->text});
}

std::vector<TraceEntry> TraceLog::messages() const {
    std::vector<TraceEntry> found;
    for (const TraceEntry& entry : entries_) {
        if (entry.kind == QX_TRACE_MESSAGE)
            found.push_back(entry);
    }
    return found;
}

size_t TraceLog::count(uint32_t kind, const std::string& function) const {
    size_t found = 0;
    for (const TraceEntry& entry : entries_)
        found += entry.kind == kind && entry.function == function;
    return found;
}

void LayerTest::SetUp() {
    qxu_set_default_trace(&TraceLog::sink, &trace_, 5);
    ctx_ = make_layer(0);
}

void LayerTest::TearDown() {
    for (SecurityContext*& ctx : layers_) {
        EXPECT_EQ(qxum_live_blocks(ctx->layerContext), 0u) << "blocks leaked";
        qxlayer_destroy(&ctx);
    }
    qxu_set_default_trace(nullptr, nullptr, QX_TRACE_LEVEL_FROM_ENV);
}

SecurityContext* LayerTest::make_layer(uint32_t toolkitMode, const char* storePath) {
    QxLayerConfig config;
    qxlayer_default_config(&config);
    config.toolkitMode = toolkitMode;
    config.traceSink = &TraceLog::sink;
    config.traceSinkArg = &trace_;
    config.traceLevel = 5;
    if (storePath != nullptr)
        config.storePath = storePath;
    SecurityContext* made = nullptr;
    EXPECT_EQ(qxlayer_create(&config, &made), 0u);
    layers_.push_back(made);
    return made;
}

void LayerTest::sweep_allocations(const std::function<StatusCode()>& op,
                                  const std::function<void(StatusCode, bool)>& check) {
    const uint64_t baseline = qxum_live_blocks(layer());
    for (uint64_t n = 1; n < 100000; ++n) {
        const uint64_t before = qxum_allocation_count(layer());
        qxum_fail_nth(layer(), n);
        const StatusCode status = op();
        const bool injected = qxum_allocation_count(layer()) - before >= n;
        qxum_fail_nth(layer(), 0);
        SCOPED_TRACE("allocation " + std::to_string(n));
        check(status, injected);
        EXPECT_EQ(qxum_live_blocks(layer()), baseline);
        if (!injected || ::testing::Test::HasFailure())
            return;
    }
    FAIL() << "the operation never ran without an injected failure";
}

} // namespace qxtest
