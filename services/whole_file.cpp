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
    *length = 0;
    if (*bytes == nullptr)
        return status;
    status = qxl_read_all(fd, *bytes, size, length);
    if (status != 0)
        qxumfree(ctx, bytes);
    return status;
}

// The largest file read whole: the layer's setting, and never so large that
// its bytes and a NUL would not fit a 32-bit length.
uint32_t file_limit(const LayerContext* layer) {
    return std::min(layer->maxFileBytes, UINT32_MAX - 1);
}

} // namespace

StatusCode qxl_read_all(int fd, unsigned char* buffer, uint32_t size, uint32_t* length) {
    uint32_t done = 0;
    while (done < size) {
        const ssize_t got = read(fd, buffer + done, size - done);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            qxl_wipe(buffer, done);
            *length = 0;
            return QXL_ERR_FILE;
        }
        if (got == 0)
            break; // the file shrank: what is there is the file
        done += static_cast<uint32_t>(got);
    }
    *length = done;
    return 0;
}

StatusCode qxl_open_whole(const SecurityContext* ctx, const char* path, int* fd, uint32_t* size) {
    // Without O_NONBLOCK, opening a FIFO would wait for a writer forever;
    // what was opened is judged by fstat before anything is read.
    *fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (*fd < 0)
        return QXL_ERR_FILE;
    struct stat info {};
    if (fstat(*fd, &info) != 0 || !S_ISREG(info.st_mode) ||
        static_cast<uint64_t>(info.st_size) > file_limit(ctx->layerContext)) {
        close(*fd);
        *fd = -1;
        return QXL_ERR_FILE;
    }
    *size = static_cast<uint32_t>(info.st_size);
    return 0;
}

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
    int fd = -1;
    uint32_t size = 0;
    StatusCode status = qxl_open_whole(ctx, path, &fd, &size);
    if (status != 0)
        return status;
    status = read_into_block(ctx, fd, size, bytes, length);
    close(fd);
    return status;
}
