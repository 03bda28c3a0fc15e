/*
 * The security layer that the CRL module runs in: its records, its services
 * (memory, trace, certificate context) and the constructors that let a
 * program use the module without writing layer code.
 *
 * Ownership: every function documents what it hands to the caller. Blocks
 * from qxumalloc/qxumrealloc go back through qxumfree; a layer instance made
 * with qxlayer_create goes back through qxlayer_destroy.
 *
 * Valid C99 and C++.
 */
#ifndef QXCRL_QXLAYER_H
#define QXCRL_QXLAYER_H

#include <stdint.h>

#include "r_types.h"

#if defined(QXCRL_BUILDING_LIBRARY) && defined(__GNUC__)
#define QXCRL_API __attribute__((visibility("default")))
#else
#define QXCRL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Result of every operation; 0 is success. */
typedef uint32_t StatusCode;

/*
 * The layer's own statuses (29300 to 29399). Services return them unchanged
 * through the module, so they never collide with the module's codes.
 */
#define QXL_ERR_BAD_ARGUMENT 29300u
#define QXL_ERR_OUT_OF_MEMORY 29301u
#define QXL_ERR_TOOLKIT 29302u
#define QXL_ERR_ISSUER_TOO_LONG 29303u /* a cache cannot compare this CRL's issuer name */
#define QXL_ERR_BASE64 29310u
#define QXL_ERR_DIGEST 29320u
#define QXL_ERR_SIGNATURE_TYPE 29330u
#define QXL_ERR_KEY 29340u
#define QXL_ERR_CERT_DECODE 29341u
#define QXL_ERR_NOT_A_CRL 29342u /* bytes that qxview_crl cannot read as a CRL */
#define QXL_ERR_CERT_NOT_YET_VALID 29350u
#define QXL_ERR_CERT_EXPIRED 29351u
#define QXL_ERR_INTERVAL 29360u
#define QXL_ERR_STORE 29370u
#define QXL_ERR_FETCH 29380u
#define QXL_ERR_FILE 29390u

struct CrlObject;
struct CrlCache;
struct QxFileInterface;

typedef struct LayerContext LayerContext;
typedef struct SecurityContext SecurityContext;

/* An issuer's private key in the layer's form; opaque to the module. */
typedef struct QxPrivateKey QxPrivateKey;

/* A length-counted text; not NUL-terminated unless a function says so. */
typedef struct QxString {
    char* data;
    uint32_t length;
} QxString;

/* ---------------------------------------------------------------- trace */

#define QX_TRACE_ENTRY 1u
#define QX_TRACE_EXIT 2u
#define QX_TRACE_MESSAGE 3u

/* traceLevel value meaning "use QX_TRACE_LEVEL from the environment". */
#define QX_TRACE_LEVEL_FROM_ENV 0xFFFFFFFFu

/* One trace record, valid only for the duration of the sink call. */
typedef struct QxTraceRecord {
    const SecurityContext* context; /* as the caller passed it; may be NULL */
    const char* function;           /* the call site's trace name */
    uint32_t level;                 /* 1, 2, 4 or 5 */
    uint32_t kind;                  /* QX_TRACE_ENTRY, QX_TRACE_EXIT or QX_TRACE_MESSAGE */
    const char* messageId;          /* catalogue identifier ("qx0249trc"), else NULL */
    const char* text;               /* the formatted message; "" for entry and exit */
} QxTraceRecord;

typedef void (*QxTraceSink)(void* arg, const QxTraceRecord* record);

/* ------------------------------------------------------ fetch callbacks */

/* One CRL fetched from a distribution point; nodes and DER come from qxumalloc. */
typedef struct FetchedCrlNode {
    unsigned char* der;
    uint32_t length;
    struct FetchedCrlNode* next;
} FetchedCrlNode;

typedef struct CrlFetchCallbacks {
    /* The callbacks' own settings (timeouts, size cap); the module never reads it. */
    const void* settings;
    int (*ldap_is_url)(const char* url);
    StatusCode (*ldap_fetch_crldp)(SecurityContext* ctx, const char* url, FetchedCrlNode** list);
    /*
     * Optional, NULL allowed. qxcrl_FetchFromCRLDP calls begin_walk before
     * the first fetch of a certificate's distribution points and end_walk
     * after the last one, on the same thread and with the same ctx, so that
     * the fetches of one walk can share one deadline and one memory budget.
     * end_walk is taken from the table that began the walk.
     */
    void (*begin_walk)(SecurityContext* ctx);
    void (*end_walk)(SecurityContext* ctx);
} CrlFetchCallbacks;

/* --------------------------------------------------------- certificates */

#define QX_DIST_POINT_FULL_NAME 2u
#define QX_NAME_TYPE_URI 38u

typedef struct DistPointName {
    uint16_t type; /* QX_NAME_TYPE_URI for a URI; other general-name kinds otherwise */
    char* value;   /* NUL-terminated */
} DistPointName;

typedef struct CrlDistPoint {
    uint32_t kind;    /* QX_DIST_POINT_FULL_NAME when the point has a full name */
    uint32_t reasons; /* the reasons bit string, 0 when absent */
    DistPointName* names;
    uint32_t nameCount;
} CrlDistPoint;

