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
/* A time before 1950-01-01 or after 9999-12-31, which no CRL can carry. */
#define R_ERROR_TIME_RANGE 10010
/* The CRL does not speak for this certificate (its Issuing Distribution Point). */
#define R_ERROR_OUT_OF_SCOPE 10011

/* ------------------------------------------------------- library contexts */

/* Kinds of library context. */
#define R_LIB_CTX_SHARED 0u   /* the process's default provider set */
#define R_LIB_CTX_ISOLATED 1u /* a provider set of its own */

int R_LIB_CTX_new(uint32_t kind, R_LIB_CTX** libCtx);
int R_LIB_CTX_free(R_LIB_CTX* libCtx);

/*
 * With fixed non-zero, R_TIME_time on times made in libCtx gives seconds
 * instead of the clock's now; with fixed 0 they read the clock again.
 */
int R_LIB_CTX_set_time(R_LIB_CTX* libCtx, int fixed, int64_t seconds);

/* A certificate context makes names and certificates in libCtx, which it borrows. */
int R_CERT_CTX_new(R_LIB_CTX* libCtx, R_CERT_CTX** certCtx);
int R_CERT_CTX_free(R_CERT_CTX* certCtx);

/* --------------------------------------------------------------------- CRLs */

/* A new, empty CRL made in libCtx. flags must be 0. */
int R_CRL_new(R_LIB_CTX* libCtx, uint32_t flags, R_CRL** crl);

/*
 * Decodes one DER CRL from der into a new *crl made in libCtx and reports
 * the bytes it took in *consumed (NULL allowed); trailing bytes are not an
 * error. Refused with R_ERROR_UNSUPPORTED: a CRL carrying a critical CRL or
 * entry extension that the toolkit does not process (an unknown one, a
 * Certificate Issuer), any delta CRL, and a CRL whose Issuing Distribution
 * Point does not parse or gives no scope. A CRL with a readable Issuing
 * Distribution Point, critical or not, answers only for the certificates in
 * its scope (R_CRL_check_scope).
 */
int R_CRL_from_binary(R_LIB_CTX* libCtx, uint32_t flags, uint32_t length, const unsigned char* der,
                      uint32_t* consumed, R_CRL** crl);

/* A buffer of size bytes from the toolkit's allocator; NULL when out of memory. */
unsigned char* R_BUFFER_new(uint32_t size);
void R_BUFFER_free(unsigned char* buffer);

/*
 * R_CRL_from_binary over der from R_BUFFER_new, which the new CRL keeps as
 * its bytes instead of a copy: on success the CRL owns der (cut to the bytes
 * it took, however large the buffer was), on failure the caller still does.
 */
int R_CRL_from_binary_owned(R_LIB_CTX* libCtx, uint32_t flags, uint32_t length, unsigned char* der,
                            uint32_t* consumed, R_CRL** crl);

/* How R_CRL_from_binary takes an extension, by its OpenSSL NID. */
#define R_CRL_EXT_IGNORED 0   /* read past when not critical; refuses the CRL when critical */
#define R_CRL_EXT_PROCESSED 1 /* taken into account, critical or not */
#define R_CRL_EXT_REFUSED 2   /* refuses the CRL, critical or not */
/* For an extension of the CRL itself (inEntry 0) or of one of its entries. */
int R_CRL_extension_handling(int nid, int inEntry);

/*
 * Encodes crl as DER. With bufferSize 0 and no buffer, stores only the length.
 * A buffer smaller than the encoding gives R_ERROR_BUFFER_TOO_SMALL.
 */
int R_CRL_to_binary(R_CRL* crl, uint32_t bufferSize, unsigned char* buffer, uint32_t* length);

int R_CRL_free(R_CRL* crl);

/* The library context crl was made in (borrowed). */
R_LIB_CTX* R_CRL_get0_lib_ctx(const R_CRL* crl);

