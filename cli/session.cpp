#include "session.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "errors.h"
#include "files.h"

namespace qxcli {

uint32_t Session::open(const Arguments& arguments, const std::string& storePath,
                       uint32_t crlPolicy) {
    QxLayerConfig config;
    qxlayer_default_config(&config);
    config.storePath = storePath.c_str();
    config.crlPolicy = crlPolicy;
    if (const auto level = arguments.value("--trace")) {
        // No sink: the layer writes the records to stderr.
        config.traceLevel = parse_number(*level).value_or(0);
        qxu_set_default_trace(nullptr, nullptr, config.traceLevel);
    }
    return qxlayer_create(&config, &ctx_);
}

namespace {

// "loading PATH: <status> (<what was wrong>)": the file's own problem when the
// layer could not read it, else what its content was not.
int report_loading(const std::string& path, uint32_t status, const char* content) {
    if (status == QXL_ERR_FILE)
        return report("loading " + path, status, file_problem(path));
    if (status == QXL_ERR_CERT_DECODE || status == QXL_ERR_KEY)
        return report("loading " + path, status, content);
    return report("loading " + path, status);
}

} // namespace

int load_cert(Session& session, const std::string& path, Certificate& cert) {
    const uint32_t status = qxcert_from_file(session.ctx(), path.c_str(), &cert.record);
    return status == 0 ? 0 : report_loading(path, status, "not a certificate in DER or PEM");
}

int load_key(Session& session, const std::string& path, const std::optional<std::string>& pass,
             Key& key) {
    const uint32_t status =
        qxdk_key_from_file(session.ctx(), path.c_str(), pass ? pass->c_str() : nullptr, &key.key);
    return status == 0
               ? 0
               : report_loading(path, status, "not a private key, or not under this passphrase");
}

int write_crl(Session& session, CrlObject* crl, const std::string& path, bool der) {
    SecurityContext* ctx = session.ctx();
    uint32_t status = 0;
    bool written = false;
    if (der) {
        unsigned char* bytes = nullptr;
        uint32_t length = 0;
        status = qxcrl_GetDER(ctx, crl, &bytes, &length);
        if (status == 0)
            written = write_atomically(path, bytes, length);
        qxumfree(ctx, &bytes);
    } else {
        char* text = nullptr;
        uint32_t length = 0;
        status = qxcrl_GetBase64(ctx, crl, &text, &length);
        if (status == 0)
            written = write_atomically(path, text, length);
        qxumfree(ctx, &text);
    }
    if (status != 0)
        return report("encoding the CRL", status);
    if (!written)
        return report("writing " + path, QXL_ERR_FILE, std::strerror(errno));
    return 0;
}

std::optional<uint32_t> parse_number(const std::string& text) {
    if (text.empty() || text.size() > 9 ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return std::nullopt;
    return static_cast<uint32_t>(std::stoul(text));
}

} // namespace qxcli