/* A certificate as the layer holds it; every member is filled from the certificate. */
typedef struct CertificateRecord {
    QxString* issuerText;  /* RFC 4514 text of the issuer */
    QxString* subjectText; /* RFC 4514 text of the subject */
    int64_t notBefore;     /* seconds since 1970-01-01 UTC */
    int64_t notAfter;
    unsigned char* der;
    uint32_t derLength;
    R_CERT* cert;
    CrlDistPoint* distPoints;
    uint32_t distPointCount;
} CertificateRecord;

/* ------------------------------------------------------------- contexts */

/* Layer-wide state shared by every SecurityContext of one layer instance. */
struct LayerContext {
    uint32_t toolkitMode; /* 1 selects toolkitContexts[3], anything else [2] */
    uint32_t crlPolicy;   /* 3 and 4 let an expired cached CRL still answer */
    const struct QxFileInterface* fileContext;
    const CrlFetchCallbacks* crlFetchCallbacks;
    R_LIB_CTX** toolkitContexts;
    uint32_t toolkitContextCount;
    R_CERT_CTX* certContext;
    struct QxMemoryAccount* memory;
    char* storePath;       /* the persistent store's SQLite file */
    uint32_t maxFileBytes; /* largest file read whole; see QxLayerConfig */
};

/* One caller's context. */
struct SecurityContext {
    LayerContext* layerContext;
    QxTraceSink traceSink; /* NULL: records go to stderr or QX_TRACE_FILE */
    void* traceSinkArg;
    uint32_t traceLevel; /* records at or below it are written; 0 is off */
};

/* The record a cache owner hangs from; its third member leads to the context. */
typedef struct LayerComponent {
    const char* componentName;
    void* componentData;
    SecurityContext* securityContext;
} LayerComponent;

/* The layer object that owns a CRL cache and accepts new CRLs into it. */
typedef struct CrlCacheOwner {
    LayerComponent* parent;
    /* Takes ownership of the CRL when it returns 0; takes nothing otherwise. */
    StatusCode (*addCrl)(struct CrlObject* crl, struct CrlCache* cache);
    struct CrlCache* crlCache;
} CrlCacheOwner;

/* ---------------------------------------------------- layer instances */

/* Number of toolkit library contexts a layer instance makes. */
#define QX_TOOLKIT_CONTEXT_COUNT 4u

/* Default of QxLayerConfig's maxFileBytes: 256 MiB. */
#define QX_DEFAULT_MAX_FILE_BYTES (256u * 1024u * 1024u)

typedef struct QxLayerConfig {
    uint32_t toolkitMode;  /* default 0 */
    uint32_t crlPolicy;    /* default 0 */
    QxTraceSink traceSink; /* default NULL */
    void* traceSinkArg;    /* default NULL */
    uint32_t traceLevel;   /* default QX_TRACE_LEVEL_FROM_ENV */
    const char* storePath; /* default "qxstore.db" (copied) */
    /*
     * The largest file, in bytes, that the layer and the module read whole
     * (CRL, certificate and key files); a larger one is refused before any
     * of it is read or memory is taken for it. Default
     * QX_DEFAULT_MAX_FILE_BYTES. 0 admits only empty files: there is no
     * unlimited setting, and no file of 4 GiB - 1 bytes or more is read
     * whatever the setting.
     */
    uint32_t maxFileBytes;
} QxLayerConfig;

/* Fills config with the defaults above. */
QXCRL_API void qxlayer_default_config(QxLayerConfig* config);

/*
 * Makes a layer instance: a SecurityContext, its LayerContext, four toolkit
 * library contexts (slots 0 to 2 on the process's default provider set,
 * slot 3 on an isolated one) and the certificate context. config may be
 * NULL for the defaults. On success *out is the caller's until
 * qxlayer_destroy; on failure *out is NULL.
 */
QXCRL_API StatusCode qxlayer_create(const QxLayerConfig* config, SecurityContext** out);

/* Releases what qxlayer_create made and sets *ctx to NULL; NULL is ignored. */
QXCRL_API void qxlayer_destroy(SecurityContext** ctx);

/*
 * The time ctx's layer instance judges at. With seconds (since 1970 UTC)
 * every "now" the layer and the module read through that instance is that
 * time: a CRL's currency (qxcrl_Verify, cached lookups), which revocations
 * have happened (a revocation dated after it does not count), certificate
 * validity (qxtCheckValidity_ext) and the dates of the CRLs and entries it
 * writes. NULL returns the instance to the clock. Other layer instances,
 * and the process's clock, are left alone. QXL_ERR_BAD_ARGUMENT without a
 * layer instance.
 */
QXCRL_API StatusCode qxlayer_set_time(SecurityContext* ctx, const int64_t* seconds);

/* --------------------------------------------------------------- memory */

/*
 * A new block of size bytes, or NULL with *status set to QXL_ERR_OUT_OF_MEMORY.
 * *status is left alone on success. The block is counted against ctx's layer
 * (or a process-wide account when ctx has none).
 */
QXCRL_API void* qxumalloc(SecurityContext* ctx, uint32_t size, StatusCode* status);

/*
 * Resizes block (NULL allocates). On failure returns NULL, sets *status and
 * leaves the old block valid and owned by the caller.
 */
QXCRL_API void* qxumrealloc(SecurityContext* ctx, void* block, uint32_t size, StatusCode* status);

/*
 * Releases the block that the pointer variable at blockAddress holds and sets
 * the variable to NULL. Does nothing when the variable holds NULL, whatever ctx.
 */
QXCRL_API void qxumfree(SecurityContext* ctx, void* blockAddress);

