/*
 * What the toolkit's opaque types hold. Only toolkit sources include this;
 * it is the one place where OpenSSL types meet R_ types.
 */
#ifndef QXCRL_TOOLKIT_R_OBJECTS_H
#define QXCRL_TOOLKIT_R_OBJECTS_H

#include <atomic>
#include <new>
#include <utility>

#include <openssl/crypto.h>

#include <openssl/err.h>
#include <openssl/types.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "r_bytes.h"
#include "r_toolkit.h"

struct R_LIB_CTX {
    OSSL_LIB_CTX* ossl; /* NULL stands for OpenSSL's default context */
    bool owned;
    // The time R_TIME_time gives in this context, when fixed; a layer
    // instance judges "now" at a chosen time without touching the process's clock.
    std::atomic<bool> timeFixed{false};
    std::atomic<int64_t> fixedSeconds{0};
};

struct R_CERT_CTX {
    R_LIB_CTX* libCtx;
};

/* The parts of a CRL, in the order they are written. */
enum RCrlPart {
    R_PART_VERSION,
    R_PART_TBS_SIGNATURE_ALGORITHM,
    R_PART_ISSUER,
    R_PART_THIS_UPDATE,
    R_PART_NEXT_UPDATE,
    R_PART_ENTRIES,    /* the revokedCertificates SEQUENCE */
    R_PART_EXTENSIONS, /* the [0] around crlExtensions */
    R_PART_SIGNATURE_ALGORITHM,
    R_PART_SIGNATURE,
    R_PART_COUNT
};

/* A run of a CRL's bytes; length 0 for a part that is absent. */
struct RCrlSpan {
    uint32_t offset = 0;
    uint32_t length = 0;
};

/* Entries between two marks of a CRL's index. */
constexpr uint32_t r_entry_stride = 16;

/* What the one pass over a CRL's bytes learns, beyond where its parts are. */
struct RCrlIndex {
    RCrlSpan entryList;     /* the content of the entries' SEQUENCE */
    RCrlSpan extensionList; /* the content of the extensions' SEQUENCE */
    uint32_t entryCount = 0;
    // Where every r_entry_stride-th entry's element starts: a million entries
    // cost a quarter of a megabyte, and any entry is a few headers away.
    uint32_t* marks = nullptr;
    // For a sorted list, each mark's serial as far as a 32-bit key orders it
    // (r_serial_key), so that halving the marks seldom reads an entry.
    uint32_t* markKeys = nullptr;
    // Open addressing by serial: entry number + 1, 0 for free; the top bit
    // marks a serial listed more than once.
    uint32_t* slots = nullptr;
    uint32_t slotMask = 0;
    bool entriesSorted = true; /* in the order signing puts them */
    // Entries from here on carry no reason, as OpenSSL reads them: it stops
    // reading reasons at the first entry whose reason it cannot read.
    uint32_t reasonsReadUpTo = 0;
    X509_NAME* issuer = nullptr;              /* decoded once, for comparison and text */
    X509_ALGOR* signatureAlgorithm = nullptr; /* NULL until signed */
    // The Issuing Distribution Point, read once, names relative to the
    // issuer made whole; NULL when the CRL has none.
    ISSUING_DIST_POINT* idp = nullptr;
};

struct R_CRL {
    R_LIB_CTX* libCtx = nullptr;
    // The CRL's bytes (OpenSSL's allocator): as received for a decoded CRL,
    // as last written for one being built or changed.
    unsigned char* der = nullptr;
    uint32_t length = 0;
    RCrlSpan tbs; /* the to-be-signed element, what the signature covers */
    RCrlSpan parts[R_PART_COUNT];
    RCrlIndex index;
};

/* An extension: its element, kept whole. */
struct R_EXT {
    R_LIB_CTX* libCtx = nullptr;
    RBytes der;
    RCrlSpan oid;   /* content octets of extnID */
    RCrlSpan value; /* content octets of extnValue */
    bool critical = false;
    bool filled = false;
};

/*
 * An entry: the content octets of its element (serial, revocation date,
 * extensions), or of as much of them as has been set on one being built.
 */
struct R_CRL_ENTRY {
    R_LIB_CTX* libCtx = nullptr;
    RBytes body;
    uint32_t serialLength = 0; /* the serial's element; 0 until set */
    uint32_t dateLength = 0;   /* the date's element after it; 0 until set */
};

/* Bytes someone else owns. */
struct RDerView {
    const unsigned char* data = nullptr;
    size_t length = 0;
};

/* An INTEGER's DER, kept so that its content octets can be handed out. */
struct R_INTEGER_OCTETS {
    unsigned char* der = nullptr;
    uint32_t offset = 0; /* where the content octets start in der */
    uint32_t length = 0;
};

