// Certificates: decode from DER or PEM, the facts read from them, and their
// CRL distribution points.
#include <climits>
#include <cstring>
#include <new>

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include "r_objects.h"

namespace {

int seconds_of(const ASN1_TIME* time, int64_t* seconds) {
    return r_time_from_asn1(time, seconds) ? R_ERROR_NONE : R_ERROR_DECODE;
}

// A present but unparsable (or repeated) extension is remembered rather than
// refused, so that the rest of the certificate stays usable. Names relative
// to the issuer are made whole, for comparison with a CRL's.
int parse_dist_points(R_CERT* cert) {
    int critical = 0;
    cert->distPoints = static_cast<CRL_DIST_POINTS*>(
        X509_get_ext_d2i(cert->x509, NID_crl_distribution_points, &critical, nullptr));
    if (cert->distPoints == nullptr && critical != -1) {
        ERR_clear_error();
        cert->distPointStatus = R_ERROR_DECODE;
    }
    for (int i = 0; i < sk_DIST_POINT_num(cert->distPoints); ++i) {
        DIST_POINT* point = sk_DIST_POINT_value(cert->distPoints, i);
        if (point->distpoint != nullptr &&
            DIST_POINT_set_dpname(point->distpoint, X509_get_issuer_name(cert->x509)) != 1) {
            ERR_clear_error();
            return R_ERROR_ALLOC_FAILURE;
        }
    }
    return R_ERROR_NONE;
}

// Takes x509 (freed on failure) into a new *cert.
int adopt(X509* x509, R_LIB_CTX* libCtx, R_CERT** cert) {
    auto* made = r_new<R_CERT>();
    if (made == nullptr) {
        X509_free(x509);
        return R_ERROR_ALLOC_FAILURE;
    }
    made->x509 = x509;
    made->libCtx = libCtx;
    const int status = r_integer_octets_keep(X509_get0_serialNumber(x509), &made->serial);
    if (status != R_ERROR_NONE) {
        R_CERT_free(made);
        return status;
    }
    if (const int parsed = parse_dist_points(made); parsed != R_ERROR_NONE) {
        R_CERT_free(made);
        return parsed;
    }
    if (X509_NAME_get0_der(X509_get_issuer_name(x509), &made->issuer.data, &made->issuer.length) !=
            1 ||
        X509_NAME_get0_der(X509_get_subject_name(x509), &made->subject.data,
                           &made->subject.length) != 1) {
        ERR_clear_error();
        R_CERT_free(made);
        return R_ERROR_ALLOC_FAILURE;
    }
    *cert = made;
    return R_ERROR_NONE;
}

const DIST_POINT* dist_point(const R_CERT* cert, uint32_t index) {
    if (cert->distPoints == nullptr ||
        index >= static_cast<uint32_t>(sk_DIST_POINT_num(cert->distPoints)))
        return nullptr;
    return sk_DIST_POINT_value(cert->distPoints, static_cast<int>(index));
}

const GENERAL_NAMES* full_name(const DIST_POINT* point) {
    if (point->distpoint == nullptr || point->distpoint->type != 0)
        return nullptr;
    return point->distpoint->name.fullname;
}

uint16_t general_name_type(int type) {
    switch (type) {
    case GEN_URI:
        return R_GENERAL_NAME_URI;
    case GEN_DIRNAME:
        return R_GENERAL_NAME_DIRECTORY;
    case GEN_DNS:
        return R_GENERAL_NAME_DNS;
    case GEN_EMAIL:
        return R_GENERAL_NAME_EMAIL;
    default:
        return R_GENERAL_NAME_OTHER;
    }
}

} // namespace