/* Blocks of this layer now allocated and not yet released. */
QXCRL_API uint64_t qxum_live_blocks(const LayerContext* layer);

/* Allocations this layer has attempted since it was made. */
QXCRL_API uint64_t qxum_allocation_count(const LayerContext* layer);

/*
 * Makes the nth allocation from now (1 is the next one) fail with
 * QXL_ERR_OUT_OF_MEMORY; later ones succeed again. 0 turns it off.
 */
QXCRL_API void qxum_fail_nth(LayerContext* layer, uint64_t n);

/* ---------------------------------------------------------------- trace */

/* Writes the entry record of function. ctx may be NULL. */
QXCRL_API void qxu_init_trace(const SecurityContext* ctx, const char* function, uint32_t level);

/* Writes the exit record of function. ctx may be NULL. */
QXCRL_API void qxu_exit_trace(const SecurityContext* ctx, const char* function, uint32_t level);

/*
 * Writes one message. format is a printf format or a catalogue identifier
 * ("qx0249trc"), whose catalogue text is then formatted with the arguments.
 */
QXCRL_API void qxu_print_trace(const SecurityContext* ctx, const char* function, uint32_t level,
                               const char* format, ...)
#ifdef __GNUC__
    __attribute__((format(printf, 4, 5)))
#endif
    ;

/*
 * Where records go when the context has no sink (or there is no context).
 * With sink NULL, records at or below level go to stderr, or to the file
 * QX_TRACE_FILE names; level QX_TRACE_LEVEL_FROM_ENV reads QX_TRACE_LEVEL
 * (default 0, off). Thread-safe.
 */
QXCRL_API void qxu_set_default_trace(QxTraceSink sink, void* arg, uint32_t level);

/* The catalogue's format for a message identifier, or NULL if it has none. */
QXCRL_API const char* qxu_catalogue_text(const char* messageId);

/* The catalogue identifiers, used where a trace format stands. */
QXCRL_API extern const char qx0229trc[];
QXCRL_API extern const char qx0232trc[];
QXCRL_API extern const char qx0249trc[];
QXCRL_API extern const char qx0264trc[];
QXCRL_API extern const char qx0265trc[];
QXCRL_API extern const char qx0266trc[];

/* -------------------------------------------------- certificate records */

/*
 * Builds a certificate record from one certificate: DER when the first byte
 * is 0x30, otherwise PEM text, of which the first CERTIFICATE block is read
 * (LF or CRLF line ends). Every member is filled from the certificate; the
 * texts are NUL-terminated after their length. On success *out is the
 * caller's until qxcert_free; on failure *out is NULL and nothing stays
 * allocated.
 *
 * Statuses: QXL_ERR_BAD_ARGUMENT for a NULL argument (bytes may be NULL when
 * length is 0) or a context without a layer, QXL_ERR_CERT_DECODE for bytes
 * that are not a certificate (no bytes included),
 * QXL_ERR_OUT_OF_MEMORY, QXL_ERR_TOOLKIT for other toolkit failures.
 */
QXCRL_API StatusCode qxcert_from_bytes(SecurityContext* ctx, const unsigned char* bytes,
                                       uint32_t length, CertificateRecord** out);

/*
 * qxcert_from_bytes on the whole content of the file at path (DER or PEM),
 * read with qxfile_read_whole, whose failures it returns.
 */
QXCRL_API StatusCode qxcert_from_file(SecurityContext* ctx, const char* path,
                                      CertificateRecord** out);

/*
 * Releases the record at *record with everything it holds (its R_CERT
 * included) and sets *record to NULL. NULL record or *record is ignored.
 */
QXCRL_API void qxcert_free(SecurityContext* ctx, CertificateRecord** record);

/* ------------------------------------------------------ signature types */

/* The layer's signature types. */
#define QX_SIG_RSA_SHA1 1u
#define QX_SIG_RSA_MD5 2u /* read only: never used to sign */
#define QX_SIG_RSA_SHA256 6u
#define QX_SIG_RSA_SHA384 7u
#define QX_SIG_RSA_SHA512 8u
#define QX_SIG_ECDSA_SHA256 9u
#define QX_SIG_ECDSA_SHA384 10u
#define QX_SIG_ECDSA_SHA512 11u
#define QX_SIG_ED25519 12u
#define QX_SIG_ED448 13u
#define QX_SIG_RSA_PSS_SHA256 14u /* MGF1 with the same hash, salt the hash's length */
#define QX_SIG_RSA_PSS_SHA384 15u
#define QX_SIG_RSA_PSS_SHA512 16u

/*
 * The toolkit algorithm (R_SIG_ALG_*) to sign with for signatureType.
 * QXL_ERR_SIGNATURE_TYPE for an unknown type and for QX_SIG_RSA_MD5, with
 * *algorithm left alone; QXL_ERR_BAD_ARGUMENT when algorithm is NULL.
 */
QXCRL_API StatusCode qxbc_map_sign(uint32_t signatureType, uint32_t* algorithm);

/*
 * The signature type of a toolkit algorithm (R_SIG_ALG_*) found on a signed
 * object, MD5 included. QXL_ERR_SIGNATURE_TYPE for an unknown algorithm, with
 * *signatureType left alone; QXL_ERR_BAD_ARGUMENT when signatureType is NULL.
 */
QXCRL_API StatusCode qxbc_map_sign2(uint32_t algorithm, uint32_t* signatureType);

