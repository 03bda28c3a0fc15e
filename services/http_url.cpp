#include "http_url.h"

#include <strings.h>

namespace {

bool equal(const char* a, const char* b) {
    return a != nullptr && b != nullptr && strcasecmp(a, b) == 0;
}

} // namespace

namespace qxhttp {

bool Url::parse(const char* text) {
    handle_.reset(curl_url());
    if (handle_ == nullptr ||
        curl_url_set(handle_.get(), CURLUPART_URL, text, CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
        return false;
    // The part into into; true when the URL has it, or lacks it with absent.
    const auto get = [this](CURLUPart part, unsigned flags, CurlText& into,
                            CURLUcode absent = CURLUE_OK) {
        char* value = nullptr;
        const CURLUcode rc = curl_url_get(handle_.get(), part, &value, flags);
        into.reset(value);
        return rc == CURLUE_OK || rc == absent;
    };
    // A URL of a scheme libcurl does not know has no default port.
    return get(CURLUPART_PORT, CURLU_DEFAULT_PORT, port_, CURLUE_NO_PORT) &&
           get(CURLUPART_USER, 0, user_, CURLUE_NO_USER) &&
           get(CURLUPART_PASSWORD, 0, password_, CURLUE_NO_PASSWORD) &&
           get(CURLUPART_SCHEME, 0, scheme_) && get(CURLUPART_HOST, 0, host_) &&
           get(CURLUPART_URL, 0, text_);
}

bool Url::is_http() const {
    return equal(scheme_.get(), "http") || is_https();
}

bool Url::is_https() const {
    return equal(scheme_.get(), "https");
}

bool Url::same_origin(const Url& other) const {
    return equal(scheme_.get(), other.scheme_.get()) && equal(host_.get(), other.host_.get()) &&
           equal(port_.get(), other.port_.get());
}

bool may_redirect(const Url& from, const Url& to) {
    if (!to.is_http() || to.has_credentials())
        return false;
    return to.is_https() || from.same_origin(to);
}

} // namespace qxhttp
