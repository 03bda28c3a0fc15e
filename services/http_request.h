// One easy handle of libcurl for one fetch, and the GETs the fetch makes
// with it, one per redirect. Only http and https are spoken, no redirect is
// followed by libcurl itself, no cookie is kept, no credential sent, and
// no signal used; proxies come from the environment, as libcurl does by
// default. Every GET is bounded by the fetch's deadline, its connect also
// by the connect timeout, and its body by the body's limit.
#ifndef QXCRL_SERVICES_HTTP_REQUEST_H
#define QXCRL_SERVICES_HTTP_REQUEST_H

#include <curl/curl.h>

#include "fetch_deadline.h"
#include "http_body.h"

namespace qxhttp {

class Request {
  public:
    Request() = default;
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;
    ~Request() { curl_easy_cleanup(curl_); }

    // Sets libcurl up for this fetch; QXL_ERR_FETCH, traced under url,
    // when it cannot.
    StatusCode open(const SecurityContext* ctx, const char* url);

    // GETs url into body. The body is read only when the status is 200;
    // another status stops the transfer at its first byte of body.
    CURLcode get(const char* url, const QxHttpFetchSettings& settings,
                 const qxfetch::Deadline& deadline, Body& body);

    // The last answer's status; 0 when there was none.
    long status() const;
    // Whether the last GET had an answer whose body it did not want.
    bool passed_over() const { return passedOver_; }
    // Where the last answer redirects to, resolved against its URL; NULL
    // for none. Valid until the next GET.
    const char* redirect() const;

  private:
    static size_t write(char* bytes, size_t size, size_t count, void* request);

    // Sets option to value unless an earlier step failed; rc is the first failure.
    template <typename Value> void set(CURLcode& rc, CURLoption option, Value value) {
        if (rc == CURLE_OK)
            rc = curl_easy_setopt(curl_, option, value);
    }

    CURL* curl_ = nullptr;
    const char* url_ = nullptr;
    Body* body_ = nullptr;
    bool passedOver_ = false;
};

} // namespace qxhttp

#endif