/* ------------------------------------------------------------ PEM text */

/*
 * PEM markers of CRLs. The primary pair is RFC 7468's and has no line break
 * inside, so LF and CRLF files both read; the writer ends with FOOTER3, the
 * primary end line with its line feed. The others are labels found in the
 * wild: HEADER1 with FOOTER1, HEADER2 with FOOTER2; HEADER3 has no end label
 * of its own and ends at the next end marker.
 */
QXCRL_API extern const char QX_STR_CRL_HEADER[];  /* "-----BEGIN X509 CRL-----" */
QXCRL_API extern const char QX_STR_CRL_HEADER1[]; /* "-----BEGIN CRL-----" */
QXCRL_API extern const char
    QX_STR_CRL_HEADER2[]; /* "-----BEGIN CERTIFICATE REVOCATION LIST-----" */
QXCRL_API extern const char QX_STR_CRL_HEADER3[]; /* "-----BEGIN X509CRL-----" */
QXCRL_API extern const char QX_STR_CRL_FOOTER[];  /* "-----END X509 CRL-----" */
QXCRL_API extern const char QX_STR_CRL_FOOTER1[]; /* "-----END CRL-----" */
QXCRL_API extern const char QX_STR_CRL_FOOTER2[]; /* "-----END CERTIFICATE REVOCATION LIST-----" */
QXCRL_API extern const char QX_STR_CRL_FOOTER3[]; /* "-----END X509 CRL-----\n" */

/*
 * Base64 of der into a new NUL-terminated block *text (released with
 * qxumfree), laid out as a PEM body: a line feed, then lines of 64
 * characters each ended by a line feed. *textLength excludes the NUL.
 * Zero bytes give "\n". QXL_ERR_BAD_ARGUMENT for NULL arguments (der may be
 * NULL when derLength is 0), QXL_ERR_OUT_OF_MEMORY, also when the text would
 * not fit a 32-bit block. *text and *textLength change only on success.
 */
QXCRL_API StatusCode qxbc_der_to_b64(SecurityContext* ctx, const unsigned char* der,
                                     uint32_t derLength, char** text, uint32_t* textLength);

/*
 * The bytes of a Base64 text into a new block *der (released with qxumfree).
 * Line feeds, carriage returns, spaces and tabs are skipped; any other byte
 * outside the alphabet, misplaced or wrong padding, or a length that is not
 * a whole number of groups gives QXL_ERR_BASE64 with *der untouched. Padding
 * is '=' in the last one or two places of the final group, nothing but
 * whitespace follows it, and its pad bits must be zero. A text with no groups
 * (empty or only whitespace) succeeds with a block of zero bytes.
 * QXL_ERR_BAD_ARGUMENT for NULL arguments (text may be NULL when textLength
 * is 0), QXL_ERR_OUT_OF_MEMORY.
 */
QXCRL_API StatusCode qxbc_b64_to_der(SecurityContext* ctx, const char* text, uint32_t textLength,
                                     unsigned char** der, uint32_t* derLength);

/* ---------------------------------------------------------------- digest */

#define QX_DIGEST_MD5 10u    /* 16 bytes: what old-style hashed directories use */
#define QX_DIGEST_SHA1 11u   /* 20 bytes */
#define QX_DIGEST_SHA256 12u /* 32 bytes */

/*
 * The digest of data under algorithm into digest, whose capacity is
 * *digestLength on entry and the digest's length on return.
 * QXL_ERR_DIGEST for an unknown algorithm, a digest that does not fit, or a
 * failure of the toolkit; QXL_ERR_BAD_ARGUMENT for NULL arguments (data may
 * be NULL when dataLength is 0). *digestLength changes only on success.
 */
QXCRL_API StatusCode qxty_digest(SecurityContext* ctx, uint32_t algorithm,
                                 const unsigned char* data, uint32_t dataLength,
                                 unsigned char* digest, uint32_t* digestLength);

/* -------------------------------------------------------- file interface */

/*
 * The layer's core file interface: a table of functions, each taking the
 * table itself first. A name object names a file; a file object is set up
 * by dsklini, opened by dskopn and released by dskcls whether or not it was
 * opened. Reads are binary.
 */
typedef struct QxFileInterface {
    /* A name object for path, or NULL. */
    void* (*dskmknam)(const struct QxFileInterface* files, void* directory, const char* path,
                      uint32_t flags, uint32_t kind);
    /* A file object set up for the given access, or NULL. */
    void* (*dsklini)(const struct QxFileInterface* files, uint32_t access, uint32_t sharing,
                     uint32_t mode, uint32_t bufferSize, uint32_t sequential,
                     const char* description);
    /* 0 and the size of the named file. */
    int (*dsklenn)(const struct QxFileInterface* files, void* name, uint64_t* size);
    /* 0 when the file object is open on the named file. */
    int (*dskopn)(const struct QxFileInterface* files, void* file, void* name);
    /* Bytes read (at most wanted; 0 at the end), negative on failure. */
    int64_t (*dskrd)(const struct QxFileInterface* files, void* file, void* destination,
                     uint32_t wanted);
    /* Closes (if open) and releases the file object; 0 on success. */
    int (*dskcls)(const struct QxFileInterface* files, void* file);
    /* Releases the name object. */
    void (*dskfno)(const struct QxFileInterface* files, void* name);
    /* The table's own state, for tables other than the default. */
    void* state;
} QxFileInterface;

