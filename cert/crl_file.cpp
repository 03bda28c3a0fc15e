// CRL files: a whole file read through the layer's file interface, a
// one-CRL file (DER or PEM) loaded into a record, and a file of PEM CRLs
// delivered to a cache owner.
#include <algorithm>
#include <cstring>

#include "frame.h"
#include "module_internal.h"

using namespace qxcrl;

namespace {

// The dsklini arguments for a plain sequential binary read.
constexpr uint32_t access_read = 1;
constexpr uint32_t sharing_read = 2;
constexpr uint32_t mode_binary = 0x40;
constexpr uint32_t buffer_size = 0xE000;
constexpr uint32_t sequential = 1;
constexpr char read_mode_description[] = "File in Read Mode";

// Reads size bytes of an open file into buffer; the file layer may deliver
// them in pieces.
StatusCode read_all(SecurityContext* ctx, const QxFileInterface* files, void* file,
                    const char* path, unsigned char* buffer, uint32_t size) {
    uint32_t total = 0;
    while (total < size) {
        const int64_t count = files->dskrd(files, file, buffer + total, size - total);
        // A read of nothing before the end means the file shrank: stop
        // rather than ask again forever.
        if (count <= 0) {
            qxu_print_trace(ctx, trace::name_get_crl_from_file, trace::progress,
                            trace::msg_file_read_failed, path, static_cast<int>(count));
            return QXERR_FILE_IO;
        }
        total += static_cast<uint32_t>(count);
    }
    return 0;
}

// Steps after the file object is set up; the caller closes it.
StatusCode size_and_read(SecurityContext* ctx, const QxFileInterface* files, void* name, void* file,
                         const char* path, unsigned char** buffer, uint32_t* length) {
    uint64_t size = 0;
    if (files->dsklenn(files, name, &size) != 0) {
        qxu_print_trace(ctx, trace::name_get_crl_from_file, trace::service_failure,
                        trace::msg_file_length_failed, path);
        return QXERR_FILE_IO;
    }
    // Refused before any memory is asked for: the buffer holds the file and a
    // NUL in a 32-bit length, and the layer caps the files it reads whole.
    const uint32_t limit = std::min(ctx->layerContext->maxFileBytes, UINT32_MAX - 1);
    if (size > limit) {
        qxu_print_trace(ctx, trace::name_get_crl_from_file, trace::service_failure,
                        trace::msg_file_too_large, path, static_cast<unsigned long long>(size),
                        limit);
        return QXERR_FILE_IO;
    }
    if (files->dskopn(files, file, name) != 0) {
        qxu_print_trace(ctx, trace::name_get_crl_from_file, trace::service_failure,
                        trace::msg_file_open_failed, path);
        return QXERR_FILE_IO;
    }
    const auto bytes = static_cast<uint32_t>(size);
    StatusCode result = 0;
    void* resized = qxumrealloc(ctx, *buffer, bytes + 1, &result);
    if (resized == nullptr) {
        qxu_print_trace(ctx, trace::name_get_crl_from_file, trace::service_failure,
                        trace::msg_file_buffer_failed, static_cast<int>(bytes + 1), path);
        return result;
    }
    *buffer = static_cast<unsigned char*>(resized);
    result = read_all(ctx, files, file, path, *buffer, bytes);
    if (result == 0) {
        *length = bytes;
        (*buffer)[bytes] = '\0';
    }
    return result;
}

// The DER of a one-CRL file: the body of its first primary PEM block,
// decoded into *decoded, or the whole file.
StatusCode crl_der(SecurityContext* ctx, const unsigned char* buffer, uint32_t length,
                   unsigned char** decoded, const unsigned char** der, uint32_t* derLength) {
    const char* text = reinterpret_cast<const char*>(buffer);
    const char* begin = std::strstr(text, QX_STR_CRL_HEADER);
    if (begin == nullptr) {
        *der = buffer;
        *derLength = length;
        return 0;
    }
    const char* body = begin + std::strlen(QX_STR_CRL_HEADER);
    const char* end = std::strstr(body, QX_STR_CRL_FOOTER);
    if (end == nullptr) {
        qxu_print_trace(ctx, trace::name_load_crl, trace::decode_failure, qx0264trc);
        return QXERR_CRL_DECODE;
    }
    const StatusCode result =
        qxbc_b64_to_der(ctx, body, static_cast<uint32_t>(end - body), decoded, derLength);
    *der = *decoded;
    return result;
}

} // namespace

