// The PEM text of CRLs: every block of a text delivered to a cache owner, and
// one CRL written out as text.
#include <cstring>
#include <string_view>

#include "frame.h"

using namespace qxcrl;

namespace {

// One marker's next occurrence in a text that is read front to back. Where
// the marker next occurs (or that it occurs no more) stays true until the
// reading position passes that occurrence, so the text is searched for each
// marker once in all rather than once per block. The search is bounded by
// the text's length, taken once: strstr would measure the rest of the text
// again at every call under some runtimes' checks.
class MarkerSearch {
  public:
    explicit MarkerSearch(std::string_view marker) : marker_(marker) {}

    // The first occurrence in text at or after from, or npos; from never
    // moves back.
    size_t at_or_after(std::string_view text, size_t from) {
        if (!searched_ || (next_ != std::string_view::npos && next_ < from)) {
            next_ = text.find(marker_, from);
            searched_ = true;
        }
        return next_;
    }

    size_t length() const { return marker_.size(); }

  private:
    std::string_view marker_;
    size_t next_ = std::string_view::npos;
    bool searched_ = false;
};

// Four markers in order of preference: the first of them that occurs
// anywhere from a position on wins, at its first occurrence there.
class PreferredMarkers {
  public:
    PreferredMarkers(std::string_view text, const char* first, const char* second,
                     const char* third, const char* fourth)
        : text_(text), searches_{MarkerSearch(first), MarkerSearch(second), MarkerSearch(third),
                                 MarkerSearch(fourth)} {}

    // The winning occurrence from on, or npos; its marker's length in *length.
    size_t find(size_t from, size_t* length) {
        for (MarkerSearch& search : searches_) {
            const size_t found = search.at_or_after(text_, from);
            if (found != std::string_view::npos) {
                *length = search.length();
                return found;
            }
        }
        return std::string_view::npos;
    }

  private:
    std::string_view text_;
    MarkerSearch searches_[4];
};

// Decodes and delivers the blocks of text one after another.
StatusCode deliver_blocks(CrlCacheOwner* owner, SecurityContext* ctx, const char* text) {
    // Every search stops at the text's NUL.
    const std::string_view whole(text);
    PreferredMarkers begins(whole, QX_STR_CRL_HEADER, QX_STR_CRL_HEADER1, QX_STR_CRL_HEADER2,
                            QX_STR_CRL_HEADER3);
    PreferredMarkers ends(whole, QX_STR_CRL_FOOTER, QX_STR_CRL_FOOTER1, QX_STR_CRL_FOOTER2,
                          QX_STR_CRL_FOOTER3);
    size_t markerLength = 0;
    size_t begin = begins.find(0, &markerLength);
    if (begin == std::string_view::npos) {
        qxu_print_trace(ctx, trace::name_set_b64_crl, trace::decode_failure, qx0264trc);
        return QXERR_CRL_DECODE;
    }
    while (begin != std::string_view::npos) {
        const size_t body = begin + markerLength;
        const size_t end = ends.find(body, &markerLength);
        if (end == std::string_view::npos) {
            qxu_print_trace(ctx, trace::name_set_b64_crl, trace::decode_failure, qx0264trc);
            return QXERR_CRL_DECODE;
        }
        unsigned char* der = nullptr;
        uint32_t derLength = 0;
        StatusCode result =
            qxbc_b64_to_der(ctx, text + body, static_cast<uint32_t>(end - body), &der, &derLength);
        if (result == 0)
            result = qxcrl_SetDERCrl(owner, der, derLength);
        qxumfree(ctx, &der);
        if (result != 0)
            return result;
        // The next block is looked for from this body on, so a block begun
        // with a less preferred marker before it is never seen.
        begin = begins.find(body, &markerLength);
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
