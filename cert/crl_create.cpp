// Creating a CRL for an issuer (dated now, next update after an interval,
// version 2, one placeholder entry, signed), re-dating one, and moving its
// next update under its own signature type.
#include <cstring>

#include "frame.h"
#include "module_internal.h"

using namespace qxcrl;

namespace {

// The serial of the entry every new CRL holds, so that it is never empty.
constexpr char placeholder_serial[] = QXCRL_PLACEHOLDER_SERIAL;
constexpr uint32_t version_2 = 1; // X.509 counts versions from 0
constexpr uint32_t fixed_signature_type = QX_SIG_RSA_SHA256;

// A layer string released when the operation ends.
class LayerString {
  public:
    explicit LayerString(SecurityContext* ctx) : ctx_(ctx) {}
    LayerString(const LayerString&) = delete;
    LayerString& operator=(const LayerString&) = delete;
    ~LayerString() { qxstrfc_free_content(ctx_, &string_); }
    QxString* get() { return &string_; }

  private:
    SecurityContext* ctx_;
    QxString string_{};
};

// next := now + the interval's seconds, through the toolkit's 8-byte
// big-endian seconds; the sum wraps like the unsigned count it is.
int add_seconds(R_TIME* now, uint64_t seconds, R_TIME* next) {
    unsigned char buffer[8];
    uint32_t length = 0;
    if (const int status = R_TIME_export(now, R_TIME_FORMAT_SECONDS_BE, buffer, &length, 8);
        status != R_ERROR_NONE)
        return status;
    uint64_t value = 0;
    for (unsigned char byte : buffer)
        value = value << 8 | byte;
    value += seconds;
    for (int i = 7; i >= 0; --i, value >>= 8)
        buffer[i] = static_cast<unsigned char>(value & 0xff);
    return R_TIME_import(next, R_TIME_FORMAT_SECONDS_BE, buffer, 8);
}

StatusCode create_or_extend(SecurityContext* ctx, CrlObject** crl, const QxPrivateKey* key,
                            CertificateRecord* issuer, const char* interval, uint32_t signatureType,
                            int& toolkitStatus) {
    if (ctx == nullptr || ctx->layerContext == nullptr || crl == nullptr || key == nullptr ||
        issuer == nullptr || interval == nullptr)
        return QXERR_BAD_PARAMETER;
    const bool extend = *crl != nullptr;
    CrlHandle fresh; // a new CRL until the record takes it
    if (extend) {
        if ((*crl)->crl == nullptr)
            return QXERR_TOOLKIT_FAILURE;
    } else {
        StatusCode result = 0;
        *crl = static_cast<CrlObject*>(qxumalloc(ctx, sizeof(CrlObject), &result));
        if (*crl == nullptr)
            return result;
        (*crl)->crl = nullptr;
        if ((toolkitStatus = R_CRL_new(toolkit_context(ctx), 0, fresh.out())) != 0)
            return QXERR_TOOLKIT_FAILURE;
    }

    // Released in reverse: now, next, their context, then the string.
    LayerString text(ctx);
    TimeCtxHandle timeCtx;
    TimeHandle next;
    TimeHandle now;
    if ((toolkitStatus = R_TIME_CTX_new(toolkit_context(ctx), 0, timeCtx.out())) != 0 ||
        (toolkitStatus = R_TIME_new(timeCtx.get(), now.out())) != 0 ||
        (toolkitStatus = R_TIME_time(now.get())) != 0 ||
        (toolkitStatus = R_TIME_dup(now.get(), next.out())) != 0)
        return QXERR_TOOLKIT_FAILURE;
    if (const StatusCode status =
            qxstr_alloc(ctx, text.get(), interval, static_cast<uint32_t>(std::strlen(interval)));
        status != 0)
        return status;
    if (std::strcmp(interval, QX_STR_CURTIME) != 0) {
        uint64_t seconds = 0;
        if (const StatusCode status = qxutmtts_tsecs(ctx, text.get(), &seconds); status != 0)
            return status;
        if ((toolkitStatus = add_seconds(now.get(), seconds, next.get())) != 0)
            return QXERR_TOOLKIT_FAILURE;
    }

    if (extend) {
        if ((toolkitStatus = R_CRL_set_info((*crl)->crl, R_CRL_INFO_NEXT_UPDATE, next.get())) != 0)
            return QXERR_TOOLKIT_FAILURE;
    } else {
        if ((toolkitStatus = R_CRL_set_info(fresh.get(), R_CRL_INFO_THIS_UPDATE, now.get())) != 0 ||
            (toolkitStatus = R_CRL_set_info(fresh.get(), R_CRL_INFO_NEXT_UPDATE, next.get())) !=
                0 ||
            (toolkitStatus = R_CRL_set_info(fresh.get(), R_CRL_INFO_VERSION, &version_2)) != 0)
            return QXERR_TOOLKIT_FAILURE;
        (*crl)->crl = fresh.release();
        if (const StatusCode status = qxcrl_RevokeEntry(
                ctx, *crl, reinterpret_cast<const unsigned char*>(placeholder_serial),
                sizeof placeholder_serial - 1, now.get());
            status != 0)
            return status;
    }
    return qxcrl_Sign(ctx, *crl, issuer, key, signatureType);
}

} // namespace

StatusCode qxcrl_CreateOrExtend(SecurityContext* ctx, CrlObject** crl, const QxPrivateKey* key,
                                CertificateRecord* issuer, const char* interval,
                                uint32_t signatureType) {
    int toolkitStatus = 0;
    StatusCode result =
        create_or_extend(ctx, crl, key, issuer, interval, signatureType, toolkitStatus);
    if (toolkitStatus != 0)
        result = QXERR_TOOLKIT_FAILURE;
    if (result != 0)
        qxu_print_trace(ctx, trace::name_create_or_extend, trace::progress,
                        trace::msg_returning_error, static_cast<int>(result), toolkitStatus);
    return result;
}

extern "C" StatusCode qxcrl_Create(SecurityContext* ctx, CrlObject** crl, const QxPrivateKey* key,
                                   CertificateRecord* issuer, const char* interval,
                                   uint32_t signatureType) {
    // Always a new record: whatever the pointer held is the caller's to keep.
    if (crl != nullptr)
        *crl = nullptr;
    return qxcrl_CreateOrExtend(ctx, crl, key, issuer, interval, signatureType);
}

extern "C" StatusCode qxcrlCC_CreateCRL(SecurityContext* ctx, CrlObject** crl,
                                        const QxPrivateKey* key, CertificateRecord* issuer,
                                        const char* interval) {
    return qxcrl_Create(ctx, crl, key, issuer, interval, fixed_signature_type);
}

extern "C" StatusCode qxcrl_SetNextUpdate(SecurityContext* ctx, CrlObject* crl,
                                          const QxPrivateKey* key, CertificateRecord* issuer,
                                          const char* interval) {
    qxu_print_trace(ctx, trace::name_set_next_update, trace::progress,
                    trace::msg_setting_next_update);
    if (ctx == nullptr || crl == nullptr || key == nullptr || interval == nullptr ||
        issuer == nullptr)
        return QXERR_BAD_PARAMETER;
    // Re-signed the way it was signed.
    uint32_t signatureType = 0;
    if (const StatusCode status =
            qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_SIGNATURE_TYPE, 0, &signatureType);
        status != 0)
        return status;
    CrlObject* record = crl;
    return qxcrl_CreateOrExtend(ctx, &record, key, issuer, interval, signatureType);
}
