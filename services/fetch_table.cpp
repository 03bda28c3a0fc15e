// The table a program installs to fetch from HTTP and LDAP distribution
// points alike: each URL goes to the fetch of its scheme, and one walk
// bounds them all.
#include "fetch_table.h"

#include "http_settings.h"
#include "ldap_settings.h"

namespace {

constexpr QxCrlFetchSettings default_settings{qxldap::default_settings, qxhttp::default_settings};

constexpr CrlFetchCallbacks default_table{&default_settings, qxfetch_is_url, qxfetch_crldp,
                                          qxldap_begin_walk, qxldap_end_walk};

} // namespace

namespace qxfetch {

const QxCrlFetchSettings* table_settings(const SecurityContext* ctx) {
    const CrlFetchCallbacks* table = ctx->layerContext->crlFetchCallbacks;
    if (table != nullptr && table->settings != nullptr && table->ldap_fetch_crldp == qxfetch_crldp)
        return static_cast<const QxCrlFetchSettings*>(table->settings);
    return nullptr;
}

} // namespace qxfetch

extern "C" void qxfetch_default_settings(QxCrlFetchSettings* settings) {
    if (settings != nullptr)
        *settings = default_settings;
}

extern "C" int qxfetch_is_url(const char* url) {
    return qxhttp_is_url(url) != 0 || qxldap_is_url(url) != 0 ? 1 : 0;
}

extern "C" StatusCode qxfetch_crldp(SecurityContext* ctx, const char* url, FetchedCrlNode** list) {
    if (qxhttp_is_url(url) != 0)
        return qxhttp_fetch_crldp(ctx, url, list);
    return qxldap_fetch_crldp(ctx, url, list);
}

extern "C" const CrlFetchCallbacks* qxfetch_callbacks(void) {
    return &default_table;
}
