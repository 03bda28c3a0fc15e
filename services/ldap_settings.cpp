// The LDAP fetch's settings and the callback table a new layer installs.
#include "ldap_settings.h"

#include "fetch_table.h"

namespace {

constexpr CrlFetchCallbacks default_table{&qxldap::default_settings, qxldap_is_url,
                                          qxldap_fetch_crldp, qxldap_begin_walk, qxldap_end_walk};

} // namespace

namespace qxldap {

const QxLdapFetchSettings& settings_of(const SecurityContext* ctx) {
    // Settings are read only from a table whose fetch is this one, or the
    // layer's table for both kinds of fetch: another table's settings may
    // be anything its own callbacks understand.
    const CrlFetchCallbacks* table = ctx->layerContext->crlFetchCallbacks;
    if (table != nullptr && table->settings != nullptr &&
        table->ldap_fetch_crldp == qxldap_fetch_crldp)
        return *static_cast<const QxLdapFetchSettings*>(table->settings);
    if (const QxCrlFetchSettings* both = qxfetch::table_settings(ctx))
        return both->ldap;
    return default_settings;
}

} // namespace qxldap

extern "C" void qxldap_default_settings(QxLdapFetchSettings* settings) {
    if (settings != nullptr)
        *settings = qxldap::default_settings;
}

extern "C" const CrlFetchCallbacks* qxldap_fetch_callbacks(void) {
    return &default_table;
}

extern "C" void qxlayer_set_fetch_callbacks(SecurityContext* ctx, const CrlFetchCallbacks* table) {
    if (ctx != nullptr && ctx->layerContext != nullptr)
        ctx->layerContext->crlFetchCallbacks = table;
}