/*
 * The POSIX table every layer instance starts with (open, fstat, read,
 * close). Files are opened without blocking and only regular files are
 * opened, so a FIFO or a device named as a file is refused at once.
 */
QXCRL_API const QxFileInterface* qxfile_posix_interface(void);

/*
 * Reads the whole regular file at path into a new block *bytes of ctx's
 * allocator (released with qxumfree) and its size into *length. The file is
 * opened without blocking and refused, before anything is read or allocated,
 * when it is not a regular file or is larger than the layer's maxFileBytes.
 * A file that shrinks while it is read gives what it still holds.
 * Statuses: QXL_ERR_BAD_ARGUMENT for a NULL argument or a context without a
 * layer; QXL_ERR_FILE when the file cannot be opened or read, is not a
 * regular file or is too large; QXL_ERR_OUT_OF_MEMORY. On failure *bytes is
 * NULL, and bytes already read are wiped first, since the file may hold a key.
 */
QXCRL_API StatusCode qxfile_read_whole(SecurityContext* ctx, const char* path,
                                       unsigned char** bytes, uint32_t* length);

/*
 * The file at path, when it holds one CRL and nothing more, as a new *crl
 * (released with qxcrl_Destroy), its bytes read straight into the CRL's own,
 * so that the process holds them once. One CRL is a DER CRL that fills the
 * file and holds no begin line under a CRL label, or PEM text with exactly
 * one such begin line, whose Base64 (up to the first end line) decodes to a
 * DER CRL and nothing more; text around the block is let be. The file is opened and bounded as by
 * qxfile_read_whole, whose failures it returns. QXL_ERR_NOT_A_CRL for any
 * other file, or one that is not a CRL the library takes: the readers of
 * PEM blocks and qxcrl_CreateCtx say why. QXL_ERR_OUT_OF_MEMORY;
 * QXL_ERR_TOOLKIT without a toolkit or when it fails otherwise.
 */
QXCRL_API StatusCode qxfile_read_one_crl(SecurityContext* ctx, const char* path,
                                         struct CrlObject** crl);

/* ---------------------------------------------------------- private keys */

/*
 * An issuer's private key as the layer holds it: unencrypted PKCS#8 DER in a
 * block of the layer's allocator. Made by qxdk_key_from_bytes or
 * qxdk_key_from_file, released by qxdk_key_free.
 */
struct QxPrivateKey {
    unsigned char* pkcs8;
    uint32_t length;
};

/*
 * A key from DER (PKCS#8 or the algorithm's own form) or PEM (PKCS#8,
 * traditional, or encrypted under passphrase, which may be NULL) into a new
 * *key. QXL_ERR_KEY for input that is no key or a wrong passphrase.
 */
QXCRL_API StatusCode qxdk_key_from_bytes(SecurityContext* ctx, const unsigned char* bytes,
                                         uint32_t length, const char* passphrase,
                                         QxPrivateKey** key);

/*
 * qxdk_key_from_bytes on the whole file at path, read with qxfile_read_whole,
 * whose failures it returns; the bytes read are wiped before they are released.
 */
QXCRL_API StatusCode qxdk_key_from_file(SecurityContext* ctx, const char* path,
                                        const char* passphrase, QxPrivateKey** key);

/* Releases *key and sets it to NULL; NULL is ignored. */
QXCRL_API void qxdk_key_free(SecurityContext* ctx, QxPrivateKey** key);

/*
 * A new toolkit key (released with R_PKEY_free) made from key in ctx's
 * toolkit library context. QXL_ERR_KEY when the key does not decode.
 */
QXCRL_API StatusCode qxdk_pvtkey_to_obj(SecurityContext* ctx, const QxPrivateKey* key,
                                        R_PKEY** object);

/* ------------------------------------------------------------- validity */

/*
 * 0 when notBefore <= now <= notAfter (seconds since 1970, the toolkit's
 * clock); QXL_ERR_CERT_NOT_YET_VALID before, QXL_ERR_CERT_EXPIRED after.
 */
QXCRL_API StatusCode qxtCheckValidity_ext(SecurityContext* ctx, int64_t notBefore,
                                          int64_t notAfter);

/* ------------------------------------------------------- CRL issuers */

/* Verdicts of qxcert_crl_issuer_verdict. */
#define QX_CRL_ISSUED_BY 0u      /* the certificate issued the CRL */
#define QX_CRL_BAD_SIGNATURE 1u  /* the signature is not made with its key */
#define QX_CRL_OTHER_ISSUER 2u   /* the CRL names another issuer than its subject */
#define QX_CRL_NOT_CRL_SIGNER 3u /* its keyUsage leaves out cRLSign */

/*
 * Why issuer did or did not issue crl, currency aside: the first of the
 * verdicts above that applies, in the order name, keyUsage, signature. For
 * telling a failed qxcrl_VerifyCRL apart from an expired or undated CRL.
 * QXL_ERR_BAD_ARGUMENT without an argument or the issuer's certificate,
 * QXL_ERR_TOOLKIT when the check cannot be made (a key of an algorithm the
 * signature is not of).
 */
QXCRL_API StatusCode qxcert_crl_issuer_verdict(SecurityContext* ctx, const struct CrlObject* crl,
                                               const CertificateRecord* issuer, uint32_t* verdict);

/* ------------------------------------------------------- CRL display */

