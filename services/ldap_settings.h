// The settings the LDAP fetch runs under.
#ifndef QXCRL_SERVICES_LDAP_SETTINGS_H
#define QXCRL_SERVICES_LDAP_SETTINGS_H

#include "qxlayer.h"

namespace qxldap {

// The settings of ctx's callback table when its fetch is the layer's own,
// else the defaults.
const QxLdapFetchSettings& settings_of(const SecurityContext* ctx);

} // namespace qxldap

#endif
