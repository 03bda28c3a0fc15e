/*
 * The R_ certificate toolkit: X.509 CRLs, certificates, names, times and
 * keys over OpenSSL 3. Callers see only opaque R_ types (r_types.h) and
 * integer statuses; nothing here knows who calls it.
 *
 * Every function returns R_ERROR_NONE (0) or one of the R_ERROR_ codes.
 * Objects made by R_X_new or R_X_from_binary are released with R_X_free,
 * which accepts NULL.
 */
#ifndef QXCRL_TOOLKIT_R_TOOLKIT_H
#define QXCRL_TOOLKIT_R_TOOLKIT_H

#include <stdint.h>

#include "r_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define R_ERROR_NONE 0
#define R_ERROR_FAILED 10001
#define R_ERROR_ALLOC_FAILURE 10002
#define R_ERROR_BUFFER_TOO_SMALL 10003
#define R_ERROR_NULL_ARG 10004
#define R_ERROR_DECODE 10005
#define R_ERROR_NOT_PRESENT 10006
#define R_ERROR_CRYPTO 10007
/* The CRL has no entry for this certificate. */
#define R_ERROR_NOT_FOUND 10008
/* The input carries a critical extension the toolkit does not process. */
#define R_ERROR_UNSUPPORTED 10009

/* ------------------------------------------------------- library contexts */

/* Kinds of library context. */
#define R_LIB_CTX_SHARED 0u   /* the process's default provider set */
#define R_LIB_CTX_ISOLATED 1u /* a provider set of its own */

int R_LIB_CTX_new(uint32_t kind, R_LIB_CTX** libCtx);
int R_LIB_CTX_free(R_LIB_CTX* libCtx);

/* A certificate context makes names and certificates in libCtx, which it borrows. */
int R_CERT_CTX_new(R_LIB_CTX* libCtx, R_CERT_CTX** certCtx);
int R_CERT_CTX_free(R_CERT_CTX* certCtx);

/* --------------------------------------------------------------------- CRLs */

/* A new, empty CRL made in libCtx. flags must be 0. */
int R_CRL_new(R_LIB_CTX* libCtx, uint32_t flags, R_CRL** crl);

/*
 * Decodes one DER CRL from der into a new *crl made in libCtx and reports
 * the bytes it took in *consumed (NULL allowed); trailing bytes are not an
 * error. A CRL carrying a critical CRL or entry extension that the toolkit
 * does not process (an unknown one, an Issuing Distribution Point, a Delta
 * CRL Indicator, a Certificate Issuer) is refused with R_ERROR_UNSUPPORTED:
 * such a CRL is not a complete list of its issuer's revocations.
 */
int R_CRL_from_binary(R_LIB_CTX* libCtx, uint32_t flags, uint32_t length, const unsigned char* der,
                      uint32_t* consumed, R_CRL** crl);

/*
 * Encodes crl as DER. With bufferSize 0 and no buffer, stores only the length.
 * A buffer smaller than the encoding gives R_ERROR_BUFFER_TOO_SMALL.
 */
int R_CRL_to_binary(R_CRL* crl, uint32_t bufferSize, unsigned char* buffer, uint32_t* length);

int R_CRL_free(R_CRL* crl);

/* The library context crl was made in (borrowed). */
R_LIB_CTX* R_CRL_get0_lib_ctx(const R_CRL* crl);

#ifdef __cplusplus
}
#endif

#endif
