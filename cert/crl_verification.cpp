// Whether a CRL may be relied on: its signature verifies under the issuer's
// certificate and its nextUpdate lies after now.
#include "frame.h"

using namespace qxcrl;

namespace {

// Compares nextUpdate with now. toolkitStatus receives the status of the
// last toolkit call; a failed call leaves the verdict to the caller.
StatusCode check_currency(SecurityContext* ctx, R_CRL* crl, CrlValidity* validity,
                          int& toolkitStatus) {
    // Released in reverse: nextUpdate, now, then their context.
    TimeCtxHandle timeCtx;
    TimeHandle now;
    TimeHandle nextUpdate;
    if ((toolkitStatus = R_TIME_CTX_new(toolkit_context(ctx), 0, timeCtx.out())) != 0 ||
        (toolkitStatus = R_TIME_new(timeCtx.get(), now.out())) != 0 ||
        (toolkitStatus = R_TIME_time(now.get())) != 0 ||
        (toolkitStatus = R_TIME_new(timeCtx.get(), nextUpdate.out())) != 0)
        return 0;
    toolkitStatus = R_CRL_get_info(crl, R_CRL_INFO_NEXT_UPDATE, nextUpdate.get());
    if (toolkitStatus != 0) {
        qxu_print_trace(ctx, trace::name_verify, trace::verdict, trace::msg_no_next_update);
        return 0;
    }
    int32_t comparison = 0;
    toolkitStatus = R_TIME_cmp(nextUpdate.get(), now.get(), &comparison);
    if (toolkitStatus != 0) {
        qxu_print_trace(ctx, trace::name_verify, trace::verdict, trace::msg_time_compare_failed,
                        toolkitStatus);
        return 0;
    }
    if (comparison == 1) {
        *validity = QXCRL_CRL_CURRENT;
        return 0;
    }
    qxu_print_trace(ctx, trace::name_verify, trace::verdict, trace::msg_crl_expired, comparison);
    *validity = QXCRL_CRL_EXPIRED;
    return QXERR_CRL_EXPIRED;
}

} // namespace

extern "C" StatusCode qxcrl_Verify(SecurityContext* ctx, CrlObject* crl, R_CERT* issuerCert,
                                   CrlValidity* validity) {
    TraceFrame frame(ctx, trace::name_verify);
    if (ctx == nullptr || ctx->layerContext == nullptr || crl == nullptr || crl->crl == nullptr ||
        validity == nullptr)
        return QXERR_BAD_PARAMETER;
    frame.enter(trace::name_verify_signature);

    int toolkitStatus = 0;
    StatusCode result = 0;
    // Without an issuer certificate only currency is judged.
    if (issuerCert != nullptr) {
        uint32_t verdict = 0;
        toolkitStatus = R_CRL_verify(crl->crl, issuerCert, &verdict);
        if (toolkitStatus != 0 || verdict != 0) {
            qxu_print_trace(ctx, trace::name_verify, trace::verdict, trace::msg_verify_failed,
                            toolkitStatus != 0 ? toolkitStatus : static_cast<int>(verdict));
            result = QXERR_CRL_SIGN;
        }
    }
    if (result == 0)
        result = check_currency(ctx, crl->crl, validity, toolkitStatus);
    // Any toolkit failure means the CRL could not be judged: never current.
    if (toolkitStatus != 0) {
        qxu_print_trace(ctx, trace::name_verify, trace::verdict, qx0229trc, toolkitStatus);
        result = QXERR_CRL_SIGN;
    }
    return result;
}

extern "C" StatusCode qxcrl_VerifyCRL(SecurityContext* ctx, CrlObject* crl,
                                      CertificateRecord* issuer, CrlValidity* validity) {
    if (ctx == nullptr || ctx->layerContext == nullptr || crl == nullptr || validity == nullptr ||
        issuer == nullptr)
        return QXERR_BAD_PARAMETER;
    return qxcrl_Verify(ctx, crl, issuer->cert, validity);
}
