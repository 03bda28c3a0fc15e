// The HTTP fetch's settings.
#include "http_settings.h"

#include "fetch_table.h"

namespace {

constexpr QxHttpFetchSettings default_settings{5000, 20000, 32u * 1024 * 1024, 5};

} // namespace

namespace qxhttp {

const QxHttpFetchSettings& settings_of(const SecurityContext* ctx) {
    const QxCrlFetchSettings* both = qxfetch::table_settings(ctx);
    return both != nullptr ? both->http : default_settings;
}

} // namespace qxhttp

extern "C" void qxhttp_default_settings(QxHttpFetchSettings* settings) {
    if (settings != nullptr)
        *settings = default_settings;
}
