// The trace service: routing to the context's sink or the process default,
// level filtering, catalogue messages, and the environment's destination.
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "files.h"
#include "layer_fixture.h"

using qxtest::LayerTest;
using qxtest::TraceEntry;

using TraceTest = LayerTest;

TEST_F(TraceTest, RecordsCarryNameLevelKindAndText) {
    qxu_init_trace(ctx_, "qxcrl_Example", 5);
    qxu_print_trace(ctx_, "qxcrl_Inner", 2, "dsk api failed to open crl file: %s\n", "a.crl");
    qxu_print_trace(ctx_, "qxcrl_Load", 1, qx0249trc, "R_CRL_from_binary", 10005);
    qxu_print_trace(ctx_, "qxcrl_Other", 1, qx0265trc);
    qxu_exit_trace(ctx_, "qxcrl_Example", 5);

    const auto& records = trace_.entries();
    ASSERT_EQ(records.size(), 5u);
    EXPECT_EQ(records[0].kind, QX_TRACE_ENTRY);
    EXPECT_EQ(records[0].function, "qxcrl_Example");
    EXPECT_EQ(records[0].level, 5u);
    EXPECT_EQ(records[0].context, ctx_);
    EXPECT_EQ(records[1].text, "dsk api failed to open crl file: a.crl\n");
    EXPECT_EQ(records[1].messageId, "");
    EXPECT_EQ(records[1].level, 2u);
    EXPECT_EQ(records[2].messageId, "qx0249trc");
    const std::string decodeText = records[2].text;
    EXPECT_NE(decodeText.find("R_CRL_from_binary"), std::string::npos);
    EXPECT_NE(decodeText.find("10005"), std::string::npos);
    EXPECT_EQ(records[3].messageId, "qx0265trc");
    EXPECT_EQ(records[3].text, qxu_catalogue_text(qx0265trc));
    EXPECT_EQ(records[4].kind, QX_TRACE_EXIT);

    // Every catalogue identifier has a text; anything else is a plain format.
    for (const char* id : {qx0229trc, qx0232trc, qx0249trc, qx0264trc, qx0265trc, qx0266trc})
        EXPECT_NE(qxu_catalogue_text(id), nullptr) << id;
    EXPECT_EQ(qxu_catalogue_text("qx9999trc"), nullptr);
    EXPECT_EQ(qxu_catalogue_text(nullptr), nullptr);
}

TEST_F(TraceTest, LevelFiltersAndContextlessRecords) {
    ctx_->traceLevel = 2;
    for (uint32_t level : {1u, 2u, 4u, 5u})
        qxu_print_trace(ctx_, "f", level, "level %u", level);
    ASSERT_EQ(trace_.entries().size(), 2u);
    EXPECT_EQ(trace_.entries()[1].text, "level 2");
    ctx_->traceLevel = 0;
    qxu_init_trace(ctx_, "f", 5);
    qxu_print_trace(ctx_, "f", 1, "off");
    EXPECT_EQ(trace_.entries().size(), 2u);

    // No context, or a context without a sink: the process-wide destination.
    trace_.clear();
    qxu_exit_trace(nullptr, "qxcrl_Verify", 5);
    SecurityContext bare{};
    bare.traceLevel = QX_TRACE_LEVEL_FROM_ENV;
    qxu_print_trace(&bare, "g", 4, "from %s", "bare");
    ASSERT_EQ(trace_.entries().size(), 2u);
    EXPECT_EQ(trace_.entries()[0].context, nullptr);
    EXPECT_EQ(trace_.entries()[0].kind, QX_TRACE_EXIT);
    EXPECT_EQ(trace_.entries()[1].context, &bare);
    EXPECT_EQ(trace_.entries()[1].text, "from bare");
    qxu_set_default_trace(&qxtest::TraceLog::sink, &trace_, 1);
    qxu_exit_trace(nullptr, "qxcrl_Verify", 5);
    EXPECT_EQ(trace_.entries().size(), 2u);
}

// With no sink anywhere, QX_TRACE_LEVEL and QX_TRACE_FILE decide; they are
// read once per process, so a fresh process is needed to see them.
TEST(TraceEnvironment, WritesToTheConfiguredFile) {
    qxtest::TempDir dir;
    const std::string probe = QXCRL_TRACE_PROBE;
    ASSERT_EQ(qxtest::run_in(dir.path(), "QX_TRACE_LEVEL=4 QX_TRACE_FILE=trace.txt " + probe), 0);
    const auto bytes = qxtest::read_file(dir / "trace.txt");
    const std::string text(bytes.begin(), bytes.end());
    const std::string decode = "qxcrl L1 qxcrl_Load: [qx0249trc] " +
                               qxtest::catalogue_text(qx0249trc, "R_CRL_from_binary", 10005);
    EXPECT_EQ(text, "qxcrl L4 probe: verdict 7\n" + decode);

    ASSERT_EQ(qxtest::run_in(dir.path(), probe + " 2>stderr.txt"), 0);
    EXPECT_TRUE(qxtest::read_file(dir / "stderr.txt").empty());
    ASSERT_EQ(qxtest::run_in(dir.path(), "QX_TRACE_LEVEL=5 " + probe + " 2>stderr.txt"), 0);
    const auto err = qxtest::read_file(dir / "stderr.txt");
    EXPECT_EQ(std::string(err.begin(), err.end()).rfind("qxcrl L5 probe: enter\n", 0), 0u);
}
