// CRLs from a certificate's distribution points: every LDAP URL handed to the
// layer's fetch callbacks, then the first fetched CRL that has entries and
// names the certificate's issuer.
#include <cstring>

#include "frame.h"

using namespace qxcrl;

namespace {

constexpr uint32_t name_limit = 1025;

// The one-URL fetch; messages under the one-URL name wherever it runs.
StatusCode fetch_url(SecurityContext* ctx, const char* url, FetchedCrlNode** list) {
    if (url == nullptr || list == nullptr) {
        qxu_print_trace(ctx, trace::name_ldap_fetch, trace::service_failure,
                        trace::msg_url_or_list_null, static_cast<int>(QXERR_BAD_PARAMETER));
        return QXERR_BAD_PARAMETER;
    }
    // Looked up afresh for every URL: the layer may change its table.
    const CrlFetchCallbacks* callbacks = ctx->layerContext->crlFetchCallbacks;
    const char* missing = callbacks == nullptr                     ? trace::callback_table
                          : callbacks->ldap_is_url == nullptr      ? trace::callback_is_url
                          : callbacks->ldap_fetch_crldp == nullptr ? trace::callback_fetch
                                                                   : nullptr;
    if (missing != nullptr) {
        qxu_print_trace(ctx, trace::name_ldap_fetch, trace::service_failure,
                        trace::msg_callback_null, missing);
        return QXERR_CRL_FETCH;
    }
    if (callbacks->ldap_is_url(url) == 0) {
        if (*list != nullptr)
            return 0;
        qxu_print_trace(ctx, trace::name_ldap_fetch, trace::progress, trace::msg_list_empty,
                        trace::url_kind_other, url);
        return QXERR_CRL_FETCH;
    }
    const StatusCode status = callbacks->ldap_fetch_crldp(ctx, url, list);
    // Success is judged by what arrived, not by the status alone.
    if (*list != nullptr)
        return status;
    qxu_print_trace(ctx, trace::name_ldap_fetch, trace::progress, trace::msg_list_empty,
                    trace::url_kind_ldap, url);
    return QXERR_CRL_FETCH;
}

// Every URL of every full-name distribution point onto one list.
void collect(SecurityContext* ctx, const CertificateRecord* cert, FetchedCrlNode** list) {
    StatusCode last = 0;
    for (uint32_t p = 0; p < cert->distPointCount; ++p) {
        const CrlDistPoint& point = cert->distPoints[p];
        if (point.kind != QX_DIST_POINT_FULL_NAME || point.names == nullptr || point.nameCount == 0)
            continue;
        for (uint32_t n = 0; n < point.nameCount; ++n) {
            if (point.names[n].type == QX_NAME_TYPE_URI)
                last = fetch_url(ctx, point.names[n].value, list);
            if (last == 0 && *list != nullptr)
                break; // this point has delivered; on to the next
        }
    }
}

bool names_issuer(const char* crlIssuer, const QxString* certIssuer) {
    const size_t length = std::strlen(crlIssuer);
    return certIssuer != nullptr && certIssuer->data != nullptr && length == certIssuer->length &&
           std::memcmp(crlIssuer, certIssuer->data, length) == 0;
}

// The first node's CRL with entries and the certificate's issuer, into *crl.
StatusCode select(SecurityContext* ctx, const CertificateRecord* cert, FetchedCrlNode* list,
                  CrlObject** crl) {
    for (FetchedCrlNode* node = list; node != nullptr; node = node->next) {
        // One undecodable CRL ends the fetch: the directory is not to be trusted.
        if (const StatusCode result = qxcrl_CreateCtx(ctx, crl, node->der, node->length);
            result != 0)
            return result;
        uint32_t entries = 0;
        if (const StatusCode result =
                qxcrl_GetDetails(ctx, *crl, QXCRL_DETAIL_ENTRY_COUNT, 0, &entries);
            result != 0)
            return result;
        char issuer[name_limit] = {};
        if (entries > 0 && qxcrl_GetDetails(ctx, *crl, QXCRL_DETAIL_ISSUER_NAME, 0, issuer) == 0 &&
            names_issuer(issuer, cert->issuerText))
            return 0;
        qxcrl_Destroy(ctx, crl);
    }
    return QXERR_CRL_FETCH;
}

} // namespace

extern "C" StatusCode qxcrl_FetchFromCRLDP(SecurityContext* ctx, CertificateRecord* cert,
                                           CrlObject** crl) {
    TraceFrame frame(ctx, trace::name_fetch_from_crldp);
    if (ctx == nullptr || crl == nullptr)
        return QXERR_BAD_PARAMETER;
    if (ctx->layerContext == nullptr || cert == nullptr) {
        qxcrl_Destroy(ctx, crl);
        *crl = nullptr;
        return QXERR_BAD_PARAMETER;
    }
    frame.enter();
    if (cert->distPointCount == 0)
        return QXERR_CRL_FETCH;
    FetchedCrlNode* list = nullptr;
    // The table that begins the walk also ends it, so that the callbacks can
    // bound the walk as a whole: one deadline, one memory budget.
    const CrlFetchCallbacks* walk = ctx->layerContext->crlFetchCallbacks;
    if (walk != nullptr && walk->begin_walk != nullptr)
        walk->begin_walk(ctx);
    collect(ctx, cert, &list);
    if (walk != nullptr && walk->end_walk != nullptr)
        walk->end_walk(ctx);
    StatusCode result = list == nullptr ? QXERR_CRL_FETCH : select(ctx, cert, list, crl);
    if (result != 0)
        qxcrl_Destroy(ctx, crl);
    qxldap_free_list(ctx, &list); // the DER buffers never outlive the call
    return result;
}

extern "C" StatusCode qxcrl_ldap_fetch_crldp(SecurityContext* ctx, void*, const char* url,
                                             FetchedCrlNode** list) {
    if (ctx == nullptr || ctx->layerContext == nullptr)
        return QXERR_BAD_PARAMETER;
    return fetch_url(ctx, url, list);
}
