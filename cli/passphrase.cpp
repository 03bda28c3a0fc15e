#include "passphrase.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "errors.h"
#include "files.h"
#include "qxlayer.h"

namespace qxcli {

const char passphrase_help[] =
    "  --passin SRC   the key's passphrase from pass:TEXT, env:VAR, file:PATH (its first line), "
    "fd:N (its first line) or stdin (its first line), as openssl -passin (default: none, the "
    "key is not encrypted)\n"
    "  --pass PASS    the passphrase itself, visible to other users in the process list "
    "(default: none)\n";

namespace {

// The first line of what fd holds, without its line end; false on a read error.
bool first_line(int fd, std::string& line) {
    line.clear();
    char c = 0;
    for (;;) {
        const ssize_t got = read(fd, &c, 1);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return false;
        if (got == 0 || c == '\n')
            break;
        line += c;
    }
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return true;
}

} // namespace

int read_passphrase(const Arguments& arguments, const char* usage,
                    std::optional<std::string>& passphrase) {
    const auto source = arguments.value("--passin");
    if (!source) {
        passphrase = arguments.value("--pass");
        return 0;
    }
    if (arguments.has("--pass"))
        return usage_error("--pass and --passin exclude each other", usage);
    const std::string& text = *source;
    const size_t colon = text.find(':');
    const std::string kind = text.substr(0, colon);
    const std::string value = colon == std::string::npos ? "" : text.substr(colon + 1);
    std::string line;
    if (kind == "pass" && colon != std::string::npos) {
        passphrase = value;
    } else if (kind == "env" && !value.empty()) {
        const char* variable = std::getenv(value.c_str());
        if (variable == nullptr)
            return report("reading the passphrase from the environment", QXL_ERR_KEY,
                          "no variable " + value);
        passphrase = variable;
    } else if (kind == "file" && !value.empty()) {
        const int fd = open(value.c_str(), O_RDONLY | O_NONBLOCK);
        if (fd < 0)
            return report("reading the passphrase from " + value, QXL_ERR_FILE,
                          file_problem(value));
        const bool read = first_line(fd, line);
        close(fd);
        if (!read)
            return report("reading the passphrase from " + value, QXL_ERR_FILE,
                          std::strerror(errno));
        passphrase = line;
    } else if (kind == "fd" && !value.empty() &&
               value.find_first_not_of("0123456789") == std::string::npos && value.size() < 9) {
        if (!first_line(std::atoi(value.c_str()), line))
            return report("reading the passphrase from descriptor " + value, QXL_ERR_FILE,
                          std::strerror(errno));
        passphrase = line;
    } else if (text == "stdin") {
        if (!first_line(STDIN_FILENO, line))
            return report("reading the passphrase from standard input", QXL_ERR_FILE,
                          std::strerror(errno));
        passphrase = line;
    } else {
        return usage_error(
            "--passin takes pass:TEXT, env:VAR, file:PATH, fd:N or stdin, not " + text, usage);
    }
    return 0;
}

} // namespace qxcli
