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

#include "fuzz_layer.h"
#include "hostile_ldap.h"
#include "own_ldap_table.h"

namespace {

using qxfuzz::require;

// An input that ends the connection early fails at once; these only bound
// a client that waits for more than the server will ever send.
constexpr uint32_t network_timeout_ms = 2000;
constexpr uint32_t operation_timeout_ms = 2000;
constexpr uint32_t walk_timeout_ms = 4000;

struct Bounds {
    uint32_t maxValues;
    uint32_t maxBytes;
};

// From 1 to 64 values, and from 4 KiB to 8 MiB of memory.
Bounds bounds_from(unsigned char values, unsigned char bytes) {
    return {1u + values % 64u, 4096u << (bytes % 12u)};
}

// The layer's own callbacks, installed once: the table must outlive the
// layer's use of it.
QxLdapFetchSettings& installed_settings() {
    static qxtest::OwnLdapTable table(qxfuzz::layer());
    return table.settings;
}

// What a fetch delivers can only be values of the answer, within the bounds.
void check_delivered(const FetchedCrlNode* list, std::string_view answer, const Bounds& bounds) {
    uint32_t count = 0;
    uint64_t bytes = 0;
    for (const FetchedCrlNode* node = list; node != nullptr; node = node->next) {
        require(node->der != nullptr && node->length > 0, "an empty node delivered");
        require(answer.find(std::string_view(reinterpret_cast<const char*>(node->der),
                                             node->length)) != std::string_view::npos,
                "a delivered value that the answer does not hold");
        ++count;
        bytes += node->length;
    }
    require(count <= bounds.maxValues, "more values delivered than the walk allows");
    require(bytes <= bounds.maxBytes, "more bytes delivered than the walk allows");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    SecurityContext* ctx = qxfuzz::layer();
    QxLdapFetchSettings& settings = installed_settings();
    const Bounds bounds = bounds_from(data[0], data[1]);
    settings.networkTimeoutMs = network_timeout_ms;
    settings.operationTimeoutMs = operation_timeout_ms;
    settings.walkTimeoutMs = walk_timeout_ms;
    settings.maxValues = bounds.maxValues;
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
        check_delivered(list, answer, bounds);
    qxldap_free_list(ctx, &list);
    return 0;
}
