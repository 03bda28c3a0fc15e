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

#include "fetch_bounds.h"
#include "fuzz_layer.h"
#include "http_server.h"
#include "own_fetch_table.h"

namespace {

using qxfuzz::require;

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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3)
        return 0;
    SecurityContext* ctx = qxfuzz::layer();
    QxCrlFetchSettings& settings = installed_settings();
    const qxfuzz::FetchBounds bounds = qxfuzz::fetch_bounds_from(data[0], data[1]);
    settings.http.connectTimeoutMs = qxfuzz::connect_timeout_ms;
    settings.http.timeoutMs = qxfuzz::step_timeout_ms;
    settings.http.maxBodyBytes = bounds.maxBytes;
    settings.ldap.walkTimeoutMs = qxfuzz::walk_timeout_ms;
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
        // A body that is no PEM text can only be delivered as itself, or as
        // the part of it that a Content-Length claiming less lets through.
        qxfuzz::check_delivered(list, bounds, [&](std::string_view der) {
            return body.find("-----BEGIN ") != std::string::npos ||
                   std::string_view(body).substr(0, der.size()) == der;
        });
    qxldap_free_list(ctx, &list);
    return 0;
}
