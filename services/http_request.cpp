#include "http_request.h"

#include <algorithm>
#include <mutex>

#include "http_trace.h"

namespace {

constexpr char protocols[] = "http,https";
constexpr char user_agent[] = "qxcrl/" QXCRL_VERSION;

// libcurl is set up once per process, before the first handle, on whichever
// thread fetches first.
CURLcode global_setup() {
    static std::once_flag once;
    static CURLcode result = CURLE_OK;
    std::call_once(once, [] { result = curl_global_init(CURL_GLOBAL_DEFAULT); });
    return result;
}

} // namespace

namespace qxhttp {

StatusCode Request::open(const SecurityContext* ctx, const char* url) {
    CURLcode rc = global_setup();
    if (rc == CURLE_OK && (curl_ = curl_easy_init()) == nullptr)
        rc = CURLE_OUT_OF_MEMORY;
    set(rc, CURLOPT_NOSIGNAL, 1L);
    set(rc, CURLOPT_PROTOCOLS_STR, protocols);
    set(rc, CURLOPT_REDIR_PROTOCOLS_STR, protocols);
    set(rc, CURLOPT_FOLLOWLOCATION, 0L);
    set(rc, CURLOPT_USERAGENT, user_agent);
    set(rc, CURLOPT_WRITEFUNCTION, write);
    set(rc, CURLOPT_WRITEDATA, this);
    return rc == CURLE_OK ? 0 : failed(ctx, url, rc);
}

CURLcode Request::get(const char* url, const QxHttpFetchSettings& settings,
                      const qxfetch::Deadline& deadline, Body& body) {
    url_ = url;
    body_ = &body;
    passedOver_ = false;
    // libcurl reads 0 as no bound at all: a fetch with no time left or no
    // room for a byte of body is not started.
    const long left = deadline.milliseconds_left();
    const uint64_t limit = body.limit();
    if (left == 0)
        return CURLE_OPERATION_TIMEDOUT;
    if (limit == 0)
        return CURLE_FILESIZE_EXCEEDED;
    CURLcode rc = CURLE_OK;
    set(rc, CURLOPT_URL, url);
    set(rc, CURLOPT_TIMEOUT_MS, left);
    set(rc, CURLOPT_CONNECTTIMEOUT_MS, std::clamp<long>(settings.connectTimeoutMs, 1, left));
    // An announced length past the limit is refused before any of the body.
    set(rc, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(limit));
    return rc == CURLE_OK ? curl_easy_perform(curl_) : rc;
}

long Request::status() const {
    long code = 0;
    return curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &code) == CURLE_OK ? code : 0;
}

const char* Request::redirect() const {
    char* location = nullptr;
    return curl_easy_getinfo(curl_, CURLINFO_REDIRECT_URL, &location) == CURLE_OK ? location
                                                                                  : nullptr;
}

size_t Request::write(char* bytes, size_t, size_t count, void* request) {
    auto& self = *static_cast<Request*>(request);
    if (self.status() != 200) {
        self.passedOver_ = true;
        return 0; // anything but count ends the transfer
    }
    curl_off_t expected = -1;
    if (curl_easy_getinfo(self.curl_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &expected) != CURLE_OK)
        expected = -1;
    return self.body_->append(self.url_, bytes, count, expected) ? count : 0;
}

} // namespace qxhttp
