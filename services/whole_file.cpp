// Whole-file reads through POSIX, into the layer's allocator so that the
// caller's live-block count covers the bytes.
#include "whole_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Reads size bytes of fd into a new block *bytes; fewer when the file
// shrank meanwhile, so *length is what was read (0 when nothing is kept).
StatusCode read_into_block(SecurityContext* ctx, int fd, uint32_t size, unsigned char** bytes,
                           uint32_t* length) {
    StatusCode status = 0;
    *bytes = static_cast<unsigned char*>(qxumalloc(ctx, size, &status));
    uint32_t done = 0;
    while (*bytes != nullptr && done < size) {
        const ssize_t got = read(fd, *bytes + done, size - done);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            status = QXL_ERR_FILE;
            qxl_wipe(*bytes, done);
            qxumfree(ctx, bytes);
        } else if (got == 0) {
            break; // the file shrank: what is there is the file
        } else {
            done += static_cast<uint32_t>(got);
        }
    }
    *length = *bytes != nullptr ? done : 0;
    return status;
}

// The largest file read whole: the layer's setting, and never so large that
// its bytes and a NUL would not fit a 32-bit length.
uint32_t file_limit(const LayerContext* layer) {
    return std::min(layer->maxFileBytes, UINT32_MAX - 1);
}

} // namespace

void qxl_wipe(void* block, size_t length) {
    if (block != nullptr && length > 0)
        explicit_bzero(block, length);
}

extern "C" StatusCode qxfile_read_whole(SecurityContext* ctx, const char* path,
                                        unsigned char** bytes, uint32_t* length) {
    if (bytes == nullptr || length == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    *bytes = nullptr;
    *length = 0;
    if (ctx == nullptr || ctx->layerContext == nullptr || path == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    // Without O_NONBLOCK, opening a FIFO would wait for a writer forever;
    // what was opened is judged by fstat before anything is read.
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0)
        return QXL_ERR_FILE;
    struct stat info {};
    StatusCode status = QXL_ERR_FILE;
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) &&
        static_cast<uint64_t>(info.st_size) <= file_limit(ctx->layerContext))
        status = read_into_block(ctx, fd, static_cast<uint32_t>(info.st_size), bytes, length);
    close(fd);
    return status;
}
