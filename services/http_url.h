// URLs as libcurl reads them, and the rule for following a redirect: to an
// https:// URL anywhere, or to the same scheme, host and port; never to
// another scheme, nor from http:// to another server's http://, where
// anyone on the path could send the fetch wherever they liked.
#ifndef QXCRL_SERVICES_HTTP_URL_H
#define QXCRL_SERVICES_HTTP_URL_H

#include <curl/curl.h>
#include <memory>

namespace qxhttp {

struct CurlFree {
    void operator()(char* text) const { curl_free(text); }
};
using CurlText = std::unique_ptr<char, CurlFree>;

struct CurlUrlCleanup {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};

class Url {
  public:
    // Reads text, an absolute URL of any scheme; false when libcurl cannot
    // (or has no memory to).
    bool parse(const char* text);

    bool is_http() const;  // http:// or https://
    bool is_https() const; // https://
    // A user name or password in the URL: credentials the fetch never sends.
    bool has_credentials() const { return user_ != nullptr || password_ != nullptr; }
    // The same scheme, host and port.
    bool same_origin(const Url& other) const;
    // The URL as libcurl writes it.
    const char* text() const { return text_.get(); }

  private:
    std::unique_ptr<CURLU, CurlUrlCleanup> handle_;
    CurlText text_, scheme_, host_, port_, user_, password_;
};

// Whether a fetch redirected from from may go on to to.
bool may_redirect(const Url& from, const Url& to);

} // namespace qxhttp

#endif
