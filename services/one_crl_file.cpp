// A file holding one CRL, DER or a single PEM block, read straight into the
// bytes the CRL keeps. A CRL of a million entries then costs its file's size
// once: a DER file is the CRL's buffer as read, and a PEM file's Base64 is
// decoded where it lies, into the start of the same buffer.
#include <cstring>
#include <string_view>
#include <unistd.h>

#include "base64.h"
#include "qxcrl.h"
#include "toolkit_access.h"
#include "whole_file.h"

namespace {

constexpr std::string_view begin_marker = "-----BEGIN ";
constexpr std::string_view end_marker = "-----END ";

bool is_crl_label_at(std::string_view text, size_t at) {
    for (const char* header :
         {QX_STR_CRL_HEADER, QX_STR_CRL_HEADER1, QX_STR_CRL_HEADER2, QX_STR_CRL_HEADER3}) {
        if (text.compare(at, std::strlen(header), header) == 0)
            return true;
    }
    return false;
}

// The begin lines under a CRL label in text, counted up to two; *first is
// where the first starts.
int crl_begin_lines(std::string_view text, size_t* first) {
    int count = 0;
    for (size_t at = text.find(begin_marker); at != std::string_view::npos && count < 2;
         at = text.find(begin_marker, at + 1)) {
        if (is_crl_label_at(text, at) && count++ == 0)
            *first = at;
    }
    return count;
}

// The CRL's DER at the start of buffer; false when the file is not one CRL.
// The readers that split a file into blocks read any file with a CRL begin
// line as its blocks, whatever else it holds (a DER CRL can carry such text
// in an extension), so only a file without one can be DER, and only a file
// with exactly one is one block: its Base64, from the line after the begin
// line to the first end line, is decoded where it lies.
bool der_in_place(unsigned char* buffer, uint32_t length, uint32_t* derLength) {
    const std::string_view text(reinterpret_cast<const char*>(buffer), length);
    size_t block = 0;
    const int blocks = crl_begin_lines(text, &block);
    if (blocks == 0) {
        *derLength = length;
        return length != 0 && buffer[0] == 0x30; // a DER CRL is a SEQUENCE
    }
    const size_t lineEnd = text.find('\n', block);
    const size_t end = text.find(end_marker, block);
    if (blocks > 1 || lineEnd == std::string_view::npos || end == std::string_view::npos ||
        end < lineEnd)
        return false;
    return qxl_base64_decode(buffer + lineEnd + 1, static_cast<uint32_t>(end - lineEnd - 1), buffer,
                             derLength);
}

} // namespace

extern "C" StatusCode qxfile_read_one_crl(SecurityContext* ctx, const char* path, CrlObject** crl) {
    if (crl == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    *crl = nullptr;
    if (ctx == nullptr || ctx->layerContext == nullptr || path == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    R_LIB_CTX* libCtx = qxl_toolkit_context(ctx);
    if (libCtx == nullptr)
        return QXL_ERR_TOOLKIT;
    int fd = -1;
    uint32_t size = 0;
    if (const StatusCode opened = qxl_open_whole(ctx, path, &fd, &size); opened != 0)
        return opened;
    unsigned char* buffer = R_BUFFER_new(size);
    uint32_t length = 0;
    StatusCode status =
        buffer == nullptr ? QXL_ERR_OUT_OF_MEMORY : qxl_read_all(fd, buffer, size, &length);
    close(fd);
    uint32_t derLength = 0;
    if (status == 0 && !der_in_place(buffer, length, &derLength))
        status = QXL_ERR_NOT_A_CRL;
    CrlObject* made = nullptr;
    if (status == 0)
        made = static_cast<CrlObject*>(qxumalloc(ctx, sizeof(CrlObject), &status));
    R_CRL* decoded = nullptr;
    if (made != nullptr) {
        uint32_t consumed = 0;
        const int toolkit =
            R_CRL_from_binary_owned(libCtx, 0, derLength, buffer, &consumed, &decoded);
        if (toolkit == R_ERROR_ALLOC_FAILURE)
            status = QXL_ERR_OUT_OF_MEMORY;
        else if (toolkit == R_ERROR_DECODE || toolkit == R_ERROR_UNSUPPORTED)
            status = QXL_ERR_NOT_A_CRL;
        else if (toolkit != R_ERROR_NONE)
            status = QXL_ERR_TOOLKIT;
        // Bytes after the CRL may be more CRLs (PEM blocks among them): the
        // file is one CRL only when the CRL is all of it.
        if (toolkit == R_ERROR_NONE && consumed != derLength) {
            R_CRL_free(decoded); // with buffer, which it owned
            buffer = nullptr;
            status = QXL_ERR_NOT_A_CRL;
        }
    }
    if (status != 0) {
        R_BUFFER_free(buffer);
        qxumfree(ctx, &made);
        return status;
    }
    made->crl = decoded;
    *crl = made;
    return 0;
}
