// A directory's answer to the layer's LDAP fetch: a server on 127.0.0.1
// accepts the anonymous bind, then answers the search with the input's
// bytes and ends the connection. The fetch runs inside a walk under small
// bounds, so that reading, counting and refusing the values all run.
//
// Input: one byte for the walk's value limit, one for its memory limit, then
// the search's whole answer (LDAPMessages with message ID 2: entries,
// references, the result).
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fetch_bounds.h"
#include "fuzz_layer.h"
#include "hostile_ldap.h"
#include "own_ldap_table.h"

namespace {

using qxfuzz::require;
// The layer's own callbacks, installed once: the table must outlive the
// layer's use of it.
QxLdapFetchSettings& installed_settings() {
    static qxtest::OwnLdapTable table(qxfuzz::layer());
    return table.settings;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    SecurityContext* ctx = qxfuzz::layer();
    QxLdapFetchSettings& settings = installed_settings();
    const qxfuzz::FetchBounds bounds = qxfuzz::fetch_bounds_from(data[0], data[1]);
    settings.networkTimeoutMs = qxfuzz::connect_timeout_ms;
    settings.operationTimeoutMs = qxfuzz::step_timeout_ms;
    settings.walkTimeoutMs = qxfuzz::walk_timeout_ms;
    settings.maxValues = bounds.maxCrls;
    settings.maxBytes = bounds.maxBytes;
    const std::string answer(reinterpret_cast<const char*>(data) + 2, size - 2);

    const qxfuzz::BlockCheck blocks(ctx);
    const qxtest::HostileLdap server = qxtest::HostileLdap::answering_verbatim(answer);
    qxldap_begin_walk(ctx);
    FetchedCrlNode* list = nullptr;
    const StatusCode status = qxldap_fetch_crldp(ctx, server.url().c_str(), &list);
    qxldap_end_walk(ctx);
    if (status != 0)
        require(list == nullptr, "a failed fetch that delivered CRLs");
    else
        // Values are read in place: each is bytes of the answer.
        qxfuzz::check_delivered(list, bounds, [&](std::string_view der) {
            return answer.find(der) != std::string::npos;
        });
    qxldap_free_list(ctx, &list);
    return 0;
}