/*
 * Signature algorithm identifiers (R_CRL_INFO_SIGNATURE_ALGORITHM, R_CRL_sign):
 * the OpenSSL NID for classic algorithms; RSASSA-PSS, which has one NID for
 * every hash, is told apart by adding its hash's NID to R_SIG_ALG_RSA_PSS_BASE.
 */
#define R_SIG_ALG_MD5_WITH_RSA 8u
#define R_SIG_ALG_SHA1_WITH_RSA 65u
#define R_SIG_ALG_SHA256_WITH_RSA 668u
#define R_SIG_ALG_SHA384_WITH_RSA 669u
#define R_SIG_ALG_SHA512_WITH_RSA 670u
#define R_SIG_ALG_ECDSA_SHA256 794u
#define R_SIG_ALG_ECDSA_SHA384 795u
#define R_SIG_ALG_ECDSA_SHA512 796u
#define R_SIG_ALG_ED25519 1087u
#define R_SIG_ALG_ED448 1088u
#define R_SIG_ALG_RSA_PSS_BASE 0x100000u
#define R_SIG_ALG_RSA_PSS_SHA256 (R_SIG_ALG_RSA_PSS_BASE + 672u)
#define R_SIG_ALG_RSA_PSS_SHA384 (R_SIG_ALG_RSA_PSS_BASE + 673u)
#define R_SIG_ALG_RSA_PSS_SHA512 (R_SIG_ALG_RSA_PSS_BASE + 674u)

/* Info identifiers of R_CRL_get_info / R_CRL_set_info. */
#define R_CRL_INFO_ISSUER_NAME 4           /* R_ITEM*: issuer DER, the CRL's until it changes */
#define R_CRL_INFO_SIGNATURE_ALGORITHM 0xD /* uint32_t*: OpenSSL NID of the signature */
#define R_CRL_INFO_VERSION 0x8003          /* uint32_t*: 1 for a v2 CRL */
#define R_CRL_INFO_CRL_NUMBER 0x4023       /* R_EXT*: filled with the CRL Number */
#define R_CRL_INFO_THIS_UPDATE 0x10005     /* R_TIME*: filled */
#define R_CRL_INFO_NEXT_UPDATE 0x10006     /* R_TIME*: filled; R_ERROR_NOT_PRESENT if none */

/* Stores the item named by id into value (see the identifiers above). */
int R_CRL_get_info(R_CRL* crl, int id, void* value);

int R_CRL_get_entry_count(R_CRL* crl, uint32_t* count);

/* Fills entry with a copy of the CRL's entry number index (from 0). */
int R_CRL_get_entry(R_CRL* crl, uint32_t index, R_CRL_ENTRY* entry);

/* The CRL's own extensions, in the order received: how many, and a copy of number index. */
int R_CRL_get_extension_count(R_CRL* crl, uint32_t* count);
int R_CRL_get_extension(R_CRL* crl, uint32_t index, R_EXT* ext);

/*
 * R_ERROR_NONE when crl speaks for cert, R_ERROR_OUT_OF_SCOPE when it does
 * not (RFC 5280 6.3.3 (b)): the CRL's Issuing Distribution Point names a
 * point none of cert's distribution points names; it holds only user or
 * only CA certificates and cert is not one (a certificate before version 3
 * is neither for sure); it holds only attribute certificates, only some
 * reasons, or other issuers' certificates, which no single direct CRL can
 * answer for; or every distribution point of cert names a CRL issuer.
 */
int R_CRL_check_scope(R_CRL* crl, R_CERT* cert);

/*
 * Fills entry with the CRL's entry for cert's serial; R_ERROR_NOT_FOUND if
 * none, R_ERROR_OUT_OF_SCOPE when the CRL does not speak for cert at all.
 */
int R_CRL_find_entry(R_CRL* crl, R_CERT* cert, R_CRL_ENTRY* entry);

/* The issuer name's DER, as received; the length is stored even when the buffer is too small. */
int R_CRL_issuer_name_to_binary(R_CRL* crl, uint32_t bufferSize, unsigned char* buffer,
                                uint32_t* length);

