// Operations the module's families call in one another but do not export.
#ifndef QXCRL_CERT_MODULE_INTERNAL_H
#define QXCRL_CERT_MODULE_INTERNAL_H

#include "qxcrl.h"

/*
 * Reads the whole file at path into *buffer (resized with qxumrealloc; the
 * caller releases it whatever the result) followed by a NUL; *length is the
 * file's size on success and 0 otherwise.
 */
StatusCode qxcrlGetCRLFromFile(SecurityContext* ctx, const char* path, unsigned char** buffer,
                               uint32_t* length);

/*
 * Creates a signed CRL into a new record stored at *crl at once (when *crl is
 * NULL) or re-dates and re-signs the CRL of *crl (when it is set).
 */
StatusCode qxcrl_CreateOrExtend(SecurityContext* ctx, CrlObject** crl, const QxPrivateKey* key,
                                CertificateRecord* issuer, const char* interval,
                                uint32_t signatureType);

/* Adds an entry (serial content octets, revocation time) to crl; no signature. */
StatusCode qxcrl_RevokeEntry(SecurityContext* ctx, CrlObject* crl, const unsigned char* serial,
                             uint32_t serialLength, R_TIME* revocationTime);

#endif