struct R_CERT {
    X509* x509 = nullptr;
    R_LIB_CTX* libCtx = nullptr;
    // The serial item points into this, so callers read bytes the certificate owns.
    R_INTEGER_OCTETS serial;
    // CRL distribution points, parsed once at decode (NULL when absent);
    // distPointStatus is R_ERROR_DECODE when the extension does not parse.
    CRL_DIST_POINTS* distPoints = nullptr;
    int distPointStatus = R_ERROR_NONE;
    // The names' DER as received, found once: the certificate owns the bytes.
    RDerView issuer;
    RDerView subject;
};

/* A name: its DER as received. */
struct R_CERT_NAME {
    RBytes der;
};

struct R_TIME_CTX {
    R_LIB_CTX* libCtx = nullptr;
};

struct R_TIME {
    int64_t seconds;                   /* since 1970-01-01 UTC */
    const R_LIB_CTX* libCtx = nullptr; /* whose fixed time R_TIME_time honours */
};

struct R_PKEY {
    EVP_PKEY* pkey = nullptr;
    R_LIB_CTX* libCtx = nullptr; /* the context it was decoded in */
};

/* Keeps integer's DER in octets, replacing what octets held. */
int r_integer_octets_keep(const ASN1_INTEGER* integer, R_INTEGER_OCTETS* octets);
void r_integer_octets_free(R_INTEGER_OCTETS* octets);
/* An item over the content octets, owned by octets. */
void r_integer_octets_item(const R_INTEGER_OCTETS& octets, R_ITEM* item);

/*
 * A new T built from args, in memory from OpenSSL's allocator, so that
 * allocation-failure tests reach every toolkit object; NULL when out of memory.
 */
template <typename T, typename... Args> T* r_new(Args&&... args) {
    void* memory = OPENSSL_malloc(sizeof(T));
    return memory == nullptr ? nullptr : new (memory) T{std::forward<Args>(args)...};
}

/* Destroys and releases an object made by r_new; NULL is allowed. */
template <typename T> void r_delete(T* object) {
    if (object != nullptr) {
        object->~T();
        OPENSSL_free(object);
    }
}

/* A new holder for *out made in libCtx (flags must be 0), empty but for libCtx. */
template <typename T> int r_new_holder(R_LIB_CTX* libCtx, uint32_t flags, T** out) {
    if (libCtx == nullptr || out == nullptr)
        return R_ERROR_NULL_ARG;
    *out = nullptr;
    if (flags != 0)
        return R_ERROR_FAILED;
    *out = r_new<T>();
    if (*out == nullptr)
        return R_ERROR_ALLOC_FAILURE;
    (*out)->libCtx = libCtx;
    return R_ERROR_NONE;
}

/*
 * DER of object through an i2d function into buffer; with bufferSize 0 and no
 * buffer only the length is stored.
 */
template <typename T>
int r_i2d_out(const T* object, int (*i2d)(const T*, unsigned char**), uint32_t bufferSize,
              unsigned char* buffer, uint32_t* length) {
    const int needed = i2d(object, nullptr);
    if (needed <= 0) {
        ERR_clear_error();
        return R_ERROR_FAILED;
    }
    *length = static_cast<uint32_t>(needed);
    if (buffer == nullptr)
        return R_ERROR_NONE;
    if (bufferSize < static_cast<uint32_t>(needed))
        return R_ERROR_BUFFER_TOO_SMALL;
    unsigned char* cursor = buffer;
    return i2d(object, &cursor) == needed ? R_ERROR_NONE : R_ERROR_FAILED;
}

/*
 * Why an OpenSSL decoder just failed, emptying the error queue:
 * R_ERROR_ALLOC_FAILURE when it ran out of memory, R_ERROR_DECODE otherwise.
 */
int r_decode_failure();

/* Seconds since 1970 of an ASN1_TIME; false when it is empty or malformed. */
bool r_time_from_asn1(const ASN1_TIME* asn1, int64_t* seconds);

/*
 * seconds as UTCTime through 2049 and GeneralizedTime from 2050, into reuse
 * when it is not NULL; NULL when the time cannot be encoded.
 */
ASN1_TIME* r_time_to_asn1(int64_t seconds, ASN1_TIME* reuse);

/*
 * seconds as a new time of a CRL field into *asn1: R_ERROR_TIME_RANGE
 * before 1950 or after 9999, where RFC 5280's two encodings end.
 */
int r_crl_time(int64_t seconds, ASN1_TIME** asn1);

/* A new R_CERT_NAME holding a copy of a name's DER, or NULL. */
R_CERT_NAME* r_cert_name_of(const RDerView& der);

/*
 * name as RFC 4514 text, NUL-terminated in buffer. *length is the text's
 * length without the terminator; with buffer NULL only *length is stored.
 * R_ERROR_BUFFER_TOO_SMALL when the text and terminator exceed bufferSize.
 */
int r_cert_name_text(const X509_NAME* name, uint32_t bufferSize, char* buffer, uint32_t* length);

#endif
