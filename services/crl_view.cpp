// A CRL described for people, read by OpenSSL apart from the module: it
// describes what the module refuses too, and decides nothing.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "toolkit_access.h"

namespace {

struct Extension {
    int nid = NID_undef; // what the module's rules go by
    std::string oid;
    std::string name;
    bool critical = false;
    std::string value;
};

struct Entry {
    std::string serial; // content octets
    std::string revocationDate;
    int32_t reason = -1;
    std::optional<std::string> invalidityDate;
    std::vector<Extension> extensions;
};

struct Description {
    uint32_t version = 0;
    std::string signatureAlgorithm;
    std::string signatureOid;
    std::string issuer;
    std::string thisUpdate;
    std::optional<std::string> nextUpdate;
    std::optional<std::string> crlNumber;
    std::optional<std::string> deltaCrlIndicator;
    std::optional<std::string> refusal;
    std::vector<Extension> extensions;
    std::vector<Entry> entries;
};

template <typename T, void (*Free)(T*)> struct Deleter {
    void operator()(T* object) const { Free(object); }
};
using CrlPtr = std::unique_ptr<X509_CRL, Deleter<X509_CRL, X509_CRL_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;
using BnPtr = std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_free>>;
using IntegerPtr = std::unique_ptr<ASN1_INTEGER, Deleter<ASN1_INTEGER, ASN1_INTEGER_free>>;

// OpenSSL failing to allocate is the one failure left once the CRL decoded.
struct OutOfMemory {};

// Empties OpenSSL's error queue, throwing when it says memory ran out: a
// value that could not be printed for want of memory must not be shown as
// one that does not parse.
bool ran_out_of_memory() {
    bool outOfMemory = false;
    for (unsigned long error = ERR_get_error(); error != 0; error = ERR_get_error())
        outOfMemory = outOfMemory || ERR_GET_REASON(error) == ERR_R_MALLOC_FAILURE;
    return outOfMemory;
}

void settle_errors() {
    if (ran_out_of_memory())
        throw OutOfMemory{};
}

std::string bio_text(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    std::string text(data, length > 0 ? static_cast<size_t>(length) : 0);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text;
}

BioPtr memory_bio() {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio)
        throw OutOfMemory{};
    return bio;
}

std::string time_text(const ASN1_TIME* time) {
    std::tm parts{};
    if (time == nullptr || ASN1_TIME_to_tm(time, &parts) != 1)
        return "invalid time";
    char text[80];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02dZ", parts.tm_year + 1900,
                  parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    return text;
}

std::string object_text(const ASN1_OBJECT* object, bool dotted) {
    char text[256];
    const int length = OBJ_obj2txt(text, sizeof text, object, dotted ? 1 : 0);
    if (length < 0)
        return "?";
    if (static_cast<size_t>(length) < sizeof text)
        return text;
    std::string longer(static_cast<size_t>(length) + 1, '\0');
    OBJ_obj2txt(longer.data(), length + 1, object, dotted ? 1 : 0);
    longer.resize(static_cast<size_t>(length));
    return longer;
}

std::string decimal(const ASN1_INTEGER* integer) {
    BnPtr number(ASN1_INTEGER_to_BN(integer, nullptr));
    if (!number)
        throw OutOfMemory{};
    char* text = BN_bn2dec(number.get());
    if (text == nullptr)
        throw OutOfMemory{};
    std::string out = text;
    OPENSSL_free(text);
    return out;
}

// An INTEGER's DER content octets, as the module hands a serial out.
std::string content_octets(const ASN1_INTEGER* integer) {
    unsigned char* der = nullptr;
    const int length = i2d_ASN1_INTEGER(integer, &der);
    if (length <= 0)
        throw OutOfMemory{};
    const unsigned char* cursor = der;
    long contentLength = 0;
    int tag = 0, cls = 0;
    const int flags = ASN1_get_object(&cursor, &contentLength, &tag, &cls, length);
    std::string out;
    if ((flags & 0x80) == 0)
        out.assign(reinterpret_cast<const char*>(cursor), static_cast<size_t>(contentLength));
    OPENSSL_free(der);
    return out;
}

