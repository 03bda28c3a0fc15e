// A concatenated PEM text of CRLs and certificates, as a bundle file holds
// them: the CRLs delivered into a cache, the status of every certificate of
// the text looked up there (also with the policy that lets an expired CRL
// answer), the cache shrunk, and its CRLs deleted issuer by issuer until
// none is left.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_layer.h"
#include "text_cache.h"

namespace {

using qxfuzz::check_cache;
using qxfuzz::require;

// Large enough for any input of the run, so that only the shrinking evicts.
constexpr uint32_t cache_capacity = 8u << 20;
// Bounds on the work per input, which otherwise grows with the square of
// the number of blocks without reaching new code.
constexpr size_t max_certificates = 16;
constexpr size_t max_issuers = 16;
constexpr std::string_view certificate_marker = "-----BEGIN CERTIFICATE-----";
constexpr uint32_t policy_expired_may_answer = 3;
constexpr size_t name_size = 1025;

// The certificates of the text, released when the input is done.
class Certificates {
  public:
    Certificates(SecurityContext* ctx, std::string_view text) : ctx_(ctx) {
        for (size_t at = text.find(certificate_marker);
             at != std::string_view::npos && records_.size() < max_certificates;
             at = text.find(certificate_marker, at + 1)) {
            CertificateRecord* record = nullptr;
            const auto* bytes = reinterpret_cast<const unsigned char*>(text.data() + at);
            if (qxcert_from_bytes(ctx, bytes, static_cast<uint32_t>(text.size() - at), &record) ==
                0)
                records_.push_back(record);
            else
                require(record == nullptr, "failed certificate decode handed out a record");
        }
    }
    Certificates(const Certificates&) = delete;
    Certificates& operator=(const Certificates&) = delete;
    ~Certificates() {
        for (CertificateRecord*& record : records_)
            qxcert_free(ctx_, &record);
    }
    const std::vector<CertificateRecord*>& records() const { return records_; }

  private:
    SecurityContext* ctx_;
    std::vector<CertificateRecord*> records_;
};

std::string issuer_text(SecurityContext* ctx, CrlObject* crl) {
    char text[name_size];
    // The owner refuses a CRL whose issuer it cannot read, so every cached one reads.
    require(qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_ISSUER_NAME, 0, text) == 0,
            "a cached CRL's issuer name cannot be read");
    return text;
}

size_t count_issuer(SecurityContext* ctx, const CrlCache* cache, const std::string& issuer) {
    size_t count = 0;
    for (const CrlCacheEntry* entry = cache->head; entry != nullptr; entry = entry->next)
        count += issuer_text(ctx, entry->crlObject) == issuer ? 1 : 0;
    return count;
}

// Every certificate's status, from the issuer's first CRL and from the one
// whose scope covers it: a definite answer comes from the CRL that the
// lookup then moved to the head, and that CRL alone gives the same answer.
void look_up(SecurityContext* ctx, CrlCache* cache, const Certificates& certificates) {
    for (auto* lookup : {qxcrl_GetCertStatusFromCache, qxcrl_GetCertStatusFromCacheInScope})
        for (CertificateRecord* cert : certificates.records()) {
            CertRevocationStatus status = 0;
            const StatusCode result = lookup(cert, cache, &status);
            check_cache(cache);
            if (result != 0)
                continue;
            require(status == QXCRL_CERT_VALID || status == QXCRL_CERT_UNKNOWN ||
                        status == QXCRL_CERT_REVOKED,
                    "status out of range");
            if (status == QXCRL_CERT_UNKNOWN)
                continue;
            CertRevocationStatus again = 0;
            require(qxcrl_CheckCertStatus(ctx, cache->head->crlObject, cert, &again) == 0 &&
                        again == status,
                    "the CRL that answered from the cache answers differently alone");
        }
}

void delete_issuer(SecurityContext* ctx, CrlCacheOwner* owner, const std::string& issuer) {
    const size_t before = count_issuer(ctx, owner->crlCache, issuer);
    const StatusCode result =
        qxcrl_DeleteCRLCacheEntry(owner, reinterpret_cast<const unsigned char*>(issuer.data()),
                                  static_cast<uint32_t>(issuer.size()));
    require(result == (before > 0 ? 0 : QXERR_CACHE_ENTRY_NOT_FOUND),
            "delete by issuer answered wrongly");
    require(count_issuer(ctx, owner->crlCache, issuer) == 0,
            "delete by issuer left a CRL of that issuer");
    check_cache(owner->crlCache);
}

void delete_certificate_issuers(SecurityContext* ctx, CrlCacheOwner* owner,
                                const Certificates& certificates) {
    for (const CertificateRecord* cert : certificates.records())
        delete_issuer(ctx, owner, std::string(cert->issuerText->data, cert->issuerText->length));
}

// Deletes by each cached CRL's issuer; true when that emptied the cache.
bool delete_cached_issuers(SecurityContext* ctx, CrlCacheOwner* owner) {
    std::vector<std::string> issuers;
    for (const CrlCacheEntry* entry = owner->crlCache->head; entry != nullptr;
         entry = entry->next) {
        std::string issuer = issuer_text(ctx, entry->crlObject);
        if (std::find(issuers.begin(), issuers.end(), issuer) != issuers.end())
            continue;
        if (issuers.size() == max_issuers)
            return false;
        issuers.push_back(std::move(issuer));
    }
    for (const std::string& issuer : issuers)
        delete_issuer(ctx, owner, issuer);
    return true;
}

void run(SecurityContext* ctx, CrlCacheOwner* owner, const char* text, size_t size) {
    const Certificates certificates(ctx, std::string_view(text, size));
    CrlCache* cache = owner->crlCache;
    qxcrl_SetB64Crl(owner, text, static_cast<uint32_t>(size));
    check_cache(cache);

    for (const CrlCacheEntry* entry = cache->head; entry != nullptr; entry = entry->next)
        issuer_text(ctx, entry->crlObject);

    look_up(ctx, cache, certificates);
    ctx->layerContext->crlPolicy = policy_expired_may_answer;
    look_up(ctx, cache, certificates);
    ctx->layerContext->crlPolicy = 0;

    // Keeps a quarter to all of what is cached, as the input's length says.
    const uint32_t kept = static_cast<uint32_t>(uint64_t{cache->used} * (1 + size % 4) / 4);
    require(qxcrl_ResizeCache(kept, cache) == 0, "resize refused");
    check_cache(cache);
    look_up(ctx, cache, certificates);

    delete_certificate_issuers(ctx, owner, certificates);
    if (!delete_cached_issuers(ctx, owner))
        return;
    require(cache->head == nullptr && cache->used == 0, "CRLs left after deleting every issuer");
    for (CertificateRecord* cert : certificates.records()) {
        CertRevocationStatus status = 0;
        require(qxcrl_GetCertStatusFromCache(cert, cache, &status) != 0 ||
                    status == QXCRL_CERT_UNKNOWN,
                "an empty cache knew a status");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size >= UINT32_MAX)
        return 0;
    SecurityContext* ctx = qxfuzz::layer();
    qxfuzz::BlockCheck check(ctx);
    const std::vector<char> text = qxfuzz::terminated_text(data, size);
    const qxfuzz::InputCache cache(ctx, cache_capacity);
    run(ctx, cache.owner(), text.data(), size);
    return 0;
}