StatusCode qxcrlGetCRLFromFile(SecurityContext* ctx, const char* path, unsigned char** buffer,
                               uint32_t* length) {
    if (length != nullptr)
        *length = 0;
    TraceFrame frame(ctx, trace::name_get_crl_from_file);
    if (ctx == nullptr || ctx->layerContext == nullptr || buffer == nullptr || length == nullptr ||
        path == nullptr || ctx->layerContext->fileContext == nullptr)
        return QXERR_BAD_PARAMETER;
    frame.enter();
    const QxFileInterface* files = ctx->layerContext->fileContext;

    void* name = files->dskmknam(files, nullptr, path, 0, 1);
    if (name == nullptr) {
        qxu_print_trace(ctx, trace::name_get_crl_from_file, trace::service_failure,
                        trace::msg_file_name_failed, path);
        return QXERR_FILE_IO;
    }
    StatusCode result = 0;
    void* file = files->dsklini(files, access_read, sharing_read, mode_binary, buffer_size,
                                sequential, read_mode_description);
    if (file == nullptr) {
        qxu_print_trace(ctx, trace::name_get_crl_from_file, trace::service_failure,
                        trace::msg_file_setup_failed, path);
        result = QXERR_FILE_IO;
    } else {
        result = size_and_read(ctx, files, name, file, path, buffer, length);
        if (files->dskcls(files, file) != 0) {
            result = QXERR_FILE_IO;
            qxu_print_trace(ctx, trace::name_get_crl_from_file, trace::service_failure,
                            trace::msg_file_close_failed, static_cast<int>(QXERR_FILE_IO), path);
        }
        if (result != 0)
            *length = 0; // what was read is incomplete
    }
    files->dskfno(files, name);
    return result;
}

extern "C" StatusCode qxcrl_Load(SecurityContext* ctx, CrlObject** crl, const char* path) {
    TraceFrame frame(ctx, trace::name_load_crl);
    if (ctx == nullptr || ctx->layerContext == nullptr || crl == nullptr || path == nullptr)
        return QXERR_BAD_PARAMETER;
    frame.enter();
    unsigned char* buffer = nullptr;
    uint32_t length = 0;
    StatusCode result = qxcrlGetCRLFromFile(ctx, path, &buffer, &length);
    LayerBlock<unsigned char> file(ctx, buffer);
    if (result != 0)
        return result;
    if (!file) {
        qxu_print_trace(ctx, trace::name_load_crl, trace::decode_failure, qx0266trc, path);
        return QXERR_CRL_DECODE;
    }
    unsigned char* decoded = nullptr;
    const unsigned char* der = nullptr;
    uint32_t derLength = 0;
    result = crl_der(ctx, file.get(), length, &decoded, &der, &derLength);
    LayerBlock<unsigned char> pemDer(ctx, decoded);
    if (result != 0)
        return result;
    return qxcrl_CreateCtx(ctx, crl, der, derLength);
}

extern "C" StatusCode qxcrlLOC_LoadCRL(SecurityContext* ctx, CrlObject** crl, const char* path) {
    return qxcrl_Load(ctx, crl, path);
}

extern "C" StatusCode qxcrl_LoadConcatCRL(CrlCacheOwner* owner, const char* path) {
    if (owner == nullptr || owner->parent == nullptr)
        return QXERR_BAD_PARAMETER;
    SecurityContext* ctx = owner->parent->securityContext;
    TraceFrame frame(ctx, trace::name_load_concat_crl);
    if (ctx == nullptr || ctx->layerContext == nullptr || path == nullptr)
        return QXERR_BAD_PARAMETER;
    frame.enter();
    unsigned char* buffer = nullptr;
    uint32_t length = 0;
    StatusCode result = qxcrlGetCRLFromFile(ctx, path, &buffer, &length);
    LayerBlock<unsigned char> file(ctx, buffer);
    if (result != 0)
        return result;
    result = qxcrl_SetB64Crl(owner, reinterpret_cast<const char*>(file.get()), length);
    if (result != 0)
        qxu_print_trace(ctx, trace::name_load_concat_crl, trace::decode_failure, qx0266trc, path);
    return result;
}