/* Verdicts of R_CRL_verify other than 0 (the issuer signed it). */
#define R_CRL_VERIFY_BAD_SIGNATURE 1  /* the signature is not the issuer's key's */
#define R_CRL_VERIFY_OTHER_ISSUER 2   /* the CRL names another issuer */
#define R_CRL_VERIFY_NOT_CRL_SIGNER 3 /* the issuer's keyUsage lacks cRLSign */

/*
 * Whether issuer issued crl (RFC 5280 6.3.3 (f)): the CRL's issuer name
 * matches issuer's subject (RFC 5280 7.1 comparison), issuer's keyUsage, if
 * it has one, allows cRLSign, and the signature verifies with issuer's
 * public key. R_ERROR_NONE with *result 0 when all three hold, R_ERROR_NONE
 * with *result the first R_CRL_VERIFY_ verdict that fails otherwise, another
 * status when the check could not be made.
 */
int R_CRL_verify(R_CRL* crl, R_CERT* issuer, uint32_t* result);

/* ------------------------------------------------------------ CRL writing */

/*
 * A change made by the setters below is in what R_CRL_to_binary writes and
 * what R_CRL_verify checks from then on, for a decoded CRL too: a signed
 * CRL that is changed no longer verifies until R_CRL_sign signs it again.
 */

/*
 * Sets a field: R_CRL_INFO_THIS_UPDATE and R_CRL_INFO_NEXT_UPDATE take an
 * R_TIME* (encoded as UTCTime through 2049, GeneralizedTime from 2050;
 * R_ERROR_TIME_RANGE outside 1950 to 9999), R_CRL_INFO_VERSION a uint32_t*
 * (1 for v2). A failure changes nothing.
 */
int R_CRL_set_info(R_CRL* crl, int id, const void* value);

/* Adds a copy of entry to crl; a duplicate serial is added like any other. */
int R_CRL_add_entry(R_CRL* crl, R_CRL_ENTRY* entry);

/*
 * Signs crl with key under algorithm (R_SIG_ALG_*): sets the issuer name to
 * issuer's subject, the Authority Key Identifier to issuer's Subject Key
 * Identifier when it has one, and the CRL Number to one more than the CRL's
 * (1 when it has none), then signs. A key that does not fit the algorithm,
 * or MD5, is refused. A failure leaves the CRL as it was.
 */
int R_CRL_sign(R_CRL* crl, R_CERT* issuer, R_PKEY* key, uint32_t algorithm);

/* -------------------------------------------------------------- private keys */

/*
 * Decodes a private key: DER (PKCS#8 or the algorithm's own form), or PEM text
 * (PKCS#8, traditional, or encrypted with passphrase, which may be NULL).
 * Wrong passphrase or unreadable input: R_ERROR_DECODE.
 */
int R_PKEY_from_bytes(R_LIB_CTX* libCtx, uint32_t length, const unsigned char* bytes,
                      const char* passphrase, R_PKEY** key);

/* The key as unencrypted PKCS#8 DER; a size query with bufferSize 0 and no buffer. */
int R_PKEY_to_binary(R_PKEY* key, uint32_t bufferSize, unsigned char* buffer, uint32_t* length);

int R_PKEY_free(R_PKEY* key);

/* ------------------------------------------------------------ CRL entries */

#define R_CRL_ENTRY_INFO_SERIAL 0x8007           /* R_ITEM*: INTEGER content octets */
#define R_CRL_ENTRY_INFO_REVOCATION_DATE 0x18008 /* R_TIME*: filled */

int R_CRL_ENTRY_new(R_LIB_CTX* libCtx, uint32_t flags, R_CRL_ENTRY** entry);
int R_CRL_ENTRY_get_info(R_CRL_ENTRY* entry, int id, void* value);
/*
 * Sets a field of an entry being built: R_CRL_ENTRY_INFO_SERIAL takes an
 * R_ITEM* of INTEGER content octets, kept byte for byte; the revocation date
 * an R_TIME* (R_ERROR_TIME_RANGE outside 1950 to 9999).
 */
