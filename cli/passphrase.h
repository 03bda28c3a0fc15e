// A key's passphrase from where --passin says, so that it need not stand on
// the command line: pass:TEXT, env:VAR, file:PATH, fd:N or stdin, as
// `openssl -passin` reads them.
#ifndef QXCRL_CLI_PASSPHRASE_H
#define QXCRL_CLI_PASSPHRASE_H

#include <optional>
#include <string>

#include "options.h"

namespace qxcli {

// The help lines of --pass and --passin.
extern const char passphrase_help[];

// The passphrase from --passin or --pass (nullopt without either) into
// passphrase; 0, or the exit status of a mistake already reported.
int read_passphrase(const Arguments& arguments, const char* usage,
                    std::optional<std::string>& passphrase);

} // namespace qxcli

#endif
