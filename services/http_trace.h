// The HTTP fetch's trace: its messages, all under the fetch's name.
#ifndef QXCRL_SERVICES_HTTP_TRACE_H
#define QXCRL_SERVICES_HTTP_TRACE_H

#include <curl/curl.h>

#include "fetch_chain.h"

namespace qxhttp {

inline constexpr char function_name[] = "qxhttp_fetch_crldp";
inline constexpr uint32_t trace_level = 5;
inline constexpr qxfetch::Tracing tracing{function_name, "http"};

// Traces why a request failed, in libcurl's words for code; QXL_ERR_FETCH.
inline StatusCode failed(const SecurityContext* ctx, const char* url, CURLcode code) {
    qxu_print_trace(ctx, function_name, trace_level, "http: get %s: %s\n", url,
                    curl_easy_strerror(code));
    return QXL_ERR_FETCH;
}

} // namespace qxhttp

#endif
