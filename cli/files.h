// Whole-file writes that never leave a half-written file behind.
#ifndef QXCRL_CLI_FILES_H
#define QXCRL_CLI_FILES_H

#include <string>

namespace qxcli {

// Writes bytes to a temporary file next to path, syncs it and renames it
// over path. Returns false (with errno set) when any step fails.
bool write_atomically(const std::string& path, const void* bytes, size_t length);

} // namespace qxcli

#endif
