// The CRLs of an HTTP body: one DER CRL, or PEM text with any number.
#ifndef QXCRL_SERVICES_HTTP_CRLS_H
#define QXCRL_SERVICES_HTTP_CRLS_H

#include "http_body.h"

namespace qxhttp {

// The CRLs of the body of url's answer into chain: the body itself when it
// is one DER SEQUENCE that fills it exactly, else every CRL block of its
// PEM text, in order, blocks of other labels passed over. QXL_ERR_FETCH,
// traced, when it is neither, a block has no end or broken Base64, or the
// walk's caps are reached; QXL_ERR_OUT_OF_MEMORY. The body is empty after.
StatusCode take_crls(SecurityContext* ctx, const char* url, Body& body, qxfetch::Chain& chain);

} // namespace qxhttp

#endif
