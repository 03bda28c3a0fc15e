// Distinguished names: the DER as received, checked as OpenSSL would read
// it; RFC 4514 text and RFC 5280 matching, for which OpenSSL decodes it.
// Names pass through every status check, so the common ones are taken and
// compared without decoding them.
#include <cstring>
#include <new>

#include <openssl/bio.h>
#include <openssl/err.h>

#include "r_der.h"
#include "r_objects.h"

namespace {

// RFC 4514 order and escaping with UTF-8 left as it is, which is what
// `openssl x509 -nameopt RFC2253,-esc_msb` prints.
constexpr unsigned long text_flags = XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB;

} // namespace

R_CERT_NAME* r_cert_name_of(const RDerView& der) {
    auto* made = r_new<R_CERT_NAME>();
    if (made != nullptr && !made->der.assign(der.data, der.length)) {
        r_delete(made);
        made = nullptr;
    }
    return made;
}

namespace {

// Attribute value types OpenSSL takes in a name and reads as single
// octets, whatever they hold, and UTF8String, which it must decode, when it
// is plain ASCII. (VisibleString is not among the types it takes.)
bool plain_value(const RDerElement& value) {
    switch (value.tag) {
    case 0x13: // PrintableString
    case 0x14: // T61String
    case 0x16: // IA5String
        return true;
    case 0x0c: // UTF8String
        for (size_t i = 0; i < value.content.length; ++i) {
            if ((value.content.data[i] & 0x80) != 0)
                return false;
        }
        return true;
    default:
        return false;
    }
}

// Whether der starts with a name of the form nearly every name has, which
// OpenSSL reads without fail: RDNs, none empty, of attributes with a plain
// value. *length is the name's length.
bool plain_name(RDer der, size_t* length) {
    constexpr size_t most = 1024 * 1024; // what OpenSSL reads of a name at most
    RDerElement name;
    if (!r_der_take(&der, r_der_sequence, &name) || name.whole.length > most)
        return false;
    RDer rdns = name.content;
    while (!rdns.empty()) {
        RDerElement rdn;
        if (!r_der_take(&rdns, 0x31, &rdn) || rdn.content.empty())
            return false;
        RDer attributes = rdn.content;
        while (!attributes.empty()) {
            RDerElement attribute;
            RDerElement type;
            RDerElement value;
            if (!r_der_take(&attributes, r_der_sequence, &attribute))
                return false;
            RDer fields = attribute.content;
            if (!r_der_take(&fields, r_der_oid, &type) || !r_der_oid_ok(type.content) ||
                !r_der_next(&fields, &value) || !plain_value(value) || !fields.empty())
                return false;
        }
    }
    *length = name.whole.length;
    return true;
}

// The last plain name this thread checked: status checks meet one issuer's
// name again and again, and the same bytes pass the same check.
thread_local unsigned char lastChecked[256];
thread_local size_t lastCheckedLength = 0;

bool checked_before(const unsigned char* der, size_t length, size_t* taken) {
    if (lastCheckedLength == 0 || length < lastCheckedLength ||
        std::memcmp(der, lastChecked, lastCheckedLength) != 0)
        return false;
    *taken = lastCheckedLength;
    return true;
}

void remember_checked(const unsigned char* der, size_t length) {
    if (length <= sizeof lastChecked) {
        std::memcpy(lastChecked, der, length);
        lastCheckedLength = length;
    }
}

// name's DER decoded by OpenSSL, or NULL.
X509_NAME* decoded(const R_CERT_NAME* name) {
    const unsigned char* cursor = name->der.data();
    X509_NAME* x509 = d2i_X509_NAME(nullptr, &cursor, static_cast<long>(name->der.size()));
    if (x509 == nullptr)
        ERR_clear_error();
    return x509;
}

} // namespace

