#include "issuer_check.h"

namespace qxcli {

std::optional<Refusal> refusal(Session& session, CrlObject* crl, const Certificate& issuer) {
    uint32_t verdict = 0;
    // A signature that does not even parse as one of the key's kind is as bad.
    if (qxcert_crl_issuer_verdict(session.ctx(), crl, issuer.record, &verdict) != 0)
        verdict = QX_CRL_BAD_SIGNATURE;
    switch (verdict) {
    case QX_CRL_BAD_SIGNATURE:
        return Refusal{"bad-signature", "the signature is not made with the issuer's key", 2};
    case QX_CRL_OTHER_ISSUER:
        return Refusal{"other-issuer",
                       "the CRL names another issuer than the certificate's subject", 2};
    case QX_CRL_NOT_CRL_SIGNER:
        return Refusal{"not-crl-signer", "the issuer's keyUsage does not allow signing CRLs", 2};
    default:
        break;
    }
    char nextUpdate[129] = {};
    if (qxcrl_GetDetails(session.ctx(), crl, QXCRL_DETAIL_NEXT_UPDATE, 0, nextUpdate) != 0)
        return Refusal{
            "no-next-update",
            "the issuer signed the CRL, but it has no next update, so it is never current", 1};
    return std::nullopt;
}

} // namespace qxcli
