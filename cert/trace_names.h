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
inline constexpr char name_set_b64_crl[] = "qxcrl_SetB64Crl";
inline constexpr char name_get_crl_from_file[] = "qxcrlGetCRLFromFile";
inline constexpr char name_load_crl[] = "qxcrlLOC_LoadCRL";
inline constexpr char name_load_concat_crl[] = "qxcrl_LoadConcatCRL";
inline constexpr char name_file_for_issuer[] = "qxcrlFFI_FileForIssuer";
inline constexpr char name_create_or_extend[] = "qxcrl_CreateOrExtend";
inline constexpr char name_sign[] = "qxcrl_Sign";
inline constexpr char name_revoke_cert[] = "qxcrlRC_RevokeCert";
inline constexpr char name_set_next_update[] = "qxcrl_SetNextUpdate";
inline constexpr char name_fetch_from_crldp[] = "qxcrlFFC_FetchFromCRLDP";
inline constexpr char name_ldap_fetch[] = "qxcrl_ldap_fetch_crldp";

// Distribution-point fetch (level 2 failures, level 5 notes).
inline constexpr char msg_url_or_list_null[] = " url or crllist is null, error: %d\n";
inline constexpr char msg_callback_null[] = "CRL CB: (%s) is NULL\n";
inline constexpr char msg_list_empty[] =
    "INFO: CRL List is NULL and url type is %s, and url is: %s\n";
inline constexpr char url_kind_other[] = "Non-LDAP-Url and is not supported";
inline constexpr char url_kind_ldap[] = "LDAP-Url";
inline constexpr char callback_table[] = "funcptr";
inline constexpr char callback_is_url[] = "ldap_is_url";
inline constexpr char callback_fetch[] = "ldap_fetch_crldp";

// Authoring progress and summaries (level 5) and the signing failure (level 2).
inline constexpr char msg_returning_error[] = "returning error %d, rsastatus %d\n";
inline constexpr char msg_invalid_signature_type[] = "Invalid signature type - %d";
inline constexpr char msg_setting_next_update[] = "Attempting to set NextUpdate field in new CRL\n";
inline constexpr char msg_revoking[] = "Attempting to revert certificate\n";

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

// File layer failures (level 2; the read failure at level 5).
inline constexpr char msg_file_name_failed[] = "dsk api failed to open crl file: %s\n";
inline constexpr char msg_file_setup_failed[] =
    "dsk api failed in setting up mode opening the crl file: %s\n";
inline constexpr char msg_file_length_failed[] =
    "dsk api failed in calculating file length of crl: %s\n";
inline constexpr char msg_file_too_large[] =
    "crl file too large to read: %s (%llu bytes, limit %u)\n";
inline constexpr char msg_file_open_failed[] = "dsk api dskopn failed for crl: %s\n";
inline constexpr char msg_file_buffer_failed[] =
    "memory allocation for crlbuf: %d bytes for crl: %s\n";
inline constexpr char msg_file_read_failed[] = "read from crl %s failed with error %d\n";
inline constexpr char msg_file_close_failed[] = "dsk close failed with error:%d for crl: %s\n";

// Toolkit call names that appear as message arguments.
inline constexpr char call_crl_from_binary[] = "R_CRL_from_binary";

} // namespace qxcrl::trace

#endif
