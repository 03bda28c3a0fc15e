/*
 * What the toolkit's opaque types hold. Only toolkit sources include this;
 * it is the one place where OpenSSL types meet R_ types.
 */
#ifndef QXCRL_TOOLKIT_R_OBJECTS_H
#define QXCRL_TOOLKIT_R_OBJECTS_H

#include <openssl/types.h>
#include <openssl/x509.h>

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
};

struct R_CERT {
    X509* x509;
    R_LIB_CTX* libCtx;
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

/*
 * True when every critical extension of the CRL and of its entries is one the
 * toolkit processes; a CRL that fails this is partial, delta or indirect.
 */
bool r_crl_extensions_processable(const X509_CRL* crl);

#endif
