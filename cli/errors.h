// Status names and the one-line error report every command uses.
#ifndef QXCRL_CLI_ERRORS_H
#define QXCRL_CLI_ERRORS_H

#include <cstdint>
#include <string>

namespace qxcli {

// Exit status of a failed operation.
constexpr int failure_exit = 10;

// "QXERR_CRL_DECODE", "QXL_ERR_FILE", ... or "unknown status".
const char* status_name(uint32_t status);

// Writes "qxcrl: <what>: <code> <name>" to stderr and returns failure_exit.
int report(const std::string& what, uint32_t status);

} // namespace qxcli

#endif
