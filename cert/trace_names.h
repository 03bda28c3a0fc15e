// Trace names, levels and message texts of the module, defined once. A trace
// name belongs to the call site, not always to the operation that writes it.
#ifndef QXCRL_CERT_TRACE_NAMES_H
#define QXCRL_CERT_TRACE_NAMES_H

#include <cstdint>

namespace qxcrl::trace {

// What each level carries.
inline constexpr uint32_t decode_failure = 1;
inline constexpr uint32_t service_failure = 2;
inline constexpr uint32_t verdict = 4;
inline constexpr uint32_t progress = 5;

inline constexpr char name_load[] = "qxcrl_Load";
inline constexpr char name_set_der_crl[] = "qxcrl_SetDERCrl";

// Toolkit call names that appear as message arguments.
inline constexpr char call_crl_from_binary[] = "R_CRL_from_binary";

} // namespace qxcrl::trace

#endif
