/*
 * qxcrl: certificate revocation lists for the security layer.
 *
 * Every operation returns a StatusCode: 0 on success, one of the QXERR_
 * codes below, or a layer service's status (QXL_ERR_, see qxlayer.h)
 * handed on unchanged.
 *
 * Ownership: a CrlObject belongs to whoever holds the pointer that the
 * creating operation filled, and is released with qxcrl_Destroy; creating
 * operations store the new record in the caller's pointer at once, so the
 * caller also releases what a failed call left there. A CrlObject handed to
 * a cache (qxcrl_AddCacheEntry returning 0) belongs to the cache. Text
 * returned by qxcrl_GetBase64 is released with qxumfree.
 *
 * Valid C99 and C++.
 */
#ifndef QXCRL_QXCRL_H
#define QXCRL_QXCRL_H

#include <stdint.h>

#include "qxlayer.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ----------------------------------------------------------- statuses */

#define QXERR_TOOLKIT_FAILURE 28750u       /* a toolkit call failed */
#define QXERR_FILE_IO 28759u               /* a CRL file could not be read */
#define QXERR_BAD_PARAMETER 28771u         /* a required argument is missing */
#define QXERR_NO_OUTPUT_BUFFER 28782u      /* a CrlDetailBuffer has no data or no room */
#define QXERR_CRL_DECODE 28788u            /* bytes or text are not a CRL */
#define QXERR_CRL_SIGN 29176u              /* a signature could not be made or verified */
#define QXERR_CRL_FETCH 29193u             /* no CRL from the distribution points */
#define QXERR_CACHE_ENTRY_NOT_FOUND 29194u /* a cache delete removed nothing */
#define QXERR_CRL_EXPIRED 29195u           /* nextUpdate is not later than now */
#define QXERR_CACHE_FULL 29197u            /* the CRL does not fit in the cache */

/* ------------------------------------------------------- enumerations */

/* What qxcrl_GetDetails reads. */
typedef uint32_t CrlDetailItem;
#define QXCRL_DETAIL_VERSION 1u               /* uint32_t: 1 for a v2 CRL */
#define QXCRL_DETAIL_SIGNATURE_TYPE 2u        /* uint32_t: the layer's signature type */
#define QXCRL_DETAIL_ISSUER_NAME 3u           /* char[1025]: RFC 4514 text */
#define QXCRL_DETAIL_THIS_UPDATE 4u           /* char[129]: RFC 3339 text */
#define QXCRL_DETAIL_NEXT_UPDATE 5u           /* char[129]: RFC 3339 text */
#define QXCRL_DETAIL_ENTRY_COUNT 6u           /* uint32_t */
#define QXCRL_DETAIL_ENTRY_SERIAL 7u          /* CrlDetailBuffer: serial content octets */
#define QXCRL_DETAIL_ENTRY_REVOCATION_DATE 8u /* char[129]: RFC 3339 text */
#define QXCRL_DETAIL_EXTENSION 9u             /* CrlDetailBuffer: CRL Number value */

typedef uint32_t CertRevocationStatus;
#define QXCRL_CERT_VALID 1u
#define QXCRL_CERT_UNKNOWN 2u
#define QXCRL_CERT_REVOKED 3u

typedef uint32_t CrlValidity;
#define QXCRL_CRL_EXPIRED 1u
#define QXCRL_CRL_CURRENT 2u

/*
 * The serial of the placeholder entry that qxcrl_Create puts in every CRL it
 * makes, so that none is empty: its content octets are these 16 ASCII bytes.
 * It stands for no certificate.
 */
#define QXCRL_PLACEHOLDER_SERIAL "DUMMYCERTIFICATE"

/* ------------------------------------------------------------ records */

/* The module's CRL record: one toolkit CRL, NULL until one is delivered. */
typedef struct CrlObject {
    R_CRL* crl;
} CrlObject;

