// Base64 decoding for the layer's own readers, which may decode in place.
#ifndef QXCRL_SERVICES_BASE64_H
#define QXCRL_SERVICES_BASE64_H

#include <cstdint>

/*
 * Decodes Base64 text under the rules of qxbc_b64_to_der into out, which has
 * room for textLength / 4 * 3 bytes. out may also lie anywhere from the start
 * of a buffer up to text itself: a byte is written only after the characters
 * it comes from have been read, so a file's text can become its DER where it
 * lies. False on text that is not Base64.
 */
bool qxl_base64_decode(const unsigned char* text, uint32_t textLength, unsigned char* out,
                       uint32_t* outLength);

#endif
