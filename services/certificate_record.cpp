// Certificate records: a certificate decoded once, with the facts the module
// reads from it laid out in blocks of the layer's allocator so that the
// layer's live-block count accounts for every one of them.
#include <cstring>

#include "../toolkit/r_toolkit.h"
#include "qxlayer.h"

namespace {

// Names longer than this as text are not certificates anyone issues.
constexpr uint32_t name_text_limit = 1u << 20;
constexpr uint32_t name_text_first = 256;

StatusCode from_toolkit(int status) {
    if (status == R_ERROR_NONE)
        return 0;
    return status == R_ERROR_DECODE ? QXL_ERR_CERT_DECODE : QXL_ERR_TOOLKIT;
}

template <typename T> T* allocate(SecurityContext* ctx, uint32_t count, StatusCode* status) {
    const uint64_t size = static_cast<uint64_t>(sizeof(T)) * count;
    if (size > UINT32_MAX) {
        *status = QXL_ERR_OUT_OF_MEMORY;
        return nullptr;
    }
    void* block = qxumalloc(ctx, static_cast<uint32_t>(size), status);
    if (block != nullptr)
        std::memset(block, 0, static_cast<size_t>(size));
    return static_cast<T*>(block);
}

void free_text(SecurityContext* ctx, QxString** text) {
    if (*text != nullptr)
        qxumfree(ctx, &(*text)->data);
    qxumfree(ctx, text);
}

// Releases a record however far it was built: counts only ever cover
// zeroed or filled slots.
void release(SecurityContext* ctx, CertificateRecord* record) {
    for (uint32_t point = 0; record->distPoints != nullptr && point < record->distPointCount;
         ++point) {
        CrlDistPoint& dp = record->distPoints[point];
        for (uint32_t name = 0; dp.names != nullptr && name < dp.nameCount; ++name)
            qxumfree(ctx, &dp.names[name].value);
        qxumfree(ctx, &dp.names);
    }
    qxumfree(ctx, &record->distPoints);
    qxumfree(ctx, &record->der);
    free_text(ctx, &record->subjectText);
    free_text(ctx, &record->issuerText);
    R_CERT_free(record->cert);
    qxumfree(ctx, &record);
}

// The name's RFC 4514 text; the toolkit gives no length, so the buffer grows
// until the text fits.
StatusCode name_text(SecurityContext* ctx, R_CERT* cert, int which, QxString** out) {
    R_CERT_NAME* name = nullptr;
    StatusCode status = from_toolkit(R_CERT_get_info(cert, which, &name));
    if (status != 0)
        return status;
    QxString* text = allocate<QxString>(ctx, 1, &status);
    for (uint32_t size = name_text_first; text != nullptr; size *= 2) {
        text->data = static_cast<char*>(qxumalloc(ctx, size, &status));
        if (text->data == nullptr)
            break;
        const int written = R_CERT_NAME_to_string(name, size, text->data);
        if (written == R_ERROR_NONE) {
            text->length = static_cast<uint32_t>(std::strlen(text->data));
            break;
        }
        qxumfree(ctx, &text->data);
        if (written != R_ERROR_BUFFER_TOO_SMALL || size >= name_text_limit) {
            status = QXL_ERR_TOOLKIT;
            break;
        }
    }
    R_CERT_NAME_free(name);
    if (text != nullptr && text->data == nullptr)
        qxumfree(ctx, &text);
    *out = text;
    return text == nullptr ? status : 0;
}

// DER input is kept as received; PEM input has only the decoded certificate
// to go by, and the toolkit encodes that.
StatusCode copy_der(SecurityContext* ctx, CertificateRecord* record, const unsigned char* received,
                    uint32_t receivedLength) {
    uint32_t length = receivedLength;
    StatusCode status = 0;
    if (received == nullptr) {
        status = from_toolkit(R_CERT_to_binary(record->cert, 0, nullptr, &length));
        if (status != 0)
            return status;
    }
    record->der = static_cast<unsigned char*>(qxumalloc(ctx, length, &status));
    if (record->der == nullptr)
        return status;
    record->derLength = length;
    if (received != nullptr) {
        std::memcpy(record->der, received, length);
        return 0;
    }
    return from_toolkit(R_CERT_to_binary(record->cert, length, record->der, &length));
}

StatusCode fill_point(SecurityContext* ctx, R_CERT* cert, uint32_t index, CrlDistPoint* point) {
    uint32_t count = 0;
    StatusCode status =
        from_toolkit(R_CERT_get_dist_point(cert, index, &point->kind, &point->reasons, &count));
    if (status != 0 || count == 0)
        return status;
    point->names = allocate<DistPointName>(ctx, count, &status);
    if (point->names == nullptr)
        return status;
    point->nameCount = count;
    for (uint32_t n = 0; n < count; ++n) {
        DistPointName& name = point->names[n];
        uint32_t length = 0;
        status = from_toolkit(
            R_CERT_get_dist_point_name(cert, index, n, &name.type, 0, nullptr, &length));
        if (status != 0)
            return status;
        if (length == UINT32_MAX)
            return QXL_ERR_TOOLKIT;
        name.value = static_cast<char*>(qxumalloc(ctx, length + 1, &status));
        if (name.value == nullptr)
            return status;
        status = from_toolkit(R_CERT_get_dist_point_name(cert, index, n, &name.type, length + 1,
                                                         name.value, &length));
        if (status != 0)
            return status;
    }
    return 0;
}

StatusCode fill(SecurityContext* ctx, CertificateRecord* record, const unsigned char* received,
                uint32_t receivedLength) {
    StatusCode status = name_text(ctx, record->cert, R_CERT_INFO_ISSUER_NAME, &record->issuerText);
    if (status == 0)
        status = name_text(ctx, record->cert, R_CERT_INFO_SUBJECT_NAME, &record->subjectText);
    if (status == 0)
        status =
            from_toolkit(R_CERT_get_info(record->cert, R_CERT_INFO_NOT_BEFORE, &record->notBefore));
    if (status == 0)
        status =
            from_toolkit(R_CERT_get_info(record->cert, R_CERT_INFO_NOT_AFTER, &record->notAfter));
    if (status == 0)
        status = copy_der(ctx, record, received, receivedLength);
    uint32_t count = 0;
    if (status == 0)
        status = from_toolkit(R_CERT_get_info(record->cert, R_CERT_INFO_DIST_POINT_COUNT, &count));
    if (status != 0 || count == 0)
        return status;
    record->distPoints = allocate<CrlDistPoint>(ctx, count, &status);
    if (record->distPoints == nullptr)
        return status;
    record->distPointCount = count;
    for (uint32_t index = 0; index < count && status == 0; ++index)
        status = fill_point(ctx, record->cert, index, &record->distPoints[index]);
    return status;
}

} // namespace

