// The settings the HTTP fetch runs under.
#ifndef QXCRL_SERVICES_HTTP_SETTINGS_H
#define QXCRL_SERVICES_HTTP_SETTINGS_H

#include "qxlayer.h"

namespace qxhttp {

// The defaults qxlayer.h documents.
inline constexpr QxHttpFetchSettings default_settings{5000, 20000, 32u * 1024 * 1024, 5};

// The HTTP settings of ctx's callback table when it is the layer's table
// for both kinds of fetch, else the defaults.
const QxHttpFetchSettings& settings_of(const SecurityContext* ctx);

} // namespace qxhttp

#endif