/*
 * Output of the byte-string detail items (entry serial, CRL Number).
 * On entry, length is the capacity of data: a value longer than that is
 * refused with QXERR_NO_OUTPUT_BUFFER and the buffer is left as it was. A
 * length of 0 on entry means the caller vouches for room for the whole value,
 * which an attacker chooses in a CRL from outside: always pass the capacity.
 * On success, length is the number of bytes written (no terminator).
 */
typedef struct CrlDetailBuffer {
    unsigned char* data; /* set by the caller */
    uint32_t length;     /* in: capacity of data (0: unchecked); out: bytes written */
} CrlDetailBuffer;

/* One cache node; head is the most recently used. */
typedef struct CrlCacheEntry {
    CrlObject* crlObject;
    uint32_t size;              /* DER length, measured when added */
    struct CrlCacheEntry* next; /* toward the tail (older) */
    struct CrlCacheEntry* prev; /* toward the head (newer) */
} CrlCacheEntry;

/* A cache of CRLs bounded by their total DER size. */
typedef struct CrlCache {
    uint32_t capacity;
    uint32_t used;
    CrlCacheEntry* head;
    CrlCacheEntry* tail;
    CrlCacheOwner* owner;
} CrlCache;

/* ---------------------------------------------- directory constants */

QXCRL_API extern const char QXCRL_STR_OID_VALMEC_CRL[4];
QXCRL_API extern const char QXCRL_STR_OID_CRLVAL_ATTRS[26];
QXCRL_API extern const char QXCRL_STR_OID_CRLVAL_FILTER[12];
QXCRL_API extern const char QXCRL_STR_OID_CRLVAL_BASE[71];
QXCRL_API extern const char QXCRL_STR_OID_VALMEC_ATTRS[18];
QXCRL_API extern const char QXCRL_STR_OID_VALMEC_FILTER[23];
QXCRL_API extern const char QXCRL_STR_OID_VALMEC_BASE[77];

/* --------------------------------------------------------- CRL objects */

/*
 * Decodes DER into a new CrlObject stored in *crl at once. On a decode
 * failure (QXERR_CRL_DECODE) *crl holds a record with no CRL, which the
 * caller releases with qxcrl_Destroy.
 */
QXCRL_API StatusCode qxcrl_CreateCtx(SecurityContext* ctx, CrlObject** crl,
                                     const unsigned char* der, uint32_t derLength);

/* Decodes DER and hands the new CrlObject to owner->addCrl; the caller owns nothing after. */
QXCRL_API StatusCode qxcrl_SetDERCrl(CrlCacheOwner* owner, const unsigned char* der,
                                     uint32_t derLength);

/* Releases *crl and its CRL and sets *crl to NULL; always 0. */
QXCRL_API StatusCode qxcrl_Destroy(SecurityContext* ctx, CrlObject** crl);

/* ------------------------------------------------------------ PEM text */

/* Decodes every PEM CRL block of a NUL-terminated text into owner->addCrl. */
QXCRL_API StatusCode qxcrl_SetB64Crl(CrlCacheOwner* owner, const char* text, uint32_t textLength);

/* Writes crl as PEM text into a new block (*text, released with qxumfree). */
QXCRL_API StatusCode qxcrl_GetBase64(SecurityContext* ctx, CrlObject* crl, char** text,
                                     uint32_t* textLength);

/* --------------------------------------------------------------- files */

/* Loads a one-CRL file (DER or PEM) into a new CrlObject stored in *crl. */
QXCRL_API StatusCode qxcrl_Load(SecurityContext* ctx, CrlObject** crl, const char* path);
QXCRL_API StatusCode qxcrlLOC_LoadCRL(SecurityContext* ctx, CrlObject** crl, const char* path);

/* Loads every PEM CRL of a file into owner->addCrl. */
QXCRL_API StatusCode qxcrl_LoadConcatCRL(CrlCacheOwner* owner, const char* path);

/* Writes the issuer-hash file name ("xxxxxxxx.rN") into fileName (at least 12 bytes). */
QXCRL_API StatusCode qxcrl_FileForIssuer(SecurityContext* ctx, R_CERT_NAME* issuerName,
                                         void* unused, char* fileName);

