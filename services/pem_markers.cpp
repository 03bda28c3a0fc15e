// The PEM labels CRLs are written and found under. The writer uses the
// RFC 7468 pair; readers also accept the older labels still seen in files.
#include "qxlayer.h"

extern "C" {

const char QX_STR_CRL_HEADER[] = "-----BEGIN X509 CRL-----";
const char QX_STR_CRL_HEADER1[] = "-----BEGIN CRL-----";
const char QX_STR_CRL_HEADER2[] = "-----BEGIN CERTIFICATE REVOCATION LIST-----";
const char QX_STR_CRL_HEADER3[] = "-----BEGIN X509CRL-----";
const char QX_STR_CRL_FOOTER[] = "-----END X509 CRL-----";
const char QX_STR_CRL_FOOTER1[] = "-----END CRL-----";
const char QX_STR_CRL_FOOTER2[] = "-----END CERTIFICATE REVOCATION LIST-----";
const char QX_STR_CRL_FOOTER3[] = "-----END X509 CRL-----\n";
}
