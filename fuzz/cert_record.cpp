// A certificate record made from the input, everything the module reads from
// it, and its distribution points walked by qxcrl_FetchFromCRLDP with fetch
// callbacks that answer from the input instead of a directory.
//
// Input: the certificate (DER or PEM), then any number of answers, each
// after a separator. An answer is a control byte and the DER that one fetch
// delivers; the callbacks hand the answers out in order.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "fuzz_layer.h"
#include "guarded_buffer.h"

namespace {

using qxfuzz::require;

constexpr std::string_view separator = "--qxfetch--";
constexpr size_t name_size = 1025;
constexpr size_t file_name_size = 12; // the least qxcrl_FileForIssuer may be given

// Bits of an answer's control byte.
constexpr unsigned char take_any_url = 0x01;    // the URL check before it says yes to any URL
constexpr unsigned char report_failure = 0x02;  // the fetch fails, whatever it delivered
constexpr unsigned char deliver_nothing = 0x04; // the fetch appends no CRL

// What the callbacks answer from; they have no argument to carry it.
struct FetchScript {
    const CertificateRecord* cert = nullptr;
    std::vector<std::string_view> answers;
    size_t next = 0;
    std::vector<std::string_view> delivered;
};
FetchScript script;

// The walk may only hand over the certificate's own URIs.
bool is_certificate_uri(const char* url) {
    for (uint32_t p = 0; p < script.cert->distPointCount; ++p) {
        const CrlDistPoint& point = script.cert->distPoints[p];
        for (uint32_t n = 0; n < point.nameCount; ++n)
            if (point.names[n].type == QX_NAME_TYPE_URI &&
                std::strcmp(point.names[n].value, url) == 0)
                return true;
    }
    return false;
}

unsigned char next_control() {
    if (script.next == script.answers.size())
        return deliver_nothing | report_failure;
    const std::string_view answer = script.answers[script.next];
    return answer.empty() ? deliver_nothing : static_cast<unsigned char>(answer[0]);
}

int scripted_is_url(const char* url) {
    require(is_certificate_uri(url), "URL check of a URL the certificate does not have");
    return (next_control() & take_any_url) != 0 || qxldap_is_url(url) != 0;
}

// Appends der as one node at the end of *list, as a directory fetch does.
StatusCode append(SecurityContext* ctx, std::string_view der, FetchedCrlNode** list) {
    StatusCode status = 0;
    auto* node = static_cast<FetchedCrlNode*>(qxumalloc(ctx, sizeof(FetchedCrlNode), &status));
    if (node == nullptr)
        return status;
    node->der =
        static_cast<unsigned char*>(qxumalloc(ctx, static_cast<uint32_t>(der.size()), &status));
    if (node->der == nullptr) {
        qxumfree(ctx, &node);
        return status;
    }
    std::memcpy(node->der, der.data(), der.size());
    node->length = static_cast<uint32_t>(der.size());
    node->next = nullptr;
    FetchedCrlNode** tail = list;
    while (*tail != nullptr)
        tail = &(*tail)->next;
    *tail = node;
    return 0;
}

StatusCode scripted_fetch(SecurityContext* ctx, const char* url, FetchedCrlNode** list) {
    require(is_certificate_uri(url), "fetch of a URL the certificate does not have");
    if (script.next == script.answers.size())
        return QXL_ERR_FETCH; // the directories have nothing more to give
    const unsigned char control = next_control();
    const std::string_view answer = script.answers[script.next++];
    const std::string_view der = answer.empty() ? answer : answer.substr(1);
    if ((control & deliver_nothing) == 0 && !der.empty()) {
        if (const StatusCode status = append(ctx, der, list); status != 0)
            return status;
        script.delivered.push_back(der);
    }
    return (control & report_failure) != 0 ? QXL_ERR_FETCH : 0;
}

const CrlFetchCallbacks scripted_callbacks{nullptr, scripted_is_url, scripted_fetch, nullptr,
                                           nullptr};

// The certificate's bytes into *cert, the answers after it into the script.
void split(std::string_view input, std::string_view* cert) {
    size_t at = input.find(separator);
    *cert = input.substr(0, at);
    script.answers.clear();
    script.delivered.clear();
    script.next = 0;
    while (at != std::string_view::npos) {
        const size_t from = at + separator.size();
        at = input.find(separator, from);
        script.answers.push_back(input.substr(from, at == std::string_view::npos ? at : at - from));
    }
}

bool is_terminated_text(const QxString* text) {
    return text != nullptr && text->data != nullptr && text->data[text->length] == '\0' &&
           std::strlen(text->data) == text->length;
}

bool same_text(const QxString* a, const QxString* b) {
    return a->length == b->length && std::memcmp(a->data, b->data, a->length) == 0;
}

// Every member filled, every text terminated, DER input kept as received,
// and the record's DER makes the same record again.
void check_record(SecurityContext* ctx, const CertificateRecord* record, std::string_view input) {
    require(is_terminated_text(record->issuerText) && is_terminated_text(record->subjectText),
            "record name text not terminated at its length");
    require(record->cert != nullptr && record->der != nullptr && record->derLength != 0,
            "record without its certificate");
    if (!input.empty() && input[0] == 0x30)
        require(record->derLength <= input.size() &&
                    std::memcmp(record->der, input.data(), record->derLength) == 0,
                "record DER is not the DER received");
    require(record->distPointCount == 0 || record->distPoints != nullptr,
            "distribution points counted but missing");
    for (uint32_t p = 0; p < record->distPointCount; ++p) {
        const CrlDistPoint& point = record->distPoints[p];
        require(point.nameCount == 0 || point.names != nullptr, "point names counted but missing");
        for (uint32_t n = 0; n < point.nameCount; ++n)
            require(point.names[n].value != nullptr, "point name missing");
    }

    CertificateRecord* again = nullptr;
    require(qxcert_from_bytes(ctx, record->der, record->derLength, &again) == 0,
            "the record's own DER does not make a record");
    require(same_text(again->issuerText, record->issuerText) &&
                same_text(again->subjectText, record->subjectText) &&
                again->notBefore == record->notBefore && again->notAfter == record->notAfter &&
                again->distPointCount == record->distPointCount,
            "the record's own DER makes a different record");
    qxcert_free(ctx, &again);
}

// The issuer's hashed file name: eight hexadecimal digits and ".rN".
void check_issuer_file(SecurityContext* ctx, CertificateRecord* record) {
    R_CERT_NAME* issuer = nullptr;
    if (qxcrl_GetCertIssuerName(ctx, record, &issuer) != 0) {
        require(issuer == nullptr, "failed issuer name call handed out a name");
        return;
    }
    qxfuzz::GuardedBuffer fileName(file_name_size);
    if (qxcrl_FileForIssuer(ctx, issuer, nullptr, fileName.text()) == 0) {
        const char* text = fileName.text();
        require(std::strlen(text) == 11 && std::strspn(text, "0123456789abcdef") == 8 &&
                    std::strcmp(text + 8, ".rN") == 0,
                "issuer file name malformed");
        require(fileName.guards_intact(), "issuer file name written past its buffer");
    } else {
        require(fileName.untouched_from(0), "failed issuer file name call wrote its buffer");
    }
    qxcrl_FreeName(&issuer);
}

// The DER of a CRL as the module writes it, which is not always the bytes it
// was read from (unused signature bits, for one, are cleared).
std::vector<unsigned char> der_of(SecurityContext* ctx, CrlObject* crl) {
    unsigned char* der = nullptr;
    uint32_t length = 0;
    require(qxcrl_GetDER(ctx, crl, &der, &length) == 0, "a decoded CRL has no DER");
    std::vector<unsigned char> copy(der, der + length);
    qxumfree(ctx, &der);
    return copy;
}

bool is_delivered(SecurityContext* ctx, CrlObject* crl) {
    const std::vector<unsigned char> fetched = der_of(ctx, crl);
    bool found = false;
    for (const std::string_view answer : script.delivered) {
        CrlObject* candidate = nullptr;
        if (qxcrl_CreateCtx(ctx, &candidate, reinterpret_cast<const unsigned char*>(answer.data()),
                            static_cast<uint32_t>(answer.size())) == 0)
            found = found || der_of(ctx, candidate) == fetched;
        qxcrl_Destroy(ctx, &candidate);
    }
    return found;
}

// A CRL the walk chose: one of those delivered, with entries and the
// certificate's issuer.
void check_fetched(SecurityContext* ctx, CrlObject* crl, CertificateRecord* record) {
    require(crl != nullptr && crl->crl != nullptr, "fetch succeeded without a CRL");
    uint32_t entries = 0;
    require(qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_ENTRY_COUNT, 0, &entries) == 0 && entries > 0,
            "fetched CRL has no entries");
    char issuer[name_size];
    require(qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_ISSUER_NAME, 0, issuer) == 0 &&
                std::strlen(issuer) == record->issuerText->length &&
                std::memcmp(issuer, record->issuerText->data, record->issuerText->length) == 0,
            "fetched CRL names another issuer");
    require(is_delivered(ctx, crl), "fetched CRL is none of those delivered");

    CertRevocationStatus status = 0;
    if (qxcrl_CheckCertStatus(ctx, crl, record, &status) == 0)
        require(status == QXCRL_CERT_VALID || status == QXCRL_CERT_REVOKED ||
                    status == QXCRL_CERT_UNKNOWN,
                "status out of range");
    CrlValidity validity = 0;
    qxcrl_VerifyCRL(ctx, crl, record, &validity);
}

