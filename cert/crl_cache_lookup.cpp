// A certificate's status from the cache: the first cached CRL of its issuer
// (DER names compared), or the first whose scope covers the certificate, if
// current or the policy allows an expired one, moved to the head when it
// gives a definite answer.
#include <cstring>

#include "frame.h"

using namespace qxcrl;

namespace {

constexpr uint32_t name_limit = 1025;

bool expired_may_answer(uint32_t crlPolicy) {
    return crlPolicy == 3 || crlPolicy == 4;
}

void move_to_head(CrlCache* cache, CrlCacheEntry* entry) {
    if (cache->head == entry)
        return;
    entry->prev->next = entry->next;
    if (entry->next != nullptr)
        entry->next->prev = entry->prev;
    else
        cache->tail = entry->prev;
    entry->prev = nullptr;
    entry->next = cache->head;
    cache->head->prev = entry;
    cache->head = entry;
}

// Which of an issuer's CRLs may answer: the first, or the first whose scope
// covers the certificate.
enum class Pick { First, Covering };

// The first entry whose CRL's issuer DER equals issuer (and, when pick says
// so, whose scope covers cert), or null; false when a cached CRL's issuer
// cannot be encoded.
bool find_issuer(const CrlCache* cache, const unsigned char* issuer, uint32_t issuerLength,
                 R_CERT* cert, Pick pick, CrlCacheEntry** found) {
    *found = nullptr;
    for (CrlCacheEntry* entry = cache->head; entry != nullptr; entry = entry->next) {
        unsigned char der[name_limit];
        uint32_t length = 0;
        if (R_CRL_issuer_name_to_binary(entry->crlObject->crl, name_limit, der, &length) !=
            R_ERROR_NONE)
            return false;
        if (length != issuerLength || std::memcmp(der, issuer, length) != 0)
            continue;
        if (pick == Pick::First || R_CRL_check_scope(entry->crlObject->crl, cert) == R_ERROR_NONE) {
            *found = entry;
            return true;
        }
    }
    return true;
}

StatusCode status_from_cache(CertificateRecord* cert, CrlCache* cache, Pick pick,
                             CertRevocationStatus* status) {
    if (cert == nullptr || cache == nullptr || status == nullptr)
        return QXERR_BAD_PARAMETER;
    SecurityContext* ctx = cache->owner != nullptr && cache->owner->parent != nullptr
                               ? cache->owner->parent->securityContext
                               : nullptr;
    NameHandle issuer;
    unsigned char issuerDer[name_limit];
    uint32_t issuerLength = 0;
    if (R_CERT_issuer_name_to_R_CERT_NAME(cert->cert, 0, issuer.out()) != R_ERROR_NONE ||
        R_CERT_NAME_to_binary(issuer.get(), name_limit, issuerDer, &issuerLength) != R_ERROR_NONE)
        return QXERR_TOOLKIT_FAILURE;
    CrlCacheEntry* entry = nullptr;
    if (!find_issuer(cache, issuerDer, issuerLength, cert->cert, pick, &entry))
        return QXERR_TOOLKIT_FAILURE;
    if (entry == nullptr) {
        *status = QXCRL_CERT_UNKNOWN;
        return 0;
    }
    // Only currency is judged here; the signature was the adder's business.
    CrlValidity validity = 0;
    const StatusCode current = qxcrl_Verify(ctx, entry->crlObject, nullptr, &validity);
    if (current != 0 &&
        !(current == QXERR_CRL_EXPIRED && expired_may_answer(ctx->layerContext->crlPolicy))) {
        *status = QXCRL_CERT_UNKNOWN;
        return current;
    }
    if (const StatusCode result = qxcrl_CheckCertStatus(ctx, entry->crlObject, cert, status);
        result != 0)
        return result;
    if (*status == QXCRL_CERT_VALID || *status == QXCRL_CERT_REVOKED)
        move_to_head(cache, entry);
    return 0;
}

} // namespace

extern "C" StatusCode qxcrl_GetCertStatusFromCache(CertificateRecord* cert, CrlCache* cache,
                                                   CertRevocationStatus* status) {
    return status_from_cache(cert, cache, Pick::First, status);
}

extern "C" StatusCode qxcrl_GetCertStatusFromCacheInScope(CertificateRecord* cert, CrlCache* cache,
                                                          CertRevocationStatus* status) {
    return status_from_cache(cert, cache, Pick::Covering, status);
}
