/*
 * Opaque object types of the R_ certificate toolkit.
 *
 * The layer's records and the module's API hold these by pointer only; the
 * toolkit's own headers declare the functions that make, use and free them.
 * Valid C99 and C++.
 */
#ifndef QXCRL_R_TYPES_H
#define QXCRL_R_TYPES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A cryptographic library context; the layer keeps a table of them. */
typedef struct R_LIB_CTX R_LIB_CTX;
/* The certificate context that names and certificates are made in. */
typedef struct R_CERT_CTX R_CERT_CTX;
typedef struct R_CRL R_CRL;
typedef struct R_CRL_ENTRY R_CRL_ENTRY;
typedef struct R_CERT R_CERT;
typedef struct R_CERT_NAME R_CERT_NAME;
typedef struct R_TIME_CTX R_TIME_CTX;
typedef struct R_TIME R_TIME;
typedef struct R_EXT R_EXT;
typedef struct R_PKEY R_PKEY;

/* A (length, bytes) pair; the bytes stay owned by the object they came from. */
typedef struct R_ITEM {
    uint32_t len;
    unsigned char* data;
} R_ITEM;

#ifdef __cplusplus
}
#endif

#endif