extern "C" StatusCode qxcert_from_bytes(SecurityContext* ctx, const unsigned char* bytes,
                                        uint32_t length, CertificateRecord** out) {
    if (out == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    *out = nullptr;
    R_CERT_CTX* certCtx = nullptr;
    if (ctx == nullptr || (bytes == nullptr && length != 0) ||
        qxGCC_GetCertcCtx(ctx, &certCtx) != 0)
        return QXL_ERR_BAD_ARGUMENT;
    StatusCode status = 0;
    CertificateRecord* record = allocate<CertificateRecord>(ctx, 1, &status);
    if (record == nullptr)
        return status;
    // DER is a SEQUENCE; anything else is taken for PEM text.
    const bool der = length > 0 && bytes[0] == 0x30;
    uint32_t consumed = 0;
    if (der)
        status =
            from_toolkit(R_CERT_from_binary(certCtx, 0, length, bytes, &consumed, &record->cert));
    else
        status = from_toolkit(
            R_CERT_from_text(certCtx, length, reinterpret_cast<const char*>(bytes), &record->cert));
    if (status == 0)
        status = fill(ctx, record, der ? bytes : nullptr, consumed);
    if (status != 0) {
        release(ctx, record);
        return status;
    }
    *out = record;
    return 0;
}

extern "C" StatusCode qxcert_from_file(SecurityContext* ctx, const char* path,
                                       CertificateRecord** out) {
    if (out == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    *out = nullptr;
    if (ctx == nullptr || path == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    unsigned char* bytes = nullptr;
    uint32_t length = 0;
    StatusCode status = qxfile_read_whole(ctx, path, &bytes, &length);
    if (status != 0)
        return status;
    status = qxcert_from_bytes(ctx, bytes, length, out);
    qxumfree(ctx, &bytes);
    return status;
}

extern "C" void qxcert_free(SecurityContext* ctx, CertificateRecord** record) {
    if (record == nullptr || *record == nullptr)
        return;
    release(ctx, *record);
    *record = nullptr;
}
