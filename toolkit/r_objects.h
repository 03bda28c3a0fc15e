/*
 * What the toolkit's opaque types hold. Only toolkit sources include this;
 * it is the one place where OpenSSL types meet R_ types.
 */
#ifndef QXCRL_TOOLKIT_R_OBJECTS_H
#define QXCRL_TOOLKIT_R_OBJECTS_H

#include <openssl/types.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "r_toolkit.h"

struct R_LIB_CTX {
    OSSL_LIB_CTX* ossl; /* NULL stands for OpenSSL's default context */
    bool owned;
};

struct R_CERT_CTX {
    R_LIB_CTX* libCtx;
};

struct R_CRL {
    X509_CRL* x509;
    R_LIB_CTX* libCtx;
};

struct R_CRL_ENTRY {
    X509_REVOKED* x509; /* NULL until filled */
    R_LIB_CTX* libCtx;
    /*
     * The serial's DER content octets, kept because ASN1_INTEGER holds only
     * a magnitude and a sign; refreshed from x509 whenever they are asked for.
     */
    unsigned char* serial;
    uint32_t serialLength;
};

struct R_CERT {
    X509* x509;
    R_LIB_CTX* libCtx;
    // The serial INTEGER's DER; the serial item points at its content octets
    // inside it, so callers read bytes the certificate owns and never re-encode.
    unsigned char* serialDer = nullptr;
    uint32_t serialOffset = 0;
    uint32_t serialLength = 0;
    // CRL distribution points, parsed once at decode (NULL when absent);
    // distPointStatus is R_ERROR_DECODE when the extension does not parse.
    CRL_DIST_POINTS* distPoints = nullptr;
    int distPointStatus = R_ERROR_NONE;
};

struct R_CERT_NAME {
    X509_NAME* x509;
};

struct R_TIME_CTX {
    R_LIB_CTX* libCtx;
};

struct R_TIME {
    int64_t seconds; /* since 1970-01-01 UTC */
};

struct R_EXT {
    X509_EXTENSION* x509; /* NULL until filled */
    R_LIB_CTX* libCtx;
};

/* Seconds since 1970 of an ASN1_TIME; false when it is empty or malformed. */
bool r_time_from_asn1(const ASN1_TIME* asn1, int64_t* seconds);

/*
 * seconds as UTCTime through 2049 and GeneralizedTime from 2050, into reuse
 * when it is not NULL; NULL when the time cannot be encoded.
 */
ASN1_TIME* r_time_to_asn1(int64_t seconds, ASN1_TIME* reuse);

/* Makes entry hold revoked (taking it), freeing what it held. */
void r_crl_entry_set0(R_CRL_ENTRY* entry, X509_REVOKED* revoked);

/* A name's DER as received into buffer; a size query when buffer is NULL. */
int r_name_der_out(const X509_NAME* name, uint32_t bufferSize, unsigned char* buffer,
                   uint32_t* length);

/*
 * True when every critical extension of the CRL and of its entries is one the
 * toolkit processes; a CRL that fails this is partial, delta or indirect.
 */
bool r_crl_extensions_processable(const X509_CRL* crl);

/* A new R_CERT_NAME holding a copy of name (the received DER kept), or NULL. */
R_CERT_NAME* r_cert_name_dup(const X509_NAME* name);

/*
 * name as RFC 4514 text, NUL-terminated in buffer. *length is the text's
 * length without the terminator; with buffer NULL only *length is stored.
 * R_ERROR_BUFFER_TOO_SMALL when the text and terminator exceed bufferSize.
 */
int r_cert_name_text(const X509_NAME* name, uint32_t bufferSize, char* buffer, uint32_t* length);

#endif
