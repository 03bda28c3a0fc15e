// Distinguished names: decode, the DER as received, RFC 4514 text, matching.
#include <cstring>
#include <new>

#include <openssl/bio.h>
#include <openssl/err.h>

#include "r_objects.h"

namespace {

// RFC 4514 order and escaping with UTF-8 left as it is, which is what
// `openssl x509 -nameopt RFC2253,-esc_msb` prints.
constexpr unsigned long text_flags = XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB;

} // namespace

R_CERT_NAME* r_cert_name_dup(const X509_NAME* name) {
    X509_NAME* copy = X509_NAME_dup(name);
    if (copy == nullptr) {
        ERR_clear_error();
        return nullptr;
    }
    auto* made = new (std::nothrow) R_CERT_NAME{copy};
    if (made == nullptr)
        X509_NAME_free(copy);
    return made;
}

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
    const unsigned char* cursor = der;
    X509_NAME* x509 = d2i_X509_NAME(nullptr, &cursor, static_cast<long>(length));
    if (x509 == nullptr) {
        ERR_clear_error();
        return R_ERROR_DECODE;
    }
    *name = new (std::nothrow) R_CERT_NAME{x509};
    if (*name == nullptr) {
        X509_NAME_free(x509);
        return R_ERROR_ALLOC_FAILURE;
    }
    // Written last: callers pass the same variable for length and consumed.
    if (consumed != nullptr)
        *consumed = static_cast<uint32_t>(cursor - der);
    return R_ERROR_NONE;
}

int r_name_der_out(const X509_NAME* name, uint32_t bufferSize, unsigned char* buffer,
                   uint32_t* length) {
    const unsigned char* der = nullptr;
    size_t size = 0;
    if (X509_NAME_get0_der(const_cast<X509_NAME*>(name), &der, &size) != 1) {
        ERR_clear_error();
        return R_ERROR_FAILED;
    }
    *length = static_cast<uint32_t>(size);
    if (buffer == nullptr)
        return R_ERROR_NONE;
    if (bufferSize < size)
        return R_ERROR_BUFFER_TOO_SMALL;
    std::memcpy(buffer, der, size);
    return R_ERROR_NONE;
}

extern "C" int R_CERT_NAME_to_binary(R_CERT_NAME* name, uint32_t bufferSize, unsigned char* buffer,
                                     uint32_t* length) {
    if (name == nullptr || length == nullptr || (buffer == nullptr && bufferSize != 0))
        return R_ERROR_NULL_ARG;
    return r_name_der_out(name->x509, bufferSize, buffer, length);
}

extern "C" int R_CERT_NAME_to_string(R_CERT_NAME* name, uint32_t bufferSize, char* buffer) {
    if (name == nullptr || buffer == nullptr)
        return R_ERROR_NULL_ARG;
    uint32_t length = 0;
    return r_cert_name_text(name->x509, bufferSize, buffer, &length);
}

extern "C" int R_CERT_NAME_is_equal(R_CERT_NAME* first, R_CERT_NAME* second) {
    if (first == nullptr || second == nullptr)
        return R_ERROR_NULL_ARG;
    // X509_NAME_cmp compares the canonical forms (case and spaces folded).
    const int order = X509_NAME_cmp(first->x509, second->x509);
    if (order == -2)
        ERR_clear_error();
    return order == 0 ? 1 : 0;
}

extern "C" int R_CERT_NAME_free(R_CERT_NAME* name) {
    if (name != nullptr) {
        X509_NAME_free(name->x509);
        delete name;
    }
    return R_ERROR_NONE;
}
