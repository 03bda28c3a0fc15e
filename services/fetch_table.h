// The layer's callback table for HTTP and LDAP distribution points.
#ifndef QXCRL_SERVICES_FETCH_TABLE_H
#define QXCRL_SERVICES_FETCH_TABLE_H

#include "qxlayer.h"

namespace qxfetch {

// The settings of ctx's callback table when it is of the kind
// qxfetch_callbacks gives, else nullptr: another table's settings may be
// anything its own callbacks understand.
const QxCrlFetchSettings* table_settings(const SecurityContext* ctx);

} // namespace qxfetch

#endif