extern "C" int R_CERT_from_binary(R_CERT_CTX* certCtx, uint32_t flags, uint32_t length,
                                  const unsigned char* der, uint32_t* consumed, R_CERT** cert) {
    if (certCtx == nullptr || certCtx->libCtx == nullptr || cert == nullptr ||
        (der == nullptr && length != 0))
        return R_ERROR_NULL_ARG;
    *cert = nullptr;
    if (flags != 0)
        return R_ERROR_FAILED;
    if (length == 0)
        return R_ERROR_DECODE;
    X509* x509 = X509_new_ex(certCtx->libCtx->ossl, nullptr);
    if (x509 == nullptr) {
        ERR_clear_error();
        return R_ERROR_ALLOC_FAILURE;
    }
    const unsigned char* cursor = der;
    // d2i fills the object made in the library context, so the certificate keeps it.
    if (d2i_X509(&x509, &cursor, static_cast<long>(length)) == nullptr) {
        ERR_clear_error();
        X509_free(x509);
        return R_ERROR_DECODE;
    }
    const int status = adopt(x509, certCtx->libCtx, cert);
    if (status == R_ERROR_NONE && consumed != nullptr)
        *consumed = static_cast<uint32_t>(cursor - der);
    return status;
}

extern "C" int R_CERT_from_text(R_CERT_CTX* certCtx, uint32_t length, const char* text,
                                R_CERT** cert) {
    if (certCtx == nullptr || certCtx->libCtx == nullptr || cert == nullptr ||
        (text == nullptr && length != 0))
        return R_ERROR_NULL_ARG;
    *cert = nullptr;
    if (length == 0)
        return R_ERROR_DECODE;
    if (length > INT_MAX)
        return R_ERROR_FAILED;
    BIO* bio = BIO_new_mem_buf(text, static_cast<int>(length));
    X509* x509 = bio == nullptr ? nullptr : X509_new_ex(certCtx->libCtx->ossl, nullptr);
    if (x509 == nullptr) {
        ERR_clear_error();
        BIO_free(bio);
        return R_ERROR_ALLOC_FAILURE;
    }
    // Skips blocks of other labels; a failed decode frees x509 and clears the pointer.
    const bool read = PEM_read_bio_X509(bio, &x509, nullptr, nullptr) != nullptr;
    BIO_free(bio);
    if (!read) {
        ERR_clear_error();
        X509_free(x509);
        return R_ERROR_DECODE;
    }
    return adopt(x509, certCtx->libCtx, cert);
}

extern "C" int R_CERT_to_binary(R_CERT* cert, uint32_t bufferSize, unsigned char* buffer,
                                uint32_t* length) {
    if (cert == nullptr || length == nullptr || (buffer == nullptr && bufferSize != 0))
        return R_ERROR_NULL_ARG;
    return r_i2d_out<X509>(cert->x509, i2d_X509, bufferSize, buffer, length);
}

extern "C" int R_CERT_free(R_CERT* cert) {
    if (cert != nullptr) {
        sk_DIST_POINT_pop_free(cert->distPoints, DIST_POINT_free);
        r_integer_octets_free(&cert->serial);
        X509_free(cert->x509);
        r_delete(cert);
    }
    return R_ERROR_NONE;
}

extern "C" int R_CERT_get_info(R_CERT* cert, int id, void* value) {
    if (cert == nullptr || value == nullptr)
        return R_ERROR_NULL_ARG;
    switch (id) {
    case R_CERT_INFO_SERIAL: {
        r_integer_octets_item(cert->serial, static_cast<R_ITEM*>(value));
        return R_ERROR_NONE;
    }
    case R_CERT_INFO_ISSUER_NAME:
    case R_CERT_INFO_SUBJECT_NAME: {
        auto** name = static_cast<R_CERT_NAME**>(value);
        *name = r_cert_name_of(id == R_CERT_INFO_ISSUER_NAME ? cert->issuer : cert->subject);
        return *name == nullptr ? R_ERROR_ALLOC_FAILURE : R_ERROR_NONE;
    }
    case R_CERT_INFO_NOT_BEFORE:
        return seconds_of(X509_get0_notBefore(cert->x509), static_cast<int64_t*>(value));
    case R_CERT_INFO_NOT_AFTER:
        return seconds_of(X509_get0_notAfter(cert->x509), static_cast<int64_t*>(value));
    case R_CERT_INFO_DIST_POINT_COUNT:
        if (cert->distPointStatus != R_ERROR_NONE)
            return cert->distPointStatus;
        *static_cast<uint32_t*>(value) =
            cert->distPoints == nullptr
                ? 0
                : static_cast<uint32_t>(sk_DIST_POINT_num(cert->distPoints));
        return R_ERROR_NONE;
    default:
        return R_ERROR_FAILED;
    }
}

