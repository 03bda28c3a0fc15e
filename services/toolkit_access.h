// What the layer's services take from the toolkit on a context's behalf: the
// library context the module's objects are made in, and the toolkit's clock.
#ifndef QXCRL_SERVICES_TOOLKIT_ACCESS_H
#define QXCRL_SERVICES_TOOLKIT_ACCESS_H

#include "../toolkit/r_toolkit.h"
#include "qxlayer.h"

/* Slot 3 under toolkitMode 1, else slot 2; NULL when ctx has no such context. */
R_LIB_CTX* qxl_toolkit_context(const SecurityContext* ctx);

/*
 * Now by the toolkit's clock, in seconds since 1970, so that a clock the
 * tests fix governs every service alike. QXL_ERR_BAD_ARGUMENT without a
 * library context, QXL_ERR_TOOLKIT when the toolkit fails (a clock before
 * 1970 included).
 */
StatusCode qxl_toolkit_now(const SecurityContext* ctx, int64_t* now);

#endif