int r_cert_name_text(const X509_NAME* name, uint32_t bufferSize, char* buffer, uint32_t* length) {
    BIO* bio = BIO_new(BIO_s_mem());
    if (bio == nullptr) {
        ERR_clear_error();
        return R_ERROR_ALLOC_FAILURE;
    }
    int status = R_ERROR_NONE;
    char* text = nullptr;
    if (X509_NAME_print_ex(bio, name, 0, text_flags) < 0) {
        status = R_ERROR_FAILED;
    } else {
        const long size = BIO_get_mem_data(bio, &text);
        *length = static_cast<uint32_t>(size);
        if (buffer != nullptr) {
            if (static_cast<uint64_t>(size) + 1 > bufferSize) {
                status = R_ERROR_BUFFER_TOO_SMALL;
            } else {
                if (size > 0)
                    std::memcpy(buffer, text, static_cast<size_t>(size));
                buffer[size] = '\0';
            }
        }
    }
    if (status == R_ERROR_FAILED)
        ERR_clear_error();
    BIO_free(bio);
    return status;
}

extern "C" int R_CERT_NAME_from_binary(R_CERT_CTX* certCtx, uint32_t, uint32_t length,
                                       const unsigned char* der, uint32_t* consumed,
                                       R_CERT_NAME** name) {
    if (certCtx == nullptr || name == nullptr || (der == nullptr && length != 0))
        return R_ERROR_NULL_ARG;
    *name = nullptr;
    if (length == 0)
        return R_ERROR_DECODE;
    size_t taken = 0;
    if (checked_before(der, length, &taken)) {
        // Taken as before.
    } else if (plain_name(RDer{der, length}, &taken)) {
        remember_checked(der, taken);
    } else {
        // Anything else OpenSSL decides, as it would inside a certificate or CRL.
        const unsigned char* cursor = der;
        X509_NAME* x509 = d2i_X509_NAME(nullptr, &cursor, static_cast<long>(length));
        ERR_clear_error();
        if (x509 == nullptr)
            return R_ERROR_DECODE;
        X509_NAME_free(x509);
        taken = static_cast<size_t>(cursor - der);
    }
    *name = r_new<R_CERT_NAME>();
    if (*name == nullptr)
        return R_ERROR_ALLOC_FAILURE;
    if (!(*name)->der.assign(der, taken)) {
        r_delete(*name);
        *name = nullptr;
        return R_ERROR_ALLOC_FAILURE;
    }
    // Written last: callers pass the same variable for length and consumed.
    if (consumed != nullptr)
        *consumed = static_cast<uint32_t>(taken);
    return R_ERROR_NONE;
}

extern "C" int R_CERT_NAME_to_binary(R_CERT_NAME* name, uint32_t bufferSize, unsigned char* buffer,
                                     uint32_t* length) {
    if (name == nullptr || length == nullptr || (buffer == nullptr && bufferSize != 0))
        return R_ERROR_NULL_ARG;
    *length = static_cast<uint32_t>(name->der.size());
    if (buffer == nullptr)
        return R_ERROR_NONE;
    if (bufferSize < name->der.size())
        return R_ERROR_BUFFER_TOO_SMALL;
    std::memcpy(buffer, name->der.data(), name->der.size());
    return R_ERROR_NONE;
}

extern "C" int R_CERT_NAME_to_string(R_CERT_NAME* name, uint32_t bufferSize, char* buffer) {
    if (name == nullptr || buffer == nullptr)
        return R_ERROR_NULL_ARG;
    X509_NAME* x509 = decoded(name);
    if (x509 == nullptr)
        return R_ERROR_ALLOC_FAILURE;
    uint32_t length = 0;
    const int status = r_cert_name_text(x509, bufferSize, buffer, &length);
    X509_NAME_free(x509);
    return status;
}

extern "C" int R_CERT_NAME_is_equal(R_CERT_NAME* first, R_CERT_NAME* second) {
    if (first == nullptr || second == nullptr)
        return R_ERROR_NULL_ARG;
    // The same bytes are the same name; other bytes may still be, once case
    // and spaces are folded, which X509_NAME_cmp compares.
    if (first->der.size() == second->der.size() &&
        std::memcmp(first->der.data(), second->der.data(), first->der.size()) == 0)
        return 1;
    X509_NAME* a = decoded(first);
    X509_NAME* b = decoded(second);
    const int order = a != nullptr && b != nullptr ? X509_NAME_cmp(a, b) : -2;
    ERR_clear_error();
    X509_NAME_free(a);
    X509_NAME_free(b);
    return order == 0 ? 1 : 0;
}

extern "C" int R_CERT_NAME_free(R_CERT_NAME* name) {
    r_delete(name);
    return R_ERROR_NONE;
}
