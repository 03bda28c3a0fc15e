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

#endif
