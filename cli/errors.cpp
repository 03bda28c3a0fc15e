#include "errors.h"

#include <cstdio>

#include "qxcrl.h"

namespace qxcli {

const char* status_name(uint32_t status) {
    switch (status) {
#define QXCLI_NAME(code)                                                                           \
    case code:                                                                                     \
        return #code;
        QXCLI_NAME(QXERR_TOOLKIT_FAILURE)
        QXCLI_NAME(QXERR_FILE_IO)
        QXCLI_NAME(QXERR_BAD_PARAMETER)
        QXCLI_NAME(QXERR_NO_OUTPUT_BUFFER)
        QXCLI_NAME(QXERR_CRL_DECODE)
        QXCLI_NAME(QXERR_CRL_SIGN)
        QXCLI_NAME(QXERR_CRL_FETCH)
        QXCLI_NAME(QXERR_CACHE_ENTRY_NOT_FOUND)
        QXCLI_NAME(QXERR_CRL_EXPIRED)
        QXCLI_NAME(QXERR_CACHE_FULL)
        QXCLI_NAME(QXL_ERR_BAD_ARGUMENT)
        QXCLI_NAME(QXL_ERR_OUT_OF_MEMORY)
        QXCLI_NAME(QXL_ERR_TOOLKIT)
        QXCLI_NAME(QXL_ERR_ISSUER_TOO_LONG)
        QXCLI_NAME(QXL_ERR_BASE64)
        QXCLI_NAME(QXL_ERR_DIGEST)
        QXCLI_NAME(QXL_ERR_SIGNATURE_TYPE)
        QXCLI_NAME(QXL_ERR_KEY)
        QXCLI_NAME(QXL_ERR_CERT_DECODE)
        QXCLI_NAME(QXL_ERR_NOT_A_CRL)
        QXCLI_NAME(QXL_ERR_CERT_NOT_YET_VALID)
        QXCLI_NAME(QXL_ERR_CERT_EXPIRED)
        QXCLI_NAME(QXL_ERR_INTERVAL)
        QXCLI_NAME(QXL_ERR_STORE)
        QXCLI_NAME(QXL_ERR_FETCH)
        QXCLI_NAME(QXL_ERR_FILE)
#undef QXCLI_NAME
    default:
        return "unknown status";
    }
}

int report(const std::string& what, uint32_t status) {
    std::fprintf(stderr, "qxcrl: %s: %u %s\n", what.c_str(), status, status_name(status));
    return failure_exit;
}

int report(const std::string& what, uint32_t status, const std::string& why) {
    std::fprintf(stderr, "qxcrl: %s: %u %s (%s)\n", what.c_str(), status, status_name(status),
                 why.c_str());
    return failure_exit;
}

} // namespace qxcli

namespace qxcli {

int refused(const std::string& what, const std::string& reason) {
    std::fprintf(stderr, "qxcrl: %s: refused: %s\n", what.c_str(), reason.c_str());
    return refused_exit;
}

} // namespace qxcli
