// Reading one item out of a CRL: version, signature type, issuer, times,
// entry count, an entry's serial or revocation date, the CRL Number.
#include <cstring>

#include "frame.h"

using namespace qxcrl;

namespace {

// Limits of the issuer name (DER and text) and of an exported time.
constexpr uint32_t name_limit = 1025;
constexpr uint32_t time_limit = 128;

// The objects one call may make. Declared in the reverse of the order they
// are released in: name, entry, time, time context, extension.
struct DetailObjects {
    ExtHandle extension;
    TimeCtxHandle timeCtx;
    TimeHandle time;
    CrlEntryHandle entry;
    NameHandle name;
};

// Exports time as text into out, NUL-terminated; out is written only on success.
StatusCode export_time(R_TIME* time, void* out) {
    unsigned char text[time_limit];
    uint32_t length = 0;
    if (R_TIME_export(time, R_TIME_FORMAT_RFC3339, text, &length, time_limit) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    std::memcpy(out, text, length);
    static_cast<char*>(out)[length] = '\0';
    return 0;
}

// Copies a toolkit item into the caller's detail buffer. A non-zero length
// on entry is the room at data: a serial or extension value is as long as
// the CRL's author made it, so one longer than that room is refused rather
// than written past it.
StatusCode copy_item(const R_ITEM& item, void* out) {
    auto* buffer = static_cast<CrlDetailBuffer*>(out);
    if (buffer->data == nullptr || (buffer->length != 0 && item.len > buffer->length))
        return QXERR_NO_OUTPUT_BUFFER;
    std::memcpy(buffer->data, item.data, item.len);
    buffer->length = item.len;
    return 0;
}

StatusCode read_issuer_name(SecurityContext* ctx, R_CRL* crl, DetailObjects& objects, void* out) {
    unsigned char work[name_limit];
    uint32_t length = 0;
    if (R_CRL_issuer_name_to_binary(crl, name_limit, work, &length) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    R_CERT_CTX* certCtx = nullptr;
    if (const StatusCode status = qxGCC_GetCertcCtx(ctx, &certCtx); status != 0)
        return status;
    if (R_CERT_NAME_from_binary(certCtx, 0, length, work, &length, objects.name.out()) !=
            R_ERROR_NONE ||
        R_CERT_NAME_to_string(objects.name.get(), name_limit, reinterpret_cast<char*>(work)) !=
            R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    std::memcpy(out, work, std::strlen(reinterpret_cast<char*>(work)) + 1);
    return 0;
}

StatusCode read_entry(SecurityContext* ctx, R_CRL* crl, CrlDetailItem item, uint32_t index,
                      DetailObjects& objects, void* out) {
    if (R_CRL_ENTRY_new(toolkit_context(ctx), 0, objects.entry.out()) != R_ERROR_NONE ||
        R_CRL_get_entry(crl, index, objects.entry.get()) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    if (item == QXCRL_DETAIL_ENTRY_SERIAL) {
        R_ITEM serial{};
        if (R_CRL_ENTRY_get_info(objects.entry.get(), R_CRL_ENTRY_INFO_SERIAL, &serial) !=
            R_ERROR_NONE)
            return QXERR_TOOLKIT_FAILURE;
        return copy_item(serial, out);
    }
    if (R_CRL_ENTRY_get_info(objects.entry.get(), R_CRL_ENTRY_INFO_REVOCATION_DATE,
                             objects.time.get()) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    return export_time(objects.time.get(), out);
}

StatusCode read_crl_number(SecurityContext* ctx, R_CRL* crl, DetailObjects& objects, void* out) {
    R_ITEM value{};
    if (R_EXT_new(toolkit_context(ctx), 0, objects.extension.out()) != R_ERROR_NONE ||
        R_CRL_get_info(crl, R_CRL_INFO_CRL_NUMBER, objects.extension.get()) != R_ERROR_NONE ||
        R_EXT_get_info(objects.extension.get(), R_EXT_INFO_VALUE, &value) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    return copy_item(value, out);
}

// Reads a 32-bit value of the CRL into out.
StatusCode read_word(R_CRL* crl, int id, void* out) {
    uint32_t value = 0;
    if (R_CRL_get_info(crl, id, &value) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    *static_cast<uint32_t*>(out) = value;
    return 0;
}

} // namespace

extern "C" StatusCode qxcrl_GetDetails(SecurityContext* ctx, CrlObject* crl, CrlDetailItem item,
                                       uint32_t index, void* out) {
    if (ctx == nullptr || ctx->layerContext == nullptr || crl == nullptr || crl->crl == nullptr ||
        out == nullptr)
        return QXERR_BAD_PARAMETER;
    DetailObjects objects;
    if (R_TIME_CTX_new(toolkit_context(ctx), 0, objects.timeCtx.out()) != R_ERROR_NONE ||
        R_TIME_new(objects.timeCtx.get(), objects.time.out()) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;

    R_CRL* toolkitCrl = crl->crl;
    switch (item) {
    case QXCRL_DETAIL_VERSION:
        return read_word(toolkitCrl, R_CRL_INFO_VERSION, out);
    case QXCRL_DETAIL_SIGNATURE_TYPE: {
        uint32_t algorithm = 0;
        if (R_CRL_get_info(toolkitCrl, R_CRL_INFO_SIGNATURE_ALGORITHM, &algorithm) != R_ERROR_NONE)
            return QXERR_TOOLKIT_FAILURE;
        return qxbc_map_sign2(algorithm, static_cast<uint32_t*>(out));
    }
    case QXCRL_DETAIL_ISSUER_NAME:
        return read_issuer_name(ctx, toolkitCrl, objects, out);
    case QXCRL_DETAIL_THIS_UPDATE:
    case QXCRL_DETAIL_NEXT_UPDATE: {
        const int id =
            item == QXCRL_DETAIL_THIS_UPDATE ? R_CRL_INFO_THIS_UPDATE : R_CRL_INFO_NEXT_UPDATE;
        if (R_CRL_get_info(toolkitCrl, id, objects.time.get()) != R_ERROR_NONE)
            return QXERR_TOOLKIT_FAILURE;
        return export_time(objects.time.get(), out);
    }
    case QXCRL_DETAIL_ENTRY_COUNT: {
        uint32_t count = 0;
        if (R_CRL_get_entry_count(toolkitCrl, &count) != R_ERROR_NONE)
            return QXERR_TOOLKIT_FAILURE;
        *static_cast<uint32_t*>(out) = count;
        return 0;
    }
    case QXCRL_DETAIL_ENTRY_SERIAL:
    case QXCRL_DETAIL_ENTRY_REVOCATION_DATE:
        return read_entry(ctx, toolkitCrl, item, index, objects, out);
    case QXCRL_DETAIL_EXTENSION:
        return read_crl_number(ctx, toolkitCrl, objects, out);
    default:
        return 0; // an item this version does not know delivers nothing
    }
}

extern "C" StatusCode qxcrlDC_DisplayCrl(void) {
    return 0;
}
