// Layer instances: what qxlayer_create makes and qxlayer_destroy releases.
#include <set>

#include <gtest/gtest.h>

#include "layer_fixture.h"

TEST(LayerInstance, DefaultsAndContexts) {
    SecurityContext* ctx = nullptr;
    ASSERT_EQ(qxlayer_create(nullptr, &ctx), 0u);
    ASSERT_NE(ctx, nullptr);
    LayerContext* layer = ctx->layerContext;
    ASSERT_NE(layer, nullptr);
    EXPECT_EQ(layer->toolkitMode, 0u);
    EXPECT_EQ(layer->crlPolicy, 0u);
    EXPECT_EQ(layer->fileContext, qxfile_posix_interface());
    EXPECT_EQ(layer->crlFetchCallbacks, qxldap_fetch_callbacks());
    EXPECT_EQ(layer->maxFileBytes, 256u * 1024 * 1024);
    EXPECT_EQ(ctx->traceSink, nullptr);
    EXPECT_EQ(ctx->traceLevel, QX_TRACE_LEVEL_FROM_ENV);
    ASSERT_EQ(layer->toolkitContextCount, QX_TOOLKIT_CONTEXT_COUNT);
    std::set<R_LIB_CTX*> distinct(layer->toolkitContexts,
                                  layer->toolkitContexts + layer->toolkitContextCount);
    EXPECT_EQ(distinct.size(), QX_TOOLKIT_CONTEXT_COUNT);
    EXPECT_EQ(distinct.count(nullptr), 0u);

    R_CERT_CTX* certCtx = nullptr;
    EXPECT_EQ(qxGCC_GetCertcCtx(ctx, &certCtx), 0u);
    EXPECT_NE(certCtx, nullptr);
    EXPECT_EQ(certCtx, layer->certContext);

    qxlayer_destroy(&ctx);
    EXPECT_EQ(ctx, nullptr);
    qxlayer_destroy(&ctx);
    qxlayer_destroy(nullptr);
}

TEST(LayerInstance, ConfigurationAndBadArguments) {
    QxLayerConfig config;
    qxlayer_default_config(&config);
    config.toolkitMode = 1;
    config.crlPolicy = 4;
    config.traceLevel = 2;
    config.maxFileBytes = 4096;
    SecurityContext* ctx = nullptr;
    ASSERT_EQ(qxlayer_create(&config, &ctx), 0u);
    EXPECT_EQ(ctx->layerContext->toolkitMode, 1u);
    EXPECT_EQ(ctx->layerContext->crlPolicy, 4u);
    EXPECT_EQ(ctx->layerContext->maxFileBytes, 4096u);
    EXPECT_EQ(ctx->traceLevel, 2u);
    qxlayer_destroy(&ctx);

    EXPECT_EQ(qxlayer_create(nullptr, nullptr), QXL_ERR_BAD_ARGUMENT);
    R_CERT_CTX* certCtx = nullptr;
    EXPECT_EQ(qxGCC_GetCertcCtx(nullptr, &certCtx), QXL_ERR_BAD_ARGUMENT);
    SecurityContext bare{};
    EXPECT_EQ(qxGCC_GetCertcCtx(&bare, &certCtx), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(certCtx, nullptr);
}
