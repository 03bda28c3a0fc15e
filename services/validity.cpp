// Whether a certificate may be used now, by the toolkit's clock.
#include "toolkit_access.h"

extern "C" StatusCode qxtCheckValidity_ext(SecurityContext* ctx, int64_t notBefore,
                                           int64_t notAfter) {
    int64_t now = 0;
    const StatusCode status = qxl_toolkit_now(ctx, &now);
    if (status != 0)
        return status;
    // Both ends are inside the period, as RFC 5280 counts it.
    if (now < notBefore)
        return QXL_ERR_CERT_NOT_YET_VALID;
    if (now > notAfter)
        return QXL_ERR_CERT_EXPIRED;
    return 0;
}