Extension describe_extension(X509_EXTENSION* extension) {
    Extension out;
    const ASN1_OBJECT* object = X509_EXTENSION_get_object(extension);
    out.nid = OBJ_obj2nid(object);
    out.oid = object_text(object, true);
    out.name = object_text(object, false);
    out.critical = X509_EXTENSION_get_critical(extension) != 0;
    if (OBJ_obj2nid(object) == NID_invalidity_date) {
        // Not every OpenSSL prints this one; the time reads alike everywhere.
        const unsigned char* der = ASN1_STRING_get0_data(X509_EXTENSION_get_data(extension));
        ASN1_GENERALIZEDTIME* time = d2i_ASN1_GENERALIZEDTIME(
            nullptr, &der, ASN1_STRING_length(X509_EXTENSION_get_data(extension)));
        if (time != nullptr) {
            out.value = time_text(time);
            ASN1_GENERALIZEDTIME_free(time);
            return out;
        }
        settle_errors();
    }
    BioPtr bio = memory_bio();
    if (X509V3_EXT_print(bio.get(), extension, X509V3_EXT_DUMP_UNKNOWN, 0) <= 0) {
        // A value that does not parse as its kind is shown as its bytes.
        settle_errors();
        bio = memory_bio();
        if (ASN1_STRING_print(bio.get(), X509_EXTENSION_get_data(extension)) <= 0)
            throw OutOfMemory{};
    }
    out.value = bio_text(bio.get());
    settle_errors();
    return out;
}

const char* reason_name(int32_t code) {
    static const char* const names[] = {
        "unspecified",   "keyCompromise",        "cACompromise",    "affiliationChanged",
        "superseded",    "cessationOfOperation", "certificateHold", nullptr,
        "removeFromCRL", "privilegeWithdrawn",   "aACompromise"};
    if (code < 0 || code > 10 || names[code] == nullptr)
        return "unknown reason";
    return names[code];
}

std::string hex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out += digits[byte >> 4];
        out += digits[byte & 0x0f];
    }
    return out;
}

// The first reason the module's extension rules give to refuse the CRL.
std::optional<std::string> refusal(const Description& crl) {
    for (const Extension& extension : crl.extensions) {
        const int handling = R_CRL_extension_handling(extension.nid, 0);
        if (handling == R_CRL_EXT_REFUSED)
            return "it carries the extension " + extension.name + " (" + extension.oid +
                   "): as a delta CRL it lists only the changes since its base CRL";
        if (extension.critical && handling != R_CRL_EXT_PROCESSED)
            return "it carries the critical extension " + extension.name + " (" + extension.oid +
                   "), which the library does not process";
    }
    for (size_t i = 0; i < crl.entries.size(); ++i)
        for (const Extension& extension : crl.entries[i].extensions)
            if (extension.critical &&
                R_CRL_extension_handling(extension.nid, 1) != R_CRL_EXT_PROCESSED)
                return "entry " + std::to_string(i + 1) + " (serial " + hex(crl.entries[i].serial) +
                       ") carries the critical extension " + extension.name + " (" + extension.oid +
                       "), which the library does not process";
    return std::nullopt;
}

Entry describe_entry(X509_REVOKED* revoked) {
    Entry out;
    out.serial = content_octets(X509_REVOKED_get0_serialNumber(revoked));
    out.revocationDate = time_text(X509_REVOKED_get0_revocationDate(revoked));
    const STACK_OF(X509_EXTENSION)* extensions = X509_REVOKED_get0_extensions(revoked);
    for (int i = 0; i < sk_X509_EXTENSION_num(extensions); ++i)
        out.extensions.push_back(describe_extension(sk_X509_EXTENSION_value(extensions, i)));
    int critical = 0;
    if (auto* reason = static_cast<ASN1_ENUMERATED*>(
            X509_REVOKED_get_ext_d2i(revoked, NID_crl_reason, &critical, nullptr))) {
        const long code = ASN1_ENUMERATED_get(reason);
        out.reason = code >= 0 && code <= 0x7fffffff ? static_cast<int32_t>(code) : -1;
        ASN1_ENUMERATED_free(reason);
    }
    if (auto* date = static_cast<ASN1_GENERALIZEDTIME*>(
            X509_REVOKED_get_ext_d2i(revoked, NID_invalidity_date, &critical, nullptr))) {
        out.invalidityDate = time_text(date);
        ASN1_GENERALIZEDTIME_free(date);
    }
    settle_errors();
    return out;
}

