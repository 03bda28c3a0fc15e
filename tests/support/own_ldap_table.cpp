#include "own_ldap_table.h"

#include <algorithm>

namespace qxtest {

OwnLdapTable::OwnLdapTable(SecurityContext* ctx) : ctx_(ctx) {
    qxldap_default_settings(&settings);
    table_ = *qxldap_fetch_callbacks();
    table_.settings = &settings;
    qxlayer_set_fetch_callbacks(ctx_, &table_);
}

uint32_t least_max_bytes(SecurityContext* ctx, FetchCallback fetch, uint32_t& maxBytes,
                         const std::vector<std::string>& urls) {
    uint32_t least = 0;
    for (const std::string& url : urls) {
        uint32_t failing = 0, succeeding = 1u << 26;
        while (succeeding - failing > 1) {
            maxBytes = failing + (succeeding - failing) / 2;
            FetchedCrlNode* list = nullptr;
            const StatusCode status = fetch(ctx, url.c_str(), &list);
            qxldap_free_list(ctx, &list);
            (status == 0 ? succeeding : failing) = maxBytes;
        }
        least = std::max(least, succeeding);
    }
    maxBytes = least;
    return least;
}

uint32_t OwnLdapTable::least_max_bytes_for(const std::vector<std::string>& urls) {
    return least_max_bytes(ctx_, qxldap_fetch_crldp, settings.maxBytes, urls);
}

} // namespace qxtest
