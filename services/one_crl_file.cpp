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

// Where the one CRL block's Base64 lies: from the line after its begin
// marker to the first end marker. False unless the text holds exactly one
// begin marker under a CRL label, so that the readers that split a file into
// blocks would find this one block and no other.
bool only_block_body(std::string_view text, size_t* bodyStart, size_t* bodyEnd) {
    size_t block = std::string_view::npos;
    for (size_t at = text.find(begin_marker); at != std::string_view::npos;
         at = text.find(begin_marker, at + 1)) {
        if (!is_crl_label_at(text, at))
            continue;
        if (block != std::string_view::npos)
            return false;
        block = at;
    }
    if (block == std::string_view::npos)
        return false;
    const size_t lineEnd = text.find('\n', block);
    const size_t end = text.find(end_marker, block);
    if (lineEnd == std::string_view::npos || end == std::string_view::npos || end < lineEnd)
        return false;
    *bodyStart = lineEnd + 1;
    *bodyEnd = end;
    return true;
}

// The CRL's DER at the start of buffer: the whole of it for a DER file, or
// the PEM block's body decoded in place; false when it is neither.
bool der_in_place(unsigned char* buffer, uint32_t length, uint32_t* derLength) {
    if (length == 0)
        return false;
    // A DER CRL is a SEQUENCE; PEM text never starts with that byte's '0'
    // and its block, so the text readers take what does.
    if (buffer[0] == 0x30) {
        *derLength = length;
        return true;
    }
    size_t bodyStart = 0;
    size_t bodyEnd = 0;
    if (!only_block_body({reinterpret_cast<const char*>(buffer), length}, &bodyStart, &bodyEnd))
        return false;
    return qxl_base64_decode(buffer + bodyStart, static_cast<uint32_t>(bodyEnd - bodyStart), buffer,
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
