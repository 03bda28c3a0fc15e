// Whole-file reads through POSIX, into the layer's allocator so that the
// caller's live-block count covers the bytes.
#include "whole_file.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

void qxl_wipe(void* block, size_t length) {
    if (block != nullptr && length > 0)
        explicit_bzero(block, length);
}

StatusCode qxl_read_whole_file(SecurityContext* ctx, const char* path, unsigned char** bytes,
                               uint32_t* length) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return QXL_ERR_FILE;
    struct stat info {};
    StatusCode status = 0;
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > UINT32_MAX - 1) {
        status = QXL_ERR_FILE;
    } else {
        const auto size = static_cast<uint32_t>(info.st_size);
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
        *length = done;
    }
    close(fd);
    return status;
}