extern "C" int R_CERT_issuer_name_to_R_CERT_NAME(R_CERT* cert, uint32_t flags, R_CERT_NAME** name) {
    if (cert == nullptr || name == nullptr)
        return R_ERROR_NULL_ARG;
    *name = nullptr;
    if (flags != 0)
        return R_ERROR_FAILED;
    *name = r_cert_name_of(cert->issuer);
    return *name == nullptr ? R_ERROR_ALLOC_FAILURE : R_ERROR_NONE;
}

extern "C" int R_CERT_get_dist_point(R_CERT* cert, uint32_t index, uint32_t* kind,
                                     uint32_t* reasons, uint32_t* nameCount) {
    if (cert == nullptr || kind == nullptr || reasons == nullptr || nameCount == nullptr)
        return R_ERROR_NULL_ARG;
    if (cert->distPointStatus != R_ERROR_NONE)
        return cert->distPointStatus;
    const DIST_POINT* point = dist_point(cert, index);
    if (point == nullptr)
        return R_ERROR_NOT_PRESENT;
    if (point->distpoint == nullptr)
        *kind = R_DIST_POINT_NONE;
    else
        *kind = point->distpoint->type == 0 ? R_DIST_POINT_FULL_NAME : R_DIST_POINT_RELATIVE;
    // ReasonFlags bit i (unused = 0, keyCompromise = 1, ...) becomes 1 << i.
    uint32_t bits = 0;
    if (point->reasons != nullptr) {
        const int available = ASN1_STRING_length(point->reasons) * 8;
        for (int bit = 0; bit < 32 && bit < available; ++bit) {
            if (ASN1_BIT_STRING_get_bit(point->reasons, bit))
                bits |= 1u << bit;
        }
    }
    *reasons = bits;
    const GENERAL_NAMES* names = full_name(point);
    *nameCount = names == nullptr ? 0 : static_cast<uint32_t>(sk_GENERAL_NAME_num(names));
    return R_ERROR_NONE;
}

extern "C" int R_CERT_get_dist_point_name(R_CERT* cert, uint32_t index, uint32_t nameIndex,
                                          uint16_t* type, uint32_t bufferSize, char* buffer,
                                          uint32_t* length) {
    if (cert == nullptr || type == nullptr || length == nullptr ||
        (buffer == nullptr && bufferSize != 0))
        return R_ERROR_NULL_ARG;
    if (cert->distPointStatus != R_ERROR_NONE)
        return cert->distPointStatus;
    const DIST_POINT* point = dist_point(cert, index);
    const GENERAL_NAMES* names = point == nullptr ? nullptr : full_name(point);
    if (names == nullptr || nameIndex >= static_cast<uint32_t>(sk_GENERAL_NAME_num(names)))
        return R_ERROR_NOT_PRESENT;
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(names, static_cast<int>(nameIndex));
    *type = general_name_type(name->type);
    if (name->type == GEN_DIRNAME)
        return r_cert_name_text(name->d.directoryName, bufferSize, buffer, length);
    const ASN1_IA5STRING* text = nullptr;
    if (name->type == GEN_URI || name->type == GEN_DNS || name->type == GEN_EMAIL)
        text = name->d.ia5;
    const auto size = static_cast<uint32_t>(text == nullptr ? 0 : ASN1_STRING_length(text));
    *length = size;
    if (buffer == nullptr)
        return R_ERROR_NONE;
    if (static_cast<uint64_t>(size) + 1 > bufferSize)
        return R_ERROR_BUFFER_TOO_SMALL;
    if (size > 0)
        std::memcpy(buffer, ASN1_STRING_get0_data(text), size);
    buffer[size] = '\0';
    return R_ERROR_NONE;
}