/*
 * The CRL's DER into a new block *der (released with qxumfree) of *derLength
 * bytes; both change only on success.
 */
QXCRL_API StatusCode qxcrl_GetDER(SecurityContext* ctx, CrlObject* crl, unsigned char** der,
                                  uint32_t* derLength);

/*
 * The issuer name of a CRL, or of a certificate, as a new name object for
 * qxcrl_FileForIssuer, released with qxcrl_FreeName.
 */
QXCRL_API StatusCode qxcrl_GetIssuerName(SecurityContext* ctx, CrlObject* crl, R_CERT_NAME** name);
QXCRL_API StatusCode qxcrl_GetCertIssuerName(SecurityContext* ctx, CertificateRecord* cert,
                                             R_CERT_NAME** name);

/* Releases *name and sets it to NULL; NULL is ignored. */
QXCRL_API void qxcrl_FreeName(R_CERT_NAME** name);

/* ------------------------------------------- inspection and validation */

/*
 * Reads one item of crl into out; see CrlDetailItem for the form of out.
 * The text items never write more than their array's size (terminator
 * included): an issuer name longer than 1,024 bytes as DER or as text gives
 * QXERR_TOOLKIT_FAILURE with out untouched. A byte-string item honours the
 * capacity in CrlDetailBuffer.length.
 */
QXCRL_API StatusCode qxcrl_GetDetails(SecurityContext* ctx, CrlObject* crl, CrlDetailItem item,
                                      uint32_t index, void* out);

/* Displays nothing; always 0. */
QXCRL_API StatusCode qxcrlDC_DisplayCrl(void);

/* Checks crl's signature against issuerCert (skipped when NULL) and its nextUpdate. */
QXCRL_API StatusCode qxcrl_Verify(SecurityContext* ctx, CrlObject* crl, R_CERT* issuerCert,
                                  CrlValidity* validity);

/* qxcrl_Verify with the issuer's certificate record. */
QXCRL_API StatusCode qxcrl_VerifyCRL(SecurityContext* ctx, CrlObject* crl,
                                     CertificateRecord* issuer, CrlValidity* validity);

/* Tells whether cert is valid or revoked according to crl. */
QXCRL_API StatusCode qxcrl_CheckCertStatus(SecurityContext* ctx, CrlObject* crl,
                                           CertificateRecord* cert, CertRevocationStatus* status);

/* --------------------------------------------------------------- cache */

/* Puts crl at the head of cache, which then owns it; QXERR_CACHE_FULL if it does not fit. */
QXCRL_API StatusCode qxcrl_AddCacheEntry(CrlObject* crl, CrlCache* cache);

/* Sets the capacity, evicting from the tail until the CRLs fit. */
QXCRL_API StatusCode qxcrl_ResizeCache(uint32_t newCapacity, CrlCache* cache);

/* Removes the cached CRLs whose issuer text equals issuerName. */
QXCRL_API StatusCode qxcrl_DeleteCRLCacheEntry(CrlCacheOwner* owner,
                                               const unsigned char* issuerName,
                                               uint32_t issuerNameLength);

/* Releases every entry and the cache record; sets *cache to NULL. */
QXCRL_API StatusCode qxcrl_DestroyCache(CrlCache** cache);

/*
 * A cache of capacity DER bytes with the owner that adds to it, all from
 * ctx's memory, into *owner. Released with qxcrl_DestroyCacheOwner, which
 * destroys the cache too.
 *
 * The owner's addCrl is qxcrl_AddCacheEntry behind one guard: it refuses,
 * with QXL_ERR_ISSUER_TOO_LONG and nothing taken, a CRL whose issuer name is
 * longer than 1,025 bytes as DER or 1,024 bytes as text. Lookups compare
 * issuer names in 1,025-byte buffers and deletes by issuer read each cached
 * CRL's issuer text, and both stop at the first CRL whose name does not fit:
 * one such CRL, which anyone can make, would otherwise disable the cache for
 * every issuer. No real issuer name comes near these lengths. A CRL given to
 * qxcrl_AddCacheEntry directly is not checked.
 */
