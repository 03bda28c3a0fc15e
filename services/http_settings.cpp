// The HTTP fetch's settings.
#include "http_settings.h"

#include "fetch_table.h"

namespace qxhttp {

const QxHttpFetchSettings& settings_of(const SecurityContext* ctx) {
    const QxCrlFetchSettings* both = qxfetch::table_settings(ctx);
    return both != nullptr ? both->http : default_settings;
}

} // namespace qxhttp

extern "C" void qxhttp_default_settings(QxHttpFetchSettings* settings) {
    if (settings != nullptr)
        *settings = qxhttp::default_settings;
}