void walk_distribution_points(SecurityContext* ctx, CertificateRecord* record) {
    script.cert = record;
    qxlayer_set_fetch_callbacks(ctx, &scripted_callbacks);
    CrlObject* crl = nullptr;
    if (qxcrl_FetchFromCRLDP(ctx, record, &crl) == 0)
        check_fetched(ctx, crl, record);
    else
        require(crl == nullptr, "failed fetch left a CRL");
    qxcrl_Destroy(ctx, &crl);
    qxlayer_set_fetch_callbacks(ctx, nullptr);
    script.cert = nullptr;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size >= UINT32_MAX)
        return 0;
    SecurityContext* ctx = qxfuzz::layer();
    qxfuzz::BlockCheck check(ctx);
    std::string_view cert;
    split(std::string_view(reinterpret_cast<const char*>(data), size), &cert);

    CertificateRecord* record = nullptr;
    if (qxcert_from_bytes(ctx, reinterpret_cast<const unsigned char*>(cert.data()),
                          static_cast<uint32_t>(cert.size()), &record) != 0) {
        require(record == nullptr, "failed certificate decode handed out a record");
        return 0;
    }
    check_record(ctx, record, cert);
    check_issuer_file(ctx, record);
    const StatusCode validity = qxtCheckValidity_ext(ctx, record->notBefore, record->notAfter);
    require(validity == 0 || validity == QXL_ERR_CERT_NOT_YET_VALID ||
                validity == QXL_ERR_CERT_EXPIRED,
            "validity check failed otherwise");
    walk_distribution_points(ctx, record);
    qxcert_free(ctx, &record);
    return 0;
}