/*
 * A CRL's content as text, for people to read. qxview_crl parses the DER
 * with its own reader, apart from the module: it describes CRLs the module
 * refuses too, and what it says is never a verdict. Whether a CRL is taken,
 * verified or current is the module's to say (qxcrl_CreateCtx,
 * qxcrl_VerifyCRL); a program must not decide anything from a view.
 *
 * Times are RFC 3339 UTC text ("2025-02-25T00:00:00Z"); names are RFC 4514
 * text as qxcrl_GetDetails gives them; absent optional values are NULL.
 */
typedef struct QxViewExtension {
    const char* oid;   /* dotted form, "2.5.29.20" */
    const char* name;  /* OpenSSL's long name ("X509v3 CRL Number"), else the dotted form */
    uint32_t critical; /* 1 when marked critical */
    const char* value; /* display text as `openssl crl -text` prints it; lines end at '\n' */
} QxViewExtension;

typedef struct QxViewEntry {
    const unsigned char* serial; /* the serial's DER content octets */
    uint32_t serialLength;
    const char* revocationDate;
    int32_t reason;         /* CRLReason code; -1 when the entry has none or it does not decode */
    const char* reasonName; /* RFC 5280's name ("keyCompromise"), NULL without a reason */
    const char* invalidityDate;        /* NULL without one */
    const QxViewExtension* extensions; /* every extension of the entry, in order */
    uint32_t extensionCount;
} QxViewEntry;

typedef struct QxCrlView {
    uint32_t version;               /* as encoded: 0 for v1, 1 for v2 */
    const char* signatureAlgorithm; /* "ecdsa-with-SHA256", "dsa_with_SHA256", or the dotted OID */
    const char* signatureOid;       /* dotted form */
    const char* issuer;
    const char* thisUpdate;
    const char* nextUpdate;
    const char* crlNumber;         /* decimal, a minus sign when negative */
    const char* deltaCrlIndicator; /* the base CRL's number, decimal: the CRL is a delta CRL */
    /*
     * Why the module refuses this CRL as its issuer's list, by the same rules
     * qxcrl_CreateCtx applies to extensions ("it carries the critical
     * extension ... which the library does not process", "it is a delta
     * CRL ..."); NULL when its extensions give no reason, which does not
     * mean the module takes it.
     */
    const char* refusal;
    unsigned char sha256[32]; /* SHA-256 of the DER, as `openssl crl -fingerprint -sha256` */
    /*
     * The issuer name's hash as `openssl crl -hash` prints it, which names a
     * CRL in the hashed directories OpenSSL reads (HASH.rN); 0 if it cannot
     * be computed. The module's own naming is qxcrl_FileForIssuer's.
     */
    uint32_t opensslIssuerHash;
    const QxViewExtension* extensions; /* every extension of the CRL, in order */
    uint32_t extensionCount;
    const QxViewEntry* entries;
    uint32_t entryCount;
} QxCrlView;

/*
 * Describes the DER CRL der (trailing bytes ignored) in one new block *view
 * of ctx's allocator, released with qxumfree; everything the view points to
 * lies in that block. QXL_ERR_BAD_ARGUMENT for NULL arguments or a context
 * without a layer, QXL_ERR_NOT_A_CRL for bytes that are no DER CRL,
 * QXL_ERR_OUT_OF_MEMORY (also for a view past 4 GiB), QXL_ERR_DIGEST. On
 * failure *view is NULL.
 */
QXCRL_API StatusCode qxview_crl(SecurityContext* ctx, const unsigned char* der, uint32_t length,
                                QxCrlView** view);

/*
 * The DER content octets of cert's serial number into serial, whose capacity
 * is *length on entry and the serial's length on return; for display beside
 * a CRL's entries. QXL_ERR_BAD_ARGUMENT for NULL arguments or a serial
 * longer than the capacity (*length then says how long it is),
 * QXL_ERR_CERT_DECODE when the record's DER is no certificate.
 */
QXCRL_API StatusCode qxview_cert_serial(const CertificateRecord* cert, unsigned char* serial,
                                        uint32_t* length);

/* ------------------------------------------------ strings and intervals */

/* The interval text that means "the current time". */
QXCRL_API extern const char QX_STR_CURTIME[]; /* "now" */

/*
 * Copies length bytes of text into string->data (a new NUL-terminated block)
 * and sets string->length. QXL_ERR_BAD_ARGUMENT, QXL_ERR_OUT_OF_MEMORY.
 */
QXCRL_API StatusCode qxstr_alloc(SecurityContext* ctx, QxString* string, const char* text,
                                 uint32_t length);

/* Releases string->data and clears the string; harmless on one never filled. */
QXCRL_API void qxstrfc_free_content(SecurityContext* ctx, QxString* string);

/*
 * A duration in seconds: plain seconds ("86400") or number-unit groups with
 * units s, m, h, d, w ("7d", "1d12h", "90m"). Empty, signed, unknown unit,
 * a number without unit after groups, or a total past 2^63-1:
 * QXL_ERR_INTERVAL with *seconds untouched.
 */
QXCRL_API StatusCode qxutmtts_tsecs(SecurityContext* ctx, const QxString* text, uint64_t* seconds);

/* -------------------------------------------------------- persistent store */

/* What qxiropen is asked to open; the fields at the offsets the module fills. */
typedef struct QxStoreDescriptor {
    uint32_t kind;       /* offset 0: 21, a named text */
    const char* name;    /* offset 8 */
    uint32_t nameLength; /* offset 16, bytes without the NUL */
    unsigned char reserved[60];
    uint32_t format; /* offset 80: 33, PEM text */
} QxStoreDescriptor;

