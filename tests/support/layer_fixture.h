// A layer instance for module tests: a capturing trace sink (also for records
// written with no context), the counting allocator with its failure hook, and
// a leak check when the test ends.
#ifndef QXCRL_TESTS_SUPPORT_LAYER_FIXTURE_H
#define QXCRL_TESTS_SUPPORT_LAYER_FIXTURE_H

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qxcrl.h"

namespace qxtest {

struct TraceEntry {
    const SecurityContext* context;
    std::string function;
    uint32_t level;
    uint32_t kind;
    std::string messageId;
    std::string text;
};

class TraceLog {
  public:
    static void sink(void* log, const QxTraceRecord* record);
    const std::vector<TraceEntry>& entries() const { return entries_; }
    void clear() { entries_.clear(); }
    // Records other than entry and exit.
    std::vector<TraceEntry> messages() const;
    size_t count(uint32_t kind, const std::string& function) const;

  private:
    std::vector<TraceEntry> entries_;
};

// The catalogue text of messageId formatted with the arguments.
template <typename... Args> std::string catalogue_text(const char* messageId, Args... args) {
    const char* format = qxu_catalogue_text(messageId);
    char buffer[512];
    std::snprintf(buffer, sizeof buffer, format, args...);
    return buffer;
}

class LayerTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Makes a layer; the fixture's own is made with toolkitMode 0 and the
    // default store path.
    SecurityContext* make_layer(uint32_t toolkitMode, const char* storePath = nullptr);

    LayerContext* layer() const { return ctx_->layerContext; }

    // Runs op once per allocation it makes, failing that allocation; then once
    // with no failure. check(status, failureInjected) asserts and cleans up;
    // after each run the layer must hold no more blocks than before.
    void sweep_allocations(const std::function<StatusCode()>& op,
                           const std::function<void(StatusCode, bool)>& check);

    SecurityContext* ctx_ = nullptr;
    TraceLog trace_;

  private:
    std::vector<SecurityContext*> layers_;
};

} // namespace qxtest

#endif
