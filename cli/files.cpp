#include "files.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "qxlayer.h"

namespace qxcli {

bool write_atomically(const std::string& path, const void* bytes, size_t length) {
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash);
    std::string pattern = directory + "/.qxcrl-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int fd = mkstemp(name.data());
    if (fd < 0)
        return false;
    // mkstemp makes the file 0600; a CRL is public, so give it the usual mode.
    fchmod(fd, 0644);
    const auto* cursor = static_cast<const char*>(bytes);
    size_t left = length;
    bool ok = true;
    while (ok && left > 0) {
        const ssize_t written = write(fd, cursor, left);
        if (written < 0 && errno == EINTR)
            continue;
        ok = written > 0;
        if (ok) {
            cursor += written;
            left -= static_cast<size_t>(written);
        }
    }
    ok = ok && fsync(fd) == 0;
    const int saved = errno;
    ok = close(fd) == 0 && ok;
    if (ok && std::rename(name.data(), path.c_str()) == 0) {
        // Make the rename itself durable.
        const int dirFd = open(directory.c_str(), O_RDONLY | O_DIRECTORY);
        if (dirFd >= 0) {
            fsync(dirFd);
            close(dirFd);
        }
        return true;
    }
    const int failure = ok ? errno : saved;
    unlink(name.data());
    errno = failure;
    return false;
}

std::string file_problem(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0)
        return errno == ENOENT ? "no such file"
                               : std::string("cannot be read: ") + std::strerror(errno);
    if (!S_ISREG(info.st_mode))
        return S_ISDIR(info.st_mode) ? "a directory, not a file" : "not a regular file";
    if (access(path.c_str(), R_OK) != 0)
        return std::string("not readable: ") + std::strerror(errno);
    if (static_cast<uint64_t>(info.st_size) > QX_DEFAULT_MAX_FILE_BYTES)
        return "larger than the " + std::to_string(QX_DEFAULT_MAX_FILE_BYTES) +
               " bytes the layer reads whole";
    return "cannot be read";
}

} // namespace qxcli
