// The memory service's per-layer account: live blocks, attempts and the
// failure hook. Only the layer's own sources see it.
#ifndef QXCRL_SERVICES_MEMORY_ACCOUNT_H
#define QXCRL_SERVICES_MEMORY_ACCOUNT_H

#include "qxlayer.h"

/* A new account, or NULL when there is no memory for one. */
struct QxMemoryAccount* qxum_account_new();
void qxum_account_free(struct QxMemoryAccount* account);

#endif
