// The layer's HTTP fetch on libcurl: a GET of the CRLs at a distribution
// point's http:// or https:// URL, following redirects one by one under the
// layer's own rule. The fetch has a deadline and a body cap of its own, and
// the walk over a certificate's points bounds it with the same deadline and
// memory as its LDAP fetches. A fetch appends to the caller's list only
// when it succeeds as a whole.
#include "http_crls.h"
#include "http_request.h"
#include "http_settings.h"
#include "http_trace.h"
#include "http_url.h"
#include "sigpipe_block.h"
#include "url_scheme.h"

using namespace qxhttp;
using qxfetch::Budget;
using qxfetch::Chain;
using qxfetch::Clock;

namespace {

bool is_redirect(long status) {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

StatusCode refused(const SecurityContext* ctx, const char* why, const char* url) {
    qxu_print_trace(ctx, function_name, trace_level, "http: %s %s\n", why, url);
    return QXL_ERR_FETCH;
}

StatusCode fetch(SecurityContext* ctx, const char* url, const QxHttpFetchSettings& settings,
                 Budget& budget, FetchedCrlNode** list) {
    if (Clock::now() >= budget.deadline)
        return refused(ctx, "no time left for", url);
    Url at;
    if (!at.parse(url) || !at.is_http())
        return refused(ctx, "cannot read", url);
    if (at.has_credentials())
        return refused(ctx, "credentials in", url);
    const qxfetch::Deadline deadline(settings.timeoutMs, budget.deadline);
    Chain chain(ctx, tracing, budget);
    Body body(ctx, chain, settings.maxBodyBytes);
    const qxfetch::SigpipeBlock quiet;
    Request request;
    if (const StatusCode status = request.open(ctx, url))
        return status;
    for (uint32_t redirects = 0;; ++redirects) {
        if (body.limit() == 0)
            return chain.over_bytes();
        const CURLcode rc = request.get(at.text(), settings, deadline, body);
        if (body.status() != 0)
            return body.status();
        const long status = request.status();
        const bool answered = rc == CURLE_OK || request.passed_over();
        if (answered && is_redirect(status) && request.redirect() != nullptr) {
            Url next;
            if (redirects == settings.maxRedirects) {
                qxu_print_trace(ctx, function_name, trace_level,
                                "http: more than %u redirects from %s\n", settings.maxRedirects,
                                url);
                return QXL_ERR_FETCH;
            }
            if (!next.parse(request.redirect()) || !may_redirect(at, next)) {
                qxu_print_trace(ctx, function_name, trace_level,
                                "http: redirect from %s to %s refused\n", at.text(),
                                request.redirect());
                return QXL_ERR_FETCH;
            }
            at = std::move(next);
            body.clear();
            continue;
        }
        if (answered && status != 200) {
            qxu_print_trace(ctx, function_name, trace_level, "http: %s answered %ld\n", at.text(),
                            status);
            return QXL_ERR_FETCH;
        }
        if (rc != CURLE_OK)
            return failed(ctx, at.text(), rc);
        const StatusCode taken = take_crls(ctx, at.text(), body, chain);
        if (taken == 0)
            chain.hand_over(list);
        return taken;
    }
}

} // namespace

extern "C" int qxhttp_is_url(const char* url) {
    return qxfetch::has_scheme(url, {"http://", "https://"});
}

extern "C" StatusCode qxhttp_fetch_crldp(SecurityContext* ctx, const char* url,
                                         FetchedCrlNode** list) {
    if (ctx == nullptr || ctx->layerContext == nullptr || url == nullptr || list == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    const QxHttpFetchSettings& settings = settings_of(ctx);
    return qxfetch::in_walk(
        ctx, [&](Budget& budget) { return fetch(ctx, url, settings, budget, list); });
}
