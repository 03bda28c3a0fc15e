#include "own_fetch_table.h"

#include "own_ldap_table.h"

namespace qxtest {

OwnFetchTable::OwnFetchTable(SecurityContext* ctx) : ctx_(ctx) {
    qxfetch_default_settings(&settings);
    table_ = *qxfetch_callbacks();
    table_.settings = &settings;
    qxlayer_set_fetch_callbacks(ctx_, &table_);
}

uint32_t OwnFetchTable::least_max_bytes_for(const std::vector<std::string>& urls) {
    return least_max_bytes(ctx_, qxfetch_crldp, settings.ldap.maxBytes, urls);
}

} // namespace qxtest