void describe(X509_CRL* crl, Description& out) {
    out.version = static_cast<uint32_t>(X509_CRL_get_version(crl));
    const X509_ALGOR* algorithm = nullptr;
    X509_CRL_get0_signature(crl, nullptr, &algorithm);
    const ASN1_OBJECT* object = nullptr;
    X509_ALGOR_get0(&object, nullptr, nullptr, algorithm);
    out.signatureAlgorithm = object_text(object, false);
    out.signatureOid = object_text(object, true);
    BioPtr bio = memory_bio();
    if (X509_NAME_print_ex(bio.get(), X509_CRL_get_issuer(crl), 0,
                           XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB) < 0)
        throw OutOfMemory{};
    out.issuer = bio_text(bio.get());
    out.thisUpdate = time_text(X509_CRL_get0_lastUpdate(crl));
    if (const ASN1_TIME* next = X509_CRL_get0_nextUpdate(crl))
        out.nextUpdate = time_text(next);
    const STACK_OF(X509_EXTENSION)* extensions = X509_CRL_get0_extensions(crl);
    for (int i = 0; i < sk_X509_EXTENSION_num(extensions); ++i)
        out.extensions.push_back(describe_extension(sk_X509_EXTENSION_value(extensions, i)));
    int critical = 0;
    if (IntegerPtr number(static_cast<ASN1_INTEGER*>(
            X509_CRL_get_ext_d2i(crl, NID_crl_number, &critical, nullptr)));
        number)
        out.crlNumber = decimal(number.get());
    if (IntegerPtr base(static_cast<ASN1_INTEGER*>(
            X509_CRL_get_ext_d2i(crl, NID_delta_crl, &critical, nullptr)));
        base)
        out.deltaCrlIndicator = decimal(base.get());
    settle_errors();
    STACK_OF(X509_REVOKED)* entries = X509_CRL_get_REVOKED(crl);
    for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i)
        out.entries.push_back(describe_entry(sk_X509_REVOKED_value(entries, i)));
    out.refusal = refusal(out);
}

// Lays a description out in one block: the view, its extension and entry
// arrays, then every string and serial.
class Layout {
  public:
    explicit Layout(const Description& crl) : crl_(crl) {
        extensionCount_ = crl.extensions.size();
        for (const Entry& entry : crl.entries)
            extensionCount_ += entry.extensions.size();
        visit([this](const std::string& text) { poolSize_ += text.size() + 1; });
    }

    uint64_t size() const {
        return sizeof(QxCrlView) + extensionCount_ * sizeof(QxViewExtension) +
               crl_.entries.size() * sizeof(QxViewEntry) + poolSize_;
    }

    void fill(unsigned char* block) {
        auto* view = new (block) QxCrlView{};
        auto* extensions = reinterpret_cast<QxViewExtension*>(block + sizeof(QxCrlView));
        auto* entries = reinterpret_cast<QxViewEntry*>(extensions + extensionCount_);
        pool_ = reinterpret_cast<char*>(entries + crl_.entries.size());
        view->version = crl_.version;
        view->signatureAlgorithm = put(crl_.signatureAlgorithm);
        view->signatureOid = put(crl_.signatureOid);
        view->issuer = put(crl_.issuer);
        view->thisUpdate = put(crl_.thisUpdate);
        view->nextUpdate = put(crl_.nextUpdate);
        view->crlNumber = put(crl_.crlNumber);
        view->deltaCrlIndicator = put(crl_.deltaCrlIndicator);
        view->refusal = put(crl_.refusal);
        view->extensions = extensions;
        view->extensionCount = static_cast<uint32_t>(crl_.extensions.size());
        extensions = put(crl_.extensions, extensions);
        view->entries = entries;
        view->entryCount = static_cast<uint32_t>(crl_.entries.size());
        for (const Entry& entry : crl_.entries) {
            auto* out = new (entries++) QxViewEntry{};
            out->serial = reinterpret_cast<const unsigned char*>(put(entry.serial));
            out->serialLength = static_cast<uint32_t>(entry.serial.size());
            out->revocationDate = put(entry.revocationDate);
            out->reason = entry.reason;
            out->reasonName =
                entry.reason >= 0 ? put(std::string(reason_name(entry.reason))) : nullptr;
            out->invalidityDate = put(entry.invalidityDate);
            out->extensions = extensions;
            out->extensionCount = static_cast<uint32_t>(entry.extensions.size());
            extensions = put(entry.extensions, extensions);
        }
    }

  private:
    // Every string fill puts in the pool, in any order: only sizes count.
    template <typename Visit> void visit(Visit see) const {
        for (const std::string* text :
             {&crl_.signatureAlgorithm, &crl_.signatureOid, &crl_.issuer, &crl_.thisUpdate})
            see(*text);
        for (const auto* optional :
             {&crl_.nextUpdate, &crl_.crlNumber, &crl_.deltaCrlIndicator, &crl_.refusal})
            if (*optional)
                see(**optional);
        const auto extensions = [&](const std::vector<Extension>& list) {
            for (const Extension& extension : list) {
                see(extension.oid);
                see(extension.name);
                see(extension.value);
            }
        };
        extensions(crl_.extensions);
        for (const Entry& entry : crl_.entries) {
            see(entry.serial);
            see(entry.revocationDate);
            if (entry.reason >= 0)
                see(std::string(reason_name(entry.reason)));
            if (entry.invalidityDate)
                see(*entry.invalidityDate);
            extensions(entry.extensions);
        }
    }

