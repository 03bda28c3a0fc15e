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

int load_crl(Session& session, const std::string& path, Crl& crl) {
    const uint32_t status = qxcrl_Load(session.ctx(), &crl.object, path.c_str());
    return status == 0 ? 0 : report("loading " + path, status);
}

int load_cert(Session& session, const std::string& path, Certificate& cert) {
    const uint32_t status = qxcert_from_file(session.ctx(), path.c_str(), &cert.record);
    return status == 0 ? 0 : report("loading " + path, status);
}

int load_key(Session& session, const std::string& path, const std::optional<std::string>& pass,
             Key& key) {
    const uint32_t status =
        qxdk_key_from_file(session.ctx(), path.c_str(), pass ? pass->c_str() : nullptr, &key.key);
    return status == 0 ? 0 : report("loading " + path, status);
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
        return report("writing " + path + " (" + std::strerror(errno) + ")", QXL_ERR_FILE);
    return 0;
}

const char* signature_algorithm_name(uint32_t signatureType) {
    switch (signatureType) {
    case QX_SIG_RSA_SHA1:
        return "sha1WithRSAEncryption";
    case QX_SIG_RSA_MD5:
        return "md5WithRSAEncryption";
    case QX_SIG_RSA_SHA256:
        return "sha256WithRSAEncryption";
    case QX_SIG_RSA_SHA384:
        return "sha384WithRSAEncryption";
    case QX_SIG_RSA_SHA512:
        return "sha512WithRSAEncryption";
    case QX_SIG_ECDSA_SHA256:
        return "ecdsa-with-SHA256";
    case QX_SIG_ECDSA_SHA384:
        return "ecdsa-with-SHA384";
    case QX_SIG_ECDSA_SHA512:
        return "ecdsa-with-SHA512";
    case QX_SIG_ED25519:
        return "ED25519";
    case QX_SIG_ED448:
        return "ED448";
    case QX_SIG_RSA_PSS_SHA256:
        return "rsassaPss-SHA256";
    case QX_SIG_RSA_PSS_SHA384:
        return "rsassaPss-SHA384";
    case QX_SIG_RSA_PSS_SHA512:
        return "rsassaPss-SHA512";
    default:
        return "unknown";
    }
}

uint32_t default_signature_type(const QxPrivateKey* key) {
    // The layer keeps keys as PKCS#8, whose AlgorithmIdentifier comes within
    // the first few dozen bytes: finding the algorithm's OID there is enough.
    struct Known {
        unsigned char oid[11];
        size_t length;
        uint32_t type;
    };
    static const Known known[] = {
        {{0x06, 0x09, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x01}, 11, QX_SIG_RSA_SHA256},
        {{0x06, 0x09, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x0a},
         11,
         QX_SIG_RSA_PSS_SHA256},
        {{0x06, 0x07, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x02, 0x01}, 9, QX_SIG_ECDSA_SHA256},
        {{0x06, 0x03, 0x2b, 0x65, 0x70}, 5, QX_SIG_ED25519},
        {{0x06, 0x03, 0x2b, 0x65, 0x71}, 5, QX_SIG_ED448},
    };
    if (key == nullptr || key->pkcs8 == nullptr)
        return 0;
    const unsigned char* begin = key->pkcs8;
    const unsigned char* end = begin + std::min<uint32_t>(key->length, 32);
    for (const Known& candidate : known)
        if (std::search(begin, end, candidate.oid, candidate.oid + candidate.length) != end)
            return candidate.type;
    return 0;
}

std::optional<uint32_t> parse_number(const std::string& text) {
    if (text.empty() || text.size() > 9 ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return std::nullopt;
    return static_cast<uint32_t>(std::stoul(text));
}

} // namespace qxcli
