#include "http_crls.h"

#include <cstring>
#include <string_view>

#include "http_trace.h"

namespace {

constexpr std::string_view begin_mark = "-----BEGIN ", end_mark = "-----END ";

// Whether bytes are one DER SEQUENCE, nothing before or after it: a body
// that a server cut short or padded is no CRL.
bool is_der(const unsigned char* bytes, uint32_t size) {
    if (size < 2 || bytes[0] != 0x30)
        return false;
    uint64_t header = 2, length = bytes[1];
    if (length >= 0x80) {
        const uint32_t octets = bytes[1] & 0x7F;
        if (octets == 0 || octets > 4 || size < 2 + octets)
            return false;
        length = 0;
        for (uint32_t i = 0; i < octets; ++i)
            length = (length << 8) | bytes[2 + i];
        header += octets;
    }
    return header + length == size;
}

// The length of the marker among markers that text has at at; 0 for none.
size_t marker_at(std::string_view text, size_t at, std::initializer_list<const char*> markers) {
    for (const char* marker : markers) {
        if (text.compare(at, std::strlen(marker), marker) == 0)
            return std::strlen(marker);
    }
    return 0;
}

// The CRL blocks of text into chain; every search goes on from where the
// last one stopped, so the time is linear in the text's length.
StatusCode take_pem(SecurityContext* ctx, const char* url, std::string_view text,
                    qxfetch::Chain& chain) {
    size_t blocks = 0;
    for (size_t at = text.find(begin_mark); at != std::string_view::npos;
         at = text.find(begin_mark, at)) {
        const size_t header = marker_at(
            text, at,
            {QX_STR_CRL_HEADER, QX_STR_CRL_HEADER1, QX_STR_CRL_HEADER2, QX_STR_CRL_HEADER3});
        if (header == 0) {
            at += begin_mark.size(); // a block of another kind
            continue;
        }
        const size_t body = at + header;
        const size_t end = text.find(end_mark, body);
        const size_t footer =
            end == std::string_view::npos
                ? 0
                : marker_at(text, end, {QX_STR_CRL_FOOTER, QX_STR_CRL_FOOTER1, QX_STR_CRL_FOOTER2});
        if (footer == 0) {
            qxu_print_trace(ctx, qxhttp::function_name, qxhttp::trace_level,
                            "http: a CRL block of %s has no end\n", url);
            return QXL_ERR_FETCH;
        }
        const auto base64 = static_cast<uint32_t>(end - body);
        if (const StatusCode status = chain.admit(base64 / 4 * 3))
            return status;
        unsigned char* der = nullptr;
        uint32_t derLength = 0;
        StatusCode status = qxbc_b64_to_der(ctx, text.data() + body, base64, &der, &derLength);
        if (status == QXL_ERR_BASE64) {
            qxu_print_trace(ctx, qxhttp::function_name, qxhttp::trace_level,
                            "http: a CRL block of %s is not Base64\n", url);
            return QXL_ERR_FETCH;
        }
        if (status != 0)
            return status;
        // An empty block counts, as an empty LDAP value does, and holds no CRL.
        if (derLength == 0)
            qxumfree(ctx, &der);
        else if ((status = chain.adopt(der, derLength)) != 0)
            return status;
        ++blocks;
        at = end + footer;
    }
    if (blocks > 0)
        return 0;
    qxu_print_trace(ctx, qxhttp::function_name, qxhttp::trace_level,
                    "http: the body of %s is no DER CRL and has no PEM CRL\n", url);
    return QXL_ERR_FETCH;
}

} // namespace

namespace qxhttp {

StatusCode take_crls(SecurityContext* ctx, const char* url, Body& body, qxfetch::Chain& chain) {
    if (!is_der(body.data(), body.size())) {
        const StatusCode status = take_pem(
            ctx, url, std::string_view(reinterpret_cast<const char*>(body.data()), body.size()),
            chain);
        body.clear();
        return status;
    }
    const uint32_t size = body.size();
    unsigned char* der = nullptr;
    StatusCode status = body.release(&der);
    if (status == 0 && (status = chain.admit(size)) != 0)
        qxumfree(ctx, &der);
    return status != 0 ? status : chain.adopt(der, size);
}

} // namespace qxhttp
