// The PEM text of CRLs: every block of a text delivered to a cache owner, and
// one CRL written out as text.
#include <cstring>

#include "frame.h"

using namespace qxcrl;

namespace {

// The first marker, in order of preference, that occurs anywhere from
// position on; its first occurrence, and which marker it was in *marker.
const char* find_first_marker(const char* position, const char* const (&markers)[4],
                              const char** marker) {
    for (const char* candidate : markers) {
        if (const char* found = std::strstr(position, candidate)) {
            *marker = candidate;
            return found;
        }
    }
    return nullptr;
}

const char* const begin_markers[4] = {QX_STR_CRL_HEADER, QX_STR_CRL_HEADER1, QX_STR_CRL_HEADER2,
                                      QX_STR_CRL_HEADER3};
const char* const end_markers[4] = {QX_STR_CRL_FOOTER, QX_STR_CRL_FOOTER1, QX_STR_CRL_FOOTER2,
                                    QX_STR_CRL_FOOTER3};

// Decodes and delivers the blocks of text one after another.
StatusCode deliver_blocks(CrlCacheOwner* owner, SecurityContext* ctx, const char* text) {
    const char* marker = nullptr;
    const char* begin = find_first_marker(text, begin_markers, &marker);
    if (begin == nullptr) {
        qxu_print_trace(ctx, trace::name_set_b64_crl, trace::decode_failure, qx0264trc);
        return QXERR_CRL_DECODE;
    }
    while (begin != nullptr) {
        const char* body = begin + std::strlen(marker);
        const char* end = find_first_marker(body, end_markers, &marker);
        if (end == nullptr) {
            qxu_print_trace(ctx, trace::name_set_b64_crl, trace::decode_failure, qx0264trc);
            return QXERR_CRL_DECODE;
        }
        unsigned char* der = nullptr;
        uint32_t derLength = 0;
        StatusCode result =
            qxbc_b64_to_der(ctx, body, static_cast<uint32_t>(end - body), &der, &derLength);
        if (result == 0)
            result = qxcrl_SetDERCrl(owner, der, derLength);
        qxumfree(ctx, &der);
        if (result != 0)
            return result;
        // The next block is looked for from this body on, so a block begun
        // with a less preferred marker before it is never seen.
        begin = find_first_marker(body, begin_markers, &marker);
    }
    return 0;
}

} // namespace

extern "C" StatusCode qxcrl_SetB64Crl(CrlCacheOwner* owner, const char* text, uint32_t) {
    if (owner == nullptr || owner->parent == nullptr)
        return QXERR_BAD_PARAMETER;
    SecurityContext* ctx = owner->parent->securityContext;
    TraceFrame frame(ctx, trace::name_set_b64_crl);
    if (ctx == nullptr || ctx->layerContext == nullptr || text == nullptr)
        return QXERR_BAD_PARAMETER;
    frame.enter();
    return deliver_blocks(owner, ctx, text);
}

extern "C" StatusCode qxcrl_GetBase64(SecurityContext* ctx, CrlObject* crl, char** text,
                                      uint32_t* textLength) {
    if (ctx == nullptr || ctx->layerContext == nullptr || crl == nullptr || crl->crl == nullptr ||
        text == nullptr || textLength == nullptr)
        return QXERR_BAD_PARAMETER;
    uint32_t derLength = 0;
    if (R_CRL_to_binary(crl->crl, 0, nullptr, &derLength) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    StatusCode result = 0;
    LayerBlock<unsigned char> der(ctx, qxumalloc(ctx, derLength + 1, &result));
    if (!der)
        return result;
    if (R_CRL_to_binary(crl->crl, derLength, der.get(), &derLength) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    char* base64 = nullptr;
    uint32_t base64Length = 0;
    result = qxbc_der_to_b64(ctx, der.get(), derLength, &base64, &base64Length);
    LayerBlock<char> body(ctx, base64);
    if (result != 0)
        return result;

    const size_t headerLength = std::strlen(QX_STR_CRL_HEADER);
    const size_t footerLength = std::strlen(QX_STR_CRL_FOOTER3);
    const uint64_t total = headerLength + uint64_t{base64Length} + footerLength;
    if (total >= UINT32_MAX)
        return QXL_ERR_OUT_OF_MEMORY; // no text that long fits a 32-bit length
    *textLength = static_cast<uint32_t>(total);
    auto* pem = static_cast<char*>(qxumalloc(ctx, static_cast<uint32_t>(total) + 1, &result));
    if (pem == nullptr)
        return result;
    std::memcpy(pem, QX_STR_CRL_HEADER, headerLength);
    std::memcpy(pem + headerLength, body.get(), base64Length);
    std::memcpy(pem + headerLength + base64Length, QX_STR_CRL_FOOTER3, footerLength);
    pem[total] = '\0';
    *text = pem;
    return 0;
}