typedef struct QxStoreItem {
    const char* text;
    uint32_t length;
} QxStoreItem;

typedef struct QxStoreItemList {
    uint32_t count;
    QxStoreItem* items;
} QxStoreItemList;

typedef struct QxStoreHandle QxStoreHandle;

/* Store classes, kinds and modes qxiropen knows. */
#define QX_STORE_CLASS_CRL 17u
#define QX_STORE_FORMAT_PEM 33u
#define QX_STORE_MODE_WRITE 1u
#define QX_STORE_KIND_NAMED_TEXT 21u

/* The longest name a text is stored or read under, in bytes without the NUL. */
#define QX_STORE_MAX_NAME_LENGTH 65536u

/*
 * Opens the layer's store (the SQLite file of ctx's layer) for the named text
 * of descriptor into a new *handle. QXL_ERR_STORE, with a trace saying why,
 * when the arguments are not a CRL store opened for writing, the name is
 * longer than QX_STORE_MAX_NAME_LENGTH or holds a NUL byte, or the file
 * cannot be opened for writing (not a regular file, read-only, not an SQLite
 * database, or holding triggers or views). Writers opening a file nobody has
 * set up yet do not get in each other's way.
 */
QXCRL_API StatusCode qxiropen(SecurityContext* ctx, QxStoreHandle** handle, uint32_t storeClass,
                              uint32_t format, uint32_t mode, const QxStoreDescriptor* descriptor);

/*
 * Stores the texts of list under the handle's name in one transaction: each
 * replaces the current text, which moves to the history with its time.
 */
QXCRL_API StatusCode qxirstore(SecurityContext* ctx, QxStoreHandle* handle,
                               const QxStoreItemList* list);

/* Closes *handle and sets it to NULL; NULL is ignored. */
QXCRL_API void qxirclose(SecurityContext* ctx, QxStoreHandle** handle);

/*
 * The text stored under name: version 0 is the current one, 1 the one before
 * it, and so on; a new NUL-terminated block in *text (released with qxumfree).
 * QXL_ERR_STORE when there is no such version or the store cannot be read.
 */
QXCRL_API StatusCode qxir_read(SecurityContext* ctx, const char* name, uint32_t version,
                               char** text, uint32_t* length);

/*
 * Called by qxir_read_history once per version, newest first: version 0 is
 * the current text. text (length bytes, then a NUL) belongs to the store and
 * is valid only during the call. A non-zero return ends the walk, and
 * qxir_read_history returns that status.
 */
typedef StatusCode (*QxStoredTextVisitor)(void* arg, uint32_t version, const char* text,
                                          uint32_t length);

/*
 * Hands every version of the text stored under name to visit, newest first,
 * in one pass over the store as it was when the walk began. QXL_ERR_STORE
 * when name has no text or the store cannot be read; a failure after some
 * versions ends the walk there. QXL_ERR_BAD_ARGUMENT without ctx, name or
 * visit.
 */
QXCRL_API StatusCode qxir_read_history(SecurityContext* ctx, const char* name,
                                       QxStoredTextVisitor visit, void* arg);

/* ------------------------------------------------------------ LDAP fetch */

/*
 * How the layer's LDAP callbacks reach a directory, and the bounds of a
 * walk. A walk is what qxcrl_FetchFromCRLDP does between begin_walk and
 * end_walk; a fetch outside a walk is a walk of its own. maxBytes, maxValues
 * and walkTimeoutMs bound the whole walk, its HTTP fetches too, and are
 * taken when the walk begins.
 */
typedef struct QxLdapFetchSettings {
    uint32_t networkTimeoutMs;   /* connecting, and the TLS handshake; default 5000 */
    uint32_t operationTimeoutMs; /* bind and search each; default 10000 */
    /*
     * Memory a walk may hold at once: the fetched CRLs with their nodes and
     * the allocator's share, and the directory's message or the HTTP body
     * being read; default 64 MiB.
     */
    uint32_t maxBytes;
    /* CRLs read in a walk: attribute values and the CRLs of HTTP bodies; default 1024 */
    uint32_t maxValues;
    uint32_t walkTimeoutMs; /* a whole walk, every fetch in it; default 30000 */
} QxLdapFetchSettings;

/* Fills settings with the defaults above. */
QXCRL_API void qxldap_default_settings(QxLdapFetchSettings* settings);

/* Non-zero for ldap://, ldaps:// and ldapi:// URLs (scheme case-insensitive). */
QXCRL_API int qxldap_is_url(const char* url);

/*
 * Fetches the CRLs at an LDAP URL (RFC 4516: host, port, base DN, attribute,
 * scope, filter) with an anonymous bind, reading certificateRevocationList;binary
 * and certificateRevocationList from the entries found, and appends one node
 * per non-empty value to *list (nodes and DER from qxumalloc on ctx), or
 * nothing when it fails. Settings come from ctx's callback table when it is
 * the layer's own (of qxldap_fetch_callbacks' or qxfetch_callbacks' kind),
 * else the defaults. Inside a walk of ctx on this thread, the walk's
 * deadline, memory and values bound the fetch, and the CRLs of earlier
 * fetches, HTTP ones too, count against them. QXL_ERR_FETCH when the URL does not
 * parse, the directory cannot be reached in time, refuses the bind or
 * search, sends more than maxBytes or maxValues allow, or the walk's time is
 * up.
 */
