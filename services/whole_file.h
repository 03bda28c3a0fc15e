// Wiping for the services that read a certificate or a key file whole.
#ifndef QXCRL_SERVICES_WHOLE_FILE_H
#define QXCRL_SERVICES_WHOLE_FILE_H

#include <cstddef>

#include "qxlayer.h"

/* Overwrites length bytes at block in a way the compiler may not drop. */
void qxl_wipe(void* block, size_t length);

#endif
