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
inline constexpr char name_verify[] = "qxcrl_Verify";
inline constexpr char name_verify_signature[] = "qxcrlVCS_VerifyCRLSignature";
inline constexpr char name_check_cert_status[] = "qxcrl_CheckCertStatus";

// Verification verdicts (level 4).
inline constexpr char msg_verify_failed[] = "CRL Verify failed with error:%d";
inline constexpr char msg_no_next_update[] =
    "CRL validation failed as nextUpdate field in CRL is NULL\n";
inline constexpr char msg_time_compare_failed[] = "CRL time compare failed with mes error:%d";
inline constexpr char msg_crl_expired[] = "CRL Verify failed, CRL expired:%d";

// Revocation status verdicts (level 4).
inline constexpr char msg_not_in_crl[] = "Certificate not in CRL; returning valid status\n";
inline constexpr char msg_revoked[] = "Certificate found in CRL; returning revoked status\n";
inline constexpr char msg_revocation_in_future[] =
    "Certificate revocation time is in future; returning valid status\n";

// Toolkit call names that appear as message arguments.
inline constexpr char call_crl_from_binary[] = "R_CRL_from_binary";

} // namespace qxcrl::trace

#endif