QXCRL_API StatusCode qxldap_fetch_crldp(SecurityContext* ctx, const char* url,
                                        FetchedCrlNode** list);

/*
 * Begins a walk of ctx on this thread, for the layer's LDAP and HTTP
 * fetches alike: its deadline is walkTimeoutMs from now. A walk begun again
 * for the same ctx before it ends goes on under the first one's budget. At
 * most 8 walks of different contexts are open on one thread; beyond that,
 * every fetch of the further ones is a walk of its own.
 */
QXCRL_API void qxldap_begin_walk(SecurityContext* ctx);

/* Ends the walk of ctx on this thread that qxldap_begin_walk began; else nothing. */
QXCRL_API void qxldap_end_walk(SecurityContext* ctx);

/* The layer's callback table with the default settings; what a new layer installs. */
QXCRL_API const CrlFetchCallbacks* qxldap_fetch_callbacks(void);

/*
 * Installs table (NULL for none) as ctx's layer's fetch callbacks; the table
 * must outlive its use. To change settings, build a table whose first slot
 * points to a QxLdapFetchSettings and whose callbacks are the four above.
 */
QXCRL_API void qxlayer_set_fetch_callbacks(SecurityContext* ctx, const CrlFetchCallbacks* table);

/* Releases every node of *list and its DER, and sets *list to NULL. */
QXCRL_API void qxldap_free_list(SecurityContext* ctx, FetchedCrlNode** list);

/* ------------------------------------------------------------ HTTP fetch */

/*
 * How the layer's HTTP fetch reaches a server. Inside a walk, the walk's
 * deadline and memory (QxLdapFetchSettings) bound every fetch as well.
 */
typedef struct QxHttpFetchSettings {
    uint32_t connectTimeoutMs; /* connecting, and the TLS handshake; default 5000 */
    uint32_t timeoutMs;        /* one fetch, every redirect of it; default 20000 */
    uint32_t maxBodyBytes;     /* the longest body taken; default 32 MiB */
    uint32_t maxRedirects;     /* redirects followed in one fetch; default 5 */
} QxHttpFetchSettings;

/* Fills settings with the defaults above. */
QXCRL_API void qxhttp_default_settings(QxHttpFetchSettings* settings);

/* Non-zero for http:// and https:// URLs (scheme case-insensitive). */
QXCRL_API int qxhttp_is_url(const char* url);

/*
 * Fetches the CRLs at an HTTP or HTTPS URL (RFC 5280: DER over HTTP) with a
 * GET and appends them to *list (nodes and DER from qxumalloc on ctx), or
 * nothing when it fails. Only status 200 counts; its body is one DER CRL
 * that fills it exactly, or PEM text whose CRL blocks are taken in order.
 * Redirects are followed up to maxRedirects, and only to an https:// URL or
 * to the same scheme, host and port; never to another scheme. No cookies,
 * no credentials (a URL with a user name is refused); proxies come from the
 * environment as for every libcurl program (http_proxy, https_proxy,
 * no_proxy). Settings come from ctx's callback table when it is of the
 * kind qxfetch_callbacks gives, else the defaults; the walk's bounds as for
 * qxldap_fetch_crldp. QXL_ERR_FETCH when the URL is not one, the server
 * cannot be reached in time, answers anything but 200, sends more than the
 * body cap or the walk's memory allow, or a body that is no CRL, or the
 * walk's time is up; QXL_ERR_OUT_OF_MEMORY; QXL_ERR_BAD_ARGUMENT for a NULL
 * argument or a context without a layer.
 */
QXCRL_API StatusCode qxhttp_fetch_crldp(SecurityContext* ctx, const char* url,
                                        FetchedCrlNode** list);

/* ------------------------------------------------- the layer's fetch table */

/* The settings of a table of the kind qxfetch_callbacks gives. */
typedef struct QxCrlFetchSettings {
    QxLdapFetchSettings ldap; /* LDAP fetches, and the bounds of every walk */
    QxHttpFetchSettings http; /* HTTP fetches */
} QxCrlFetchSettings;

/* Fills settings with the defaults of both kinds of fetch. */
QXCRL_API void qxfetch_default_settings(QxCrlFetchSettings* settings);

/* Non-zero for http://, https://, ldap://, ldaps:// and ldapi:// URLs. */
QXCRL_API int qxfetch_is_url(const char* url);

/* qxhttp_fetch_crldp for HTTP and HTTPS URLs, qxldap_fetch_crldp for the others. */
QXCRL_API StatusCode qxfetch_crldp(SecurityContext* ctx, const char* url, FetchedCrlNode** list);

/*
 * The layer's table for HTTP and LDAP distribution points with the default
 * settings: qxfetch_is_url, qxfetch_crldp, and the walk of qxldap_begin_walk
 * and qxldap_end_walk, whose one deadline and memory budget bound both
 * kinds of fetch. To change settings, build a table whose first slot points
 * to a QxCrlFetchSettings and whose callbacks are these four.
 */
QXCRL_API const CrlFetchCallbacks* qxfetch_callbacks(void);

/* ---------------------------------------------------- certificate context */

/* Stores the layer's certificate context (borrowed, never released) in *certCtx. */
QXCRL_API StatusCode qxGCC_GetCertcCtx(const SecurityContext* ctx, R_CERT_CTX** certCtx);

#ifdef __cplusplus
}
#endif

#endif
