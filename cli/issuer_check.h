// What qxcrl_VerifyCRL's one refusal status stood for: a CRL its issuer did
// not issue, in one of three ways, or one it issued without a next update,
// which is never current.
#ifndef QXCRL_CLI_ISSUER_CHECK_H
#define QXCRL_CLI_ISSUER_CHECK_H

#include <optional>

#include "session.h"

namespace qxcli {

struct Refusal {
    const char* word;   // what verify prints
    const char* reason; // what the note says
    int exitStatus;
};

std::optional<Refusal> refusal(Session& session, CrlObject* crl, const Certificate& issuer);

} // namespace qxcli

#endif