int R_CRL_ENTRY_set_info(R_CRL_ENTRY* entry, int id, const void* value);
int R_CRL_ENTRY_free(R_CRL_ENTRY* entry);
/* The entry's extensions, in the order received: how many, and a copy of number index. */
int R_CRL_ENTRY_get_extension_count(R_CRL_ENTRY* entry, uint32_t* count);
int R_CRL_ENTRY_get_extension(R_CRL_ENTRY* entry, uint32_t index, R_EXT* ext);

/* ----------------------------------------------------------- certificates */

#define R_CERT_INFO_SERIAL 2                /* R_ITEM*: INTEGER content octets, owned by the cert */
#define R_CERT_INFO_ISSUER_NAME 0x800A      /* R_CERT_NAME**: a new name */
#define R_CERT_INFO_SUBJECT_NAME 0x800B     /* R_CERT_NAME**: a new name */
#define R_CERT_INFO_NOT_BEFORE 0x10001      /* int64_t*: seconds since 1970 */
#define R_CERT_INFO_NOT_AFTER 0x10002       /* int64_t*: seconds since 1970 */
#define R_CERT_INFO_DIST_POINT_COUNT 0x8010 /* uint32_t*: CRL distribution points */

/*
 * Decodes one DER certificate into a new *cert made in certCtx's library
 * context and reports the bytes it took in *consumed (NULL allowed); trailing
 * bytes are not an error. flags must be 0.
 */
int R_CERT_from_binary(R_CERT_CTX* certCtx, uint32_t flags, uint32_t length,
                       const unsigned char* der, uint32_t* consumed, R_CERT** cert);
/*
 * Decodes the first CERTIFICATE block of PEM text (LF or CRLF line ends;
 * blocks of other labels before it are skipped) into a new *cert made in
 * certCtx's library context.
 */
int R_CERT_from_text(R_CERT_CTX* certCtx, uint32_t length, const char* text, R_CERT** cert);
/*
 * Encodes cert as DER. With bufferSize 0 and no buffer, stores only the length.
 * A buffer smaller than the encoding gives R_ERROR_BUFFER_TOO_SMALL.
 */
int R_CERT_to_binary(R_CERT* cert, uint32_t bufferSize, unsigned char* buffer, uint32_t* length);
int R_CERT_free(R_CERT* cert);
int R_CERT_get_info(R_CERT* cert, int id, void* value);

/* A new name holding cert's issuer. flags must be 0. */
int R_CERT_issuer_name_to_R_CERT_NAME(R_CERT* cert, uint32_t flags, R_CERT_NAME** name);

/* Kinds of distribution point name, and general-name types the toolkit reports. */
#define R_DIST_POINT_NONE 0u      /* no distributionPoint name (cRLIssuer only) */
#define R_DIST_POINT_RELATIVE 1u  /* nameRelativeToCRLIssuer */
#define R_DIST_POINT_FULL_NAME 2u /* fullName: a list of general names */
#define R_GENERAL_NAME_URI 38u
#define R_GENERAL_NAME_DIRECTORY 36u
#define R_GENERAL_NAME_DNS 34u
#define R_GENERAL_NAME_EMAIL 33u
#define R_GENERAL_NAME_OTHER 32u

/* Kind, reasons bits (0 when absent) and number of full-name entries of point index. */
int R_CERT_get_dist_point(R_CERT* cert, uint32_t index, uint32_t* kind, uint32_t* reasons,
                          uint32_t* nameCount);

/*
 * Type and text of full-name entry nameIndex of point index, NUL-terminated
 * in buffer; R_ERROR_BUFFER_TOO_SMALL (with *length the text's length) when
 * it does not fit. A URI, DNS name or email is its text; a directory name is
 * its RFC 4514 text; other kinds give an empty text.
 */
int R_CERT_get_dist_point_name(R_CERT* cert, uint32_t index, uint32_t nameIndex, uint16_t* type,
                               uint32_t bufferSize, char* buffer, uint32_t* length);

/* ------------------------------------------------------------------ names */

