// The LDAP fetch's trace: its messages, all under the fetch's name.
#ifndef QXCRL_SERVICES_LDAP_TRACE_H
#define QXCRL_SERVICES_LDAP_TRACE_H

#include <ldap.h>

#include "qxlayer.h"

namespace qxldap {

inline constexpr char function_name[] = "qxldap_fetch_crldp";
inline constexpr uint32_t trace_level = 5;

// Traces why a step failed, in libldap's words for rc; QXL_ERR_FETCH.
inline StatusCode failed(const SecurityContext* ctx, const char* step, const char* url, int rc) {
    qxu_print_trace(ctx, function_name, trace_level, "ldap: %s %s: %s\n", step, url,
                    ldap_err2string(rc));
    return QXL_ERR_FETCH;
}

} // namespace qxldap

#endif
