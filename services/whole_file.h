// What the services that read a file whole share: opening it, reading it, wiping it.
#ifndef QXCRL_SERVICES_WHOLE_FILE_H
#define QXCRL_SERVICES_WHOLE_FILE_H

#include <cstddef>
#include <cstdint>

#include "qxlayer.h"

/* Overwrites length bytes at block in a way the compiler may not drop. */
void qxl_wipe(void* block, size_t length);

/*
 * Opens path as the whole-file readers do: without blocking (a FIFO would
 * wait for a writer), and only a regular file no larger than the layer
 * allows. QXL_ERR_FILE otherwise; on success *fd is the caller's to close.
 */
StatusCode qxl_open_whole(const SecurityContext* ctx, const char* path, int* fd, uint32_t* size);

/* Reads up to size bytes of fd into buffer; *length is fewer when the file shrank. */
StatusCode qxl_read_all(int fd, unsigned char* buffer, uint32_t size, uint32_t* length);

#endif
