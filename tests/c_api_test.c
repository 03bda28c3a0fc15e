/* The public headers as a C99 program sees them: the layer and the CRL
 * record used from C, with a decode failure and its clean-up. */
#include <stdio.h>

#include "qxcrl.h"

static int checks = 0;
static int failures = 0;

static void expect(int condition, const char* what) {
    ++checks;
    if (!condition) {
        fprintf(stderr, "FAILED: %s\n", what);
        ++failures;
    }
}

int main(void) {
    SecurityContext* ctx = NULL;
    CrlObject* crl = NULL;
    const unsigned char notACrl[] = {0x30, 0x03, 0x02, 0x01, 0x01};
    CrlDetailBuffer buffer = {NULL, 0};
    CrlCache cache = {0, 0, NULL, NULL, NULL};

    expect(qxlayer_create(NULL, &ctx) == 0, "layer instance");
    expect(qxcrl_CreateCtx(ctx, &crl, notACrl, sizeof notACrl) == QXERR_CRL_DECODE,
           "decode failure");
    expect(crl != NULL && crl->crl == NULL, "record left for the caller");
    expect(qxcrl_Destroy(ctx, &crl) == 0 && crl == NULL, "record released");
    expect(qxum_live_blocks(ctx->layerContext) == 0, "no blocks left");
    expect(buffer.length == 0 && cache.used == 0, "records usable from C");
    qxlayer_destroy(&ctx);
    printf("%d passed, %d failed\n", checks - failures, failures);
    return failures == 0 ? 0 : 1;
}
