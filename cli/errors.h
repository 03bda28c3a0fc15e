// Status names and the one-line error report every command uses.
#ifndef QXCRL_CLI_ERRORS_H
#define QXCRL_CLI_ERRORS_H

#include <cstdint>
#include <string>

namespace qxcli {

// Exit status of a failed operation.
constexpr int failure_exit = 10;

// Exit status of a CRL the library refuses to take (a critical extension it
// does not process, a delta CRL): the file is a CRL, but no answer comes from it.
constexpr int refused_exit = 20;

// "QXERR_CRL_DECODE", "QXL_ERR_FILE", ... or "unknown status".
const char* status_name(uint32_t status);

// Writes "qxcrl: <what>: <code> <name>" to stderr and returns failure_exit.
int report(const std::string& what, uint32_t status);

// The same with what was wrong: "qxcrl: <what>: <code> <name> (<why>)".
int report(const std::string& what, uint32_t status, const std::string& why);

// Writes "qxcrl: <what>: refused: <reason>" to stderr and returns refused_exit.
int refused(const std::string& what, const std::string& reason);

} // namespace qxcli

#endif
