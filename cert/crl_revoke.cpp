// Revocation entries: one entry from a serial and a time, and a
// certificate's revocation, dated now and signed.
#include "frame.h"
#include "module_internal.h"

using namespace qxcrl;

namespace {

constexpr uint32_t fixed_signature_type = QX_SIG_RSA_SHA256;

StatusCode revoke_and_sign(SecurityContext* ctx, CrlObject* crl, const QxPrivateKey* key,
                           CertificateRecord* issuer, CertificateRecord* revoked,
                           uint32_t signatureType, int& toolkitStatus) {
    if (ctx == nullptr || ctx->layerContext == nullptr || crl == nullptr || key == nullptr ||
        revoked == nullptr || revoked->cert == nullptr)
        return QXERR_BAD_PARAMETER;
    qxu_print_trace(ctx, trace::name_revoke_cert, trace::progress, trace::msg_revoking);
    R_ITEM serial{}; // the certificate's bytes, not copied
    TimeCtxHandle timeCtx;
    TimeHandle now;
    if ((toolkitStatus = R_CERT_get_info(revoked->cert, R_CERT_INFO_SERIAL, &serial)) != 0 ||
        (toolkitStatus = R_TIME_CTX_new(toolkit_context(ctx), 0, timeCtx.out())) != 0 ||
        (toolkitStatus = R_TIME_new(timeCtx.get(), now.out())) != 0 ||
        (toolkitStatus = R_TIME_time(now.get())) != 0)
        return QXERR_TOOLKIT_FAILURE;
    if (const StatusCode status = qxcrl_RevokeEntry(ctx, crl, serial.data, serial.len, now.get());
        status != 0)
        return status;
    // The entry stays even if signing fails; the result says the CRL is unsigned.
    return qxcrl_Sign(ctx, crl, issuer, key, signatureType);
}

StatusCode revoke(SecurityContext* ctx, CrlObject* crl, const QxPrivateKey* key,
                  CertificateRecord* issuer, CertificateRecord* revoked, uint32_t signatureType) {
    int toolkitStatus = 0;
    const StatusCode result =
        revoke_and_sign(ctx, crl, key, issuer, revoked, signatureType, toolkitStatus);
    if (result != 0)
        qxu_print_trace(ctx, trace::name_revoke_cert, trace::progress, trace::msg_returning_error,
                        static_cast<int>(result), toolkitStatus);
    return result;
}

} // namespace

StatusCode qxcrl_RevokeEntry(SecurityContext* ctx, CrlObject* crl, const unsigned char* serial,
                             uint32_t serialLength, R_TIME* revocationTime) {
    if (crl == nullptr || revocationTime == nullptr || serial == nullptr)
        return QXERR_BAD_PARAMETER;
    CrlEntryHandle entry;
    R_ITEM item{serialLength, const_cast<unsigned char*>(serial)};
    if (R_CRL_ENTRY_new(toolkit_context(ctx), 0, entry.out()) != R_ERROR_NONE ||
        R_CRL_ENTRY_set_info(entry.get(), R_CRL_ENTRY_INFO_REVOCATION_DATE, revocationTime) !=
            R_ERROR_NONE ||
        R_CRL_ENTRY_set_info(entry.get(), R_CRL_ENTRY_INFO_SERIAL, &item) != R_ERROR_NONE ||
        R_CRL_add_entry(crl->crl, entry.get()) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    return 0;
}

extern "C" StatusCode qxcrl_RevokeCert(SecurityContext* ctx, CrlObject* crl,
                                       const QxPrivateKey* key, CertificateRecord* issuer,
                                       CertificateRecord* revoked, uint32_t signatureType) {
    return revoke(ctx, crl, key, issuer, revoked, signatureType);
}

extern "C" StatusCode qxcrlRC_RevokeCert(SecurityContext* ctx, CrlObject* crl,
                                         const QxPrivateKey* key, CertificateRecord* issuer,
                                         CertificateRecord* revoked) {
    return revoke(ctx, crl, key, issuer, revoked, fixed_signature_type);
}
