// The default file interface: POSIX open, fstat, read and close, binary and
// read-only, regular files only. The name and file objects belong to this table, not to the
// module's allocator, so they never show in a layer's block count. The
// directory, flags and kind of dskmknam and the access arguments of dsklini
// do not change how a file is read here.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "qxlayer.h"

namespace {

// A name object is the NUL-terminated copy of its path.
struct PosixFile {
    int fd;
};

const char* path_of(void* name) {
    return static_cast<const char*>(name);
}

void* make_name(const QxFileInterface*, void*, const char* path, uint32_t, uint32_t) {
    if (path == nullptr)
        return nullptr;
    const size_t length = std::strlen(path) + 1;
    void* name = std::malloc(length);
    if (name != nullptr)
        std::memcpy(name, path, length);
    return name;
}

void* set_up(const QxFileInterface*, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
             const char*) {
    auto* file = static_cast<PosixFile*>(std::malloc(sizeof(PosixFile)));
    if (file != nullptr)
        file->fd = -1;
    return file;
}

int size_of(const QxFileInterface*, void* name, uint64_t* size) {
    if (name == nullptr || size == nullptr)
        return EINVAL;
    struct stat info {};
    if (stat(path_of(name), &info) != 0)
        return errno != 0 ? errno : EIO;
    if (!S_ISREG(info.st_mode))
        return EISDIR;
    *size = static_cast<uint64_t>(info.st_size);
    return 0;
}

// Only regular files are opened, so a directory or a device named where a
// CRL file should be fails here rather than at the first read. The size was
// taken from the name before, and something else may stand there now: opening
// without blocking keeps a FIFO swapped in from waiting for a writer, and
// fstat judges what was opened. Reads of a regular file never block anyway.
int open_file(const QxFileInterface*, void* file, void* name) {
    auto* opened = static_cast<PosixFile*>(file);
    if (opened == nullptr || name == nullptr || opened->fd >= 0)
        return EINVAL;
    const int fd = open(path_of(name), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0)
        return errno != 0 ? errno : EIO;
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        close(fd);
        return EISDIR;
    }
    opened->fd = fd;
    return 0;
}

int64_t read_file(const QxFileInterface*, void* file, void* destination, uint32_t wanted) {
    auto* opened = static_cast<PosixFile*>(file);
    if (opened == nullptr || opened->fd < 0 || (destination == nullptr && wanted != 0))
        return -EBADF;
    for (;;) {
        const ssize_t got = read(opened->fd, destination, wanted);
        if (got >= 0)
            return got;
        if (errno != EINTR)
            return errno != 0 ? -static_cast<int64_t>(errno) : -EIO;
    }
}

// close is not retried on EINTR: on Linux the descriptor is gone either way.
int close_file(const QxFileInterface*, void* file) {
    auto* opened = static_cast<PosixFile*>(file);
    if (opened == nullptr)
        return 0;
    int status = 0;
    if (opened->fd >= 0 && close(opened->fd) != 0)
        status = errno != 0 ? errno : EIO;
    std::free(opened);
    return status;
}

void free_name(const QxFileInterface*, void* name) {
    std::free(name);
}

const QxFileInterface posix_table = {make_name, set_up,     size_of,   open_file,
                                     read_file, close_file, free_name, nullptr};

} // namespace

extern "C" const QxFileInterface* qxfile_posix_interface(void) {
    return &posix_table;
}
