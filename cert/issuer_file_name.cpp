// The file name under which a hashed CRL directory keeps an issuer's CRL:
// the first four digest bytes of the issuer name's DER, least significant
// first, as eight hex digits, then ".rN".
#include <cstdio>
#include <cstring>

#include "frame.h"

using namespace qxcrl;

namespace {

constexpr uint32_t digest_capacity = 16;
constexpr char suffix[] = ".rN";

} // namespace

extern "C" StatusCode qxcrl_FileForIssuer(SecurityContext* ctx, R_CERT_NAME* issuerName, void*,
                                          char* fileName) {
    TraceFrame frame(ctx, trace::name_file_for_issuer);
    if (ctx == nullptr || ctx->layerContext == nullptr)
        return QXERR_BAD_PARAMETER;
    frame.enter();
    if (fileName == nullptr || issuerName == nullptr)
        return QXERR_BAD_PARAMETER;
    uint32_t derLength = 0;
    if (R_CERT_NAME_to_binary(issuerName, 0, nullptr, &derLength) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    StatusCode result = 0;
    LayerBlock<unsigned char> der(ctx, qxumalloc(ctx, derLength, &result));
    if (!der)
        return result;
    if (R_CERT_NAME_to_binary(issuerName, derLength, der.get(), &derLength) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    unsigned char digest[digest_capacity] = {};
    uint32_t digestLength = digest_capacity;
    result = qxty_digest(ctx, QX_DIGEST_MD5, der.get(), derLength, digest, &digestLength);
    if (result != 0)
        return result;
    char name[12];
    std::snprintf(name, sizeof name, "%.2x%.2x%.2x%.2x%s", digest[3], digest[2], digest[1],
                  digest[0], suffix);
    std::memcpy(fileName, name, sizeof name);
    return 0;
}