    const char* put(const std::string& text) {
        char* at = pool_;
        std::memcpy(at, text.data(), text.size());
        at[text.size()] = '\0';
        pool_ += text.size() + 1;
        return at;
    }
    const char* put(const std::optional<std::string>& text) { return text ? put(*text) : nullptr; }
    QxViewExtension* put(const std::vector<Extension>& list, QxViewExtension* out) {
        for (const Extension& extension : list) {
            auto* made = new (out++) QxViewExtension{};
            made->oid = put(extension.oid);
            made->name = put(extension.name);
            made->critical = extension.critical ? 1 : 0;
            made->value = put(extension.value);
        }
        return out;
    }

    const Description& crl_;
    uint64_t extensionCount_ = 0;
    uint64_t poolSize_ = 0;
    char* pool_ = nullptr;
};

} // namespace

namespace {

constexpr char trace_name[] = "qxview_crl";
constexpr uint32_t trace_level = 5;

StatusCode view_crl(SecurityContext* ctx, const unsigned char* der, uint32_t length,
                    QxCrlView** view) {
    const unsigned char* cursor = der;
    CrlPtr crl(d2i_X509_CRL(nullptr, &cursor, static_cast<long>(length)));
    if (!crl)
        return ran_out_of_memory() ? QXL_ERR_OUT_OF_MEMORY : QXL_ERR_NOT_A_CRL;
    try {
        Description description;
        describe(crl.get(), description);
        Layout layout(description);
        if (layout.size() > UINT32_MAX)
            return QXL_ERR_OUT_OF_MEMORY;
        StatusCode status = 0;
        auto* block = static_cast<unsigned char*>(
            qxumalloc(ctx, static_cast<uint32_t>(layout.size()), &status));
        if (block == nullptr)
            return status;
        layout.fill(block);
        auto* made = reinterpret_cast<QxCrlView*>(block);
        int hashed = 0;
        made->opensslIssuerHash = static_cast<uint32_t>(
            X509_NAME_hash_ex(X509_CRL_get_issuer(crl.get()), nullptr, nullptr, &hashed));
        if (hashed == 0) {
            made->opensslIssuerHash = 0;
            ERR_clear_error();
        }
        // The DER as read: trailing bytes are not the CRL's.
        uint32_t digestLength = sizeof made->sha256;
        status = qxty_digest(ctx, QX_DIGEST_SHA256, der, static_cast<uint32_t>(cursor - der),
                             made->sha256, &digestLength);
        if (status != 0) {
            qxumfree(ctx, &block);
            return status;
        }
        *view = made;
        return 0;
    } catch (const OutOfMemory&) {
        ERR_clear_error();
        return QXL_ERR_OUT_OF_MEMORY;
    } catch (const std::bad_alloc&) {
        return QXL_ERR_OUT_OF_MEMORY;
    }
}

} // namespace

extern "C" StatusCode qxview_crl(SecurityContext* ctx, const unsigned char* der, uint32_t length,
                                 QxCrlView** view) {
    if (view != nullptr)
        *view = nullptr;
    if (ctx == nullptr || ctx->layerContext == nullptr || der == nullptr || view == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    qxu_init_trace(ctx, trace_name, trace_level);
    const StatusCode status = view_crl(ctx, der, length, view);
    // What OpenSSL could not print is shown as it could; nothing it queued matters after.
    ERR_clear_error();
    if (status != 0)
        qxu_print_trace(ctx, trace_name, trace_level, "returning %u", status);
    qxu_exit_trace(ctx, trace_name, trace_level);
    return status;
}

extern "C" StatusCode qxview_cert_serial(const CertificateRecord* cert, unsigned char* serial,
                                         uint32_t* length) {
    if (cert == nullptr || cert->der == nullptr || serial == nullptr || length == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    const unsigned char* cursor = cert->der;
    X509* x509 = d2i_X509(nullptr, &cursor, static_cast<long>(cert->derLength));
    if (x509 == nullptr) {
        ERR_clear_error();
        return QXL_ERR_CERT_DECODE;
    }
    StatusCode status = 0;
    try {
        const std::string octets = content_octets(X509_get0_serialNumber(x509));
        if (octets.size() > *length) {
            status = QXL_ERR_BAD_ARGUMENT;
        } else {
            std::memcpy(serial, octets.data(), octets.size());
        }
        *length = static_cast<uint32_t>(octets.size());
    } catch (const OutOfMemory&) {
        ERR_clear_error();
        status = QXL_ERR_OUT_OF_MEMORY;
    } catch (const std::bad_alloc&) {
        status = QXL_ERR_OUT_OF_MEMORY;
    }
    X509_free(x509);
    return status;
}