/* Decodes a DER name into a new *name. flags are ignored. */
int R_CERT_NAME_from_binary(R_CERT_CTX* certCtx, uint32_t flags, uint32_t length,
                            const unsigned char* der, uint32_t* consumed, R_CERT_NAME** name);

/* The name's DER, the bytes as received (never re-encoded). */
int R_CERT_NAME_to_binary(R_CERT_NAME* name, uint32_t bufferSize, unsigned char* buffer,
                          uint32_t* length);

/*
 * RFC 4514 text (UTF-8 left unescaped), NUL-terminated; R_ERROR_BUFFER_TOO_SMALL
 * when it needs more than bufferSize bytes with the terminator.
 */
int R_CERT_NAME_to_string(R_CERT_NAME* name, uint32_t bufferSize, char* buffer);

/* 1 when the names match under RFC 5280 rules, 0 when not, a status on bad arguments. */
int R_CERT_NAME_is_equal(R_CERT_NAME* first, R_CERT_NAME* second);

int R_CERT_NAME_free(R_CERT_NAME* name);

/* ------------------------------------------------------------------ times */

#define R_TIME_FORMAT_SECONDS_BE 3 /* 8 bytes, big-endian unsigned seconds since 1970 */
#define R_TIME_FORMAT_RFC3339 6    /* "2026-11-22T23:39:53Z" */

/* The clock R_TIME_time reads: seconds since 1970 UTC. */
typedef int64_t (*R_TIME_CLOCK)(void);

/* Replaces the process's clock; NULL restores the system clock. */
void R_TIME_set_clock(R_TIME_CLOCK clock);

int R_TIME_CTX_new(R_LIB_CTX* libCtx, uint32_t flags, R_TIME_CTX** timeCtx);
int R_TIME_CTX_free(R_TIME_CTX* timeCtx);
/* A new time at 0 (1970-01-01T00:00:00Z). */
int R_TIME_new(R_TIME_CTX* timeCtx, R_TIME** time);
/* Sets time to the clock's now, or to its library context's fixed time. */
int R_TIME_time(R_TIME* time);
int R_TIME_dup(R_TIME* time, R_TIME** copy);
/* Writes time in format into buffer (at most max bytes, no terminator); *length the bytes. */
int R_TIME_export(R_TIME* time, int format, unsigned char* buffer, uint32_t* length, uint32_t max);
int R_TIME_import(R_TIME* time, int format, const unsigned char* buffer, uint32_t length);
/* *result 1 when first is later than second, 0 when equal, -1 when earlier. */
int R_TIME_cmp(R_TIME* first, R_TIME* second, int32_t* result);
int R_TIME_free(R_TIME* time);

/* ---------------------------------------------------------------- digests */

#define R_DIGEST_MD5 1u
#define R_DIGEST_SHA1 2u
#define R_DIGEST_SHA256 3u

/*
 * The digest of data under algorithm (R_DIGEST_*), fetched in libCtx, into
 * digest, whose capacity is *digestLength on entry and the digest's length on
 * return. R_ERROR_BUFFER_TOO_SMALL (with *digestLength the length needed)
 * when it does not fit; R_ERROR_FAILED for an unknown algorithm;
 * R_ERROR_CRYPTO when the library context has no implementation of it.
 */
int R_digest(R_LIB_CTX* libCtx, uint32_t algorithm, const unsigned char* data, uint32_t length,
             unsigned char* digest, uint32_t* digestLength);

/* ------------------------------------------------------------- extensions */

#define R_EXT_INFO_VALUE 1    /* R_ITEM*: the DER inside extnValue, owned by the extension */
#define R_EXT_INFO_OID 2      /* R_ITEM*: the extnID's content octets, owned by the extension */
#define R_EXT_INFO_CRITICAL 3 /* uint32_t*: 1 when critical, 0 when not */

int R_EXT_new(R_LIB_CTX* libCtx, uint32_t flags, R_EXT** ext);
int R_EXT_get_info(R_EXT* ext, int id, void* value);
int R_EXT_free(R_EXT* ext);

#ifdef __cplusplus
}
#endif

#endif
