// Why a certificate did or did not issue a CRL, for callers that must say
// more than the module's one failure status.
#include "qxcrl.h"
#include "toolkit_access.h"

static_assert(QX_CRL_BAD_SIGNATURE == R_CRL_VERIFY_BAD_SIGNATURE &&
                  QX_CRL_OTHER_ISSUER == R_CRL_VERIFY_OTHER_ISSUER &&
                  QX_CRL_NOT_CRL_SIGNER == R_CRL_VERIFY_NOT_CRL_SIGNER,
              "the layer's verdicts are the toolkit's");

extern "C" StatusCode qxcert_crl_issuer_verdict(SecurityContext* ctx, const CrlObject* crl,
                                                const CertificateRecord* issuer,
                                                uint32_t* verdict) {
    if (ctx == nullptr || crl == nullptr || crl->crl == nullptr || issuer == nullptr ||
        issuer->cert == nullptr || verdict == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    uint32_t result = 0;
    if (R_CRL_verify(crl->crl, issuer->cert, &result) != R_ERROR_NONE)
        return QXL_ERR_TOOLKIT;
    *verdict = result;
    return 0;
}
