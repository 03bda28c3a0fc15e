// A certificate's status according to one CRL: issuer match, serial lookup,
// and a revocation date that must already have passed.
#include "frame.h"

using namespace qxcrl;

namespace {

// The objects one call may make, declared in the reverse of their release
// order: entry, CRL issuer name, certificate issuer name, revocation date,
// now, time context.
struct StatusObjects {
    TimeCtxHandle timeCtx;
    TimeHandle now;
    TimeHandle revocationDate;
    NameHandle certIssuer;
    NameHandle crlIssuer;
    CrlEntryHandle entry;
};

// True when crl is issued by cert's issuer; toolkitStatus keeps the last
// toolkit value (the comparison's, when it is reached).
bool same_issuer(R_CERT_CTX* certCtx, R_CRL* crl, R_CERT* cert, StatusObjects& objects,
                 int& toolkitStatus, bool& failed) {
    R_ITEM issuer{};
    uint32_t consumed = 0;
    failed = (toolkitStatus =
                  R_CERT_get_info(cert, R_CERT_INFO_ISSUER_NAME, objects.certIssuer.out())) != 0 ||
             (toolkitStatus = R_CRL_get_info(crl, R_CRL_INFO_ISSUER_NAME, &issuer)) != 0 ||
             (toolkitStatus = R_CERT_NAME_from_binary(certCtx, 1, issuer.len, issuer.data,
                                                      &consumed, objects.crlIssuer.out())) != 0;
    if (failed)
        return false;
    toolkitStatus = R_CERT_NAME_is_equal(objects.crlIssuer.get(), objects.certIssuer.get());
    return toolkitStatus == 1;
}

StatusCode judge(SecurityContext* ctx, R_CRL* crl, R_CERT* cert, CertRevocationStatus* status,
                 int& toolkitStatus) {
    R_CERT_CTX* certCtx = nullptr;
    if (const StatusCode layerStatus = qxGCC_GetCertcCtx(ctx, &certCtx); layerStatus != 0)
        return layerStatus;
    StatusObjects objects;
    R_LIB_CTX* libCtx = toolkit_context(ctx);
    if ((toolkitStatus = R_TIME_CTX_new(libCtx, 0, objects.timeCtx.out())) != 0 ||
        (toolkitStatus = R_TIME_new(objects.timeCtx.get(), objects.now.out())) != 0 ||
        (toolkitStatus = R_TIME_time(objects.now.get())) != 0)
        return QXERR_TOOLKIT_FAILURE;

    bool failed = false;
    if (!same_issuer(certCtx, crl, cert, objects, toolkitStatus, failed)) {
        if (failed)
            return QXERR_TOOLKIT_FAILURE;
        *status = QXCRL_CERT_VALID; // the CRL does not speak for this certificate
        return 0;
    }

    if ((toolkitStatus = R_CRL_ENTRY_new(libCtx, 0, objects.entry.out())) != 0)
        return QXERR_TOOLKIT_FAILURE;
    *status = QXCRL_CERT_UNKNOWN;
    toolkitStatus = R_CRL_find_entry(crl, cert, objects.entry.get());
    if (toolkitStatus == R_ERROR_NOT_FOUND) {
        qxu_print_trace(ctx, trace::name_check_cert_status, trace::verdict, trace::msg_not_in_crl);
        *status = QXCRL_CERT_VALID;
        return 0;
    }
    int32_t comparison = 0;
    if (toolkitStatus != 0 ||
        (toolkitStatus = R_TIME_new(objects.timeCtx.get(), objects.revocationDate.out())) != 0 ||
        (toolkitStatus = R_CRL_ENTRY_get_info(objects.entry.get(), R_CRL_ENTRY_INFO_REVOCATION_DATE,
                                              objects.revocationDate.get())) != 0 ||
        (toolkitStatus =
             R_TIME_cmp(objects.now.get(), objects.revocationDate.get(), &comparison)) != 0)
        return QXERR_TOOLKIT_FAILURE;
    // A revocation dated now or later does not count yet.
    if (comparison == 1) {
        qxu_print_trace(ctx, trace::name_check_cert_status, trace::verdict, trace::msg_revoked);
        *status = QXCRL_CERT_REVOKED;
    } else {
        qxu_print_trace(ctx, trace::name_check_cert_status, trace::verdict,
                        trace::msg_revocation_in_future);
        *status = QXCRL_CERT_VALID;
    }
    return 0;
}

} // namespace

extern "C" StatusCode qxcrl_CheckCertStatus(SecurityContext* ctx, CrlObject* crl,
                                            CertificateRecord* cert, CertRevocationStatus* status) {
    TraceFrame frame(ctx, trace::name_check_cert_status);
    if (ctx == nullptr || ctx->layerContext == nullptr || crl == nullptr || crl->crl == nullptr ||
        cert == nullptr || cert->cert == nullptr || status == nullptr)
        return QXERR_BAD_PARAMETER;
    frame.enter();
    int toolkitStatus = 0;
    const StatusCode result = judge(ctx, crl->crl, cert->cert, status, toolkitStatus);
    // A clean answer that came with a toolkit status (not listed, or an odd
    // issuer comparison) leaves that status on record.
    if (result == 0 && toolkitStatus != 0)
        qxu_print_trace(ctx, trace::name_check_cert_status, trace::verdict, qx0232trc,
                        toolkitStatus);
    return result;
}
