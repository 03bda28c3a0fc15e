// --at TIME: the moment verify and status judge at, instead of now.
#ifndef QXCRL_CLI_AT_TIME_H
#define QXCRL_CLI_AT_TIME_H

#include <cstdint>
#include <optional>
#include <string>

#include "session.h"

namespace qxcli {

// Seconds since 1970 of an RFC 3339 time: "2025-02-25T00:00:00Z", with an
// optional fraction (dropped) and a "Z" or "+hh:mm"/"-hh:mm" offset; 't',
// 'z' and a space for 'T' are taken too. nullopt for anything else.
std::optional<int64_t> parse_rfc3339(const std::string& text);

// With --at, fixes the session's time; 0, or the usage or failure exit
// status already reported.
int apply_at(Session& session, const Arguments& arguments, const char* usage);

// The help line of --at.
extern const char at_help[];

} // namespace qxcli

#endif
