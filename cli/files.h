// Whole-file writes that never leave a half-written file behind.
#ifndef QXCRL_CLI_FILES_H
#define QXCRL_CLI_FILES_H

#include <string>

namespace qxcli {

// Writes bytes to a temporary file next to path, syncs it and renames it
// over path. Returns false (with errno set) when any step fails.
bool write_atomically(const std::string& path, const void* bytes, size_t length);

// What is wrong with the file at path that the layer could not read it:
// "no such file", "not a regular file", "not readable: ...", "larger than
// the 268435456 bytes the layer reads whole", or "cannot be read".
std::string file_problem(const std::string& path);

} // namespace qxcli

#endif
