// The settings the LDAP fetch runs under.
#ifndef QXCRL_SERVICES_LDAP_SETTINGS_H
#define QXCRL_SERVICES_LDAP_SETTINGS_H

#include "qxlayer.h"

namespace qxldap {

// The defaults qxlayer.h documents.
inline constexpr QxLdapFetchSettings default_settings{5000, 10000, 64u * 1024 * 1024, 1024, 30000};

// The settings of ctx's callback table when its fetch is the layer's own,
// else the defaults.
const QxLdapFetchSettings& settings_of(const SecurityContext* ctx);

} // namespace qxldap

#endif