QXCRL_API StatusCode qxcrl_CreateCacheOwner(SecurityContext* ctx, uint32_t capacity,
                                            CrlCacheOwner** owner);
QXCRL_API StatusCode qxcrl_DestroyCacheOwner(CrlCacheOwner** owner);

/* Answers cert's status from the first cached CRL of its issuer. */
QXCRL_API StatusCode qxcrl_GetCertStatusFromCache(CertificateRecord* cert, CrlCache* cache,
                                                  CertRevocationStatus* status);

/*
 * The same, from the first cached CRL of cert's issuer whose scope covers
 * cert. A CRL with an Issuing Distribution Point (a shard of a partitioned
 * CRL) answers only for the certificates its IDP covers, and a CRL for
 * another shard fails the status check; call this wherever a cache may hold
 * several CRLs of one issuer, as caches of shards do. Without a covering
 * CRL, *status is QXCRL_CERT_UNKNOWN and 0 is returned, as for an issuer
 * with no CRL.
 */
QXCRL_API StatusCode qxcrl_GetCertStatusFromCacheInScope(CertificateRecord* cert, CrlCache* cache,
                                                         CertRevocationStatus* status);

/* --------------------------------------------------------------- fetch */

/* Fetches cert's issuer's CRL from its LDAP distribution points into a new *crl. */
QXCRL_API StatusCode qxcrl_FetchFromCRLDP(SecurityContext* ctx, CertificateRecord* cert,
                                          CrlObject** crl);

/* Fetches the CRLs at one URL onto *list (the caller's, released with qxumfree). */
QXCRL_API StatusCode qxcrl_ldap_fetch_crldp(SecurityContext* ctx, void* unused, const char* url,
                                            FetchedCrlNode** list);

/* ----------------------------------------------------------- authoring */

/* Creates a signed CRL for issuer; nextUpdate is now plus interval ("now", "7d", "3600"). */
QXCRL_API StatusCode qxcrl_Create(SecurityContext* ctx, CrlObject** crl, const QxPrivateKey* key,
                                  CertificateRecord* issuer, const char* interval,
                                  uint32_t signatureType);

/* qxcrl_Create with signature type 6 (RSA with SHA-256). */
QXCRL_API StatusCode qxcrlCC_CreateCRL(SecurityContext* ctx, CrlObject** crl,
                                       const QxPrivateKey* key, CertificateRecord* issuer,
                                       const char* interval);

/* Moves nextUpdate to now plus interval and signs again with the CRL's own signature type. */
QXCRL_API StatusCode qxcrl_SetNextUpdate(SecurityContext* ctx, CrlObject* crl,
                                         const QxPrivateKey* key, CertificateRecord* issuer,
                                         const char* interval);

/* Adds an entry for revoked (its serial, now) and signs again. */
QXCRL_API StatusCode qxcrl_RevokeCert(SecurityContext* ctx, CrlObject* crl, const QxPrivateKey* key,
                                      CertificateRecord* issuer, CertificateRecord* revoked,
                                      uint32_t signatureType);

/* qxcrl_RevokeCert with signature type 6. */
QXCRL_API StatusCode qxcrlRC_RevokeCert(SecurityContext* ctx, CrlObject* crl,
                                        const QxPrivateKey* key, CertificateRecord* issuer,
                                        CertificateRecord* revoked);

/* Signs crl with the issuer's key under a signature type. */
QXCRL_API StatusCode qxcrl_Sign(SecurityContext* ctx, CrlObject* crl, CertificateRecord* issuer,
                                const QxPrivateKey* key, uint32_t signatureType);

/* Writes crl as PEM text into the layer's persistent store under name. */
QXCRL_API StatusCode qxcrl_Store(SecurityContext* ctx, CrlObject* crl, const char* name);
QXCRL_API StatusCode qxcrlSTC_StoreCRL(SecurityContext* ctx, CrlObject* crl, const char* name);

#ifdef __cplusplus
}
#endif

#endif
