// A web server's answer to the layer's HTTP fetch: a server on 127.0.0.1
// answers the request with the input as its body, framed as the input's
// first bytes choose, and the fetch runs inside a walk under small bounds,
// so that the body cap, the walk's caps and the reading of DER and PEM
// bodies all run.
//
// Input: one byte for the walk's CRL limit, one for the body cap, one for
// how the body is framed, then the body.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_layer.h"
#include "http_server.h"
#include "own_fetch_table.h"

namespace {

using qxfuzz::require;

// A body that ends early ends the connection at once; these only bound a
// client that waits for more than the server will ever send.
constexpr uint32_t connect_timeout_ms = 2000;
constexpr uint32_t fetch_timeout_ms = 3000;
constexpr uint32_t walk_timeout_ms = 4000;

struct Bounds {
    uint32_t maxCrls;
    uint32_t maxBody;
};

// From 1 to 16 CRLs, and bodies from 64 bytes to 2 MiB.
Bounds bounds_from(unsigned char crls, unsigned char body) {
    return {1u + crls % 16u, 64u << (body % 16u)};
}

// The body as the server sends it: whole, without a length, or under a
// Content-Length that claims more or less than it holds.
qxtest::HttpResponse framed(unsigned char how, const std::string& body) {
    qxtest::HttpResponse response = qxtest::HttpResponse::ok(body);
    switch (how % 4) {
    case 1:
        response.noLength = true;
        break;
    case 2:
        response.claimedLength = body.size() + 1 + how / 4;
        break;
    case 3:
        response.claimedLength = body.size() / 2;
        break;
    default:
        break;
    }
    return response;
}

// The layer's combined table, installed once: it must outlive the layer's use of it.
QxCrlFetchSettings& installed_settings() {
    static qxtest::OwnFetchTable table(qxfuzz::layer());
    return table.settings;
}

// What a fetch delivers is within the bounds, and a body that is no PEM
// text can only be delivered as itself.
void check_delivered(const FetchedCrlNode* list, std::string_view body, const Bounds& bounds) {
    uint32_t count = 0;
    uint64_t bytes = 0;
    const bool pem = body.find("-----BEGIN ") != std::string_view::npos;
    for (const FetchedCrlNode* node = list; node != nullptr; node = node->next) {
        require(node->der != nullptr && node->length > 0, "an empty node delivered");
        const std::string_view der(reinterpret_cast<const char*>(node->der), node->length);
        require(pem || der == body, "a DER body delivered as something else");
        ++count;
        bytes += node->length;
    }
    require(count <= bounds.maxCrls, "more CRLs delivered than the walk allows");
    require(bytes <= bounds.maxBody, "more bytes delivered than the body cap");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3)
        return 0;
    SecurityContext* ctx = qxfuzz::layer();
    QxCrlFetchSettings& settings = installed_settings();
    const Bounds bounds = bounds_from(data[0], data[1]);
    settings.http.connectTimeoutMs = connect_timeout_ms;
    settings.http.timeoutMs = fetch_timeout_ms;
    settings.http.maxBodyBytes = bounds.maxBody;
    settings.ldap.walkTimeoutMs = walk_timeout_ms;
    settings.ldap.maxValues = bounds.maxCrls;
    const std::string body(reinterpret_cast<const char*>(data) + 3, size - 3);

    const qxfuzz::BlockCheck blocks(ctx);
    qxtest::HttpServer server;
    server.set("/ca.crl", framed(data[2], body));
    qxldap_begin_walk(ctx);
    FetchedCrlNode* list = nullptr;
    const StatusCode status = qxhttp_fetch_crldp(ctx, server.url("/ca.crl").c_str(), &list);
    qxldap_end_walk(ctx);
    if (status != 0)
        require(list == nullptr, "a failed fetch that delivered CRLs");
    else
        check_delivered(list, body, bounds);
    qxldap_free_list(ctx, &list);
    return 0;
}
