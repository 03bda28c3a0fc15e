// Whole-file reads for the layer's services that load a certificate or a key
// from a path.
#ifndef QXCRL_SERVICES_WHOLE_FILE_H
#define QXCRL_SERVICES_WHOLE_FILE_H

#include <cstddef>

#include "qxlayer.h"

/*
 * Reads the whole of the regular file at path into a new block *bytes of
 * ctx's allocator (released with qxumfree) and its size into *length.
 * QXL_ERR_FILE when it cannot be opened, is not a regular file, does not fit
 * a 32-bit block or fails to read; QXL_ERR_OUT_OF_MEMORY. On failure *bytes
 * stays NULL, and bytes already read are wiped first, since the file may
 * hold a key.
 */
StatusCode qxl_read_whole_file(SecurityContext* ctx, const char* path, unsigned char** bytes,
                               uint32_t* length);

/* Overwrites length bytes at block in a way the compiler may not drop. */
void qxl_wipe(void* block, size_t length);

#endif
