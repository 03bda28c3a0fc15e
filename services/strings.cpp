// Length-counted texts of the layer, and the interval text for "now".
#include <cstring>

#include "qxlayer.h"

extern "C" {
const char QX_STR_CURTIME[] = "now";
}

extern "C" StatusCode qxstr_alloc(SecurityContext* ctx, QxString* string, const char* text,
                                  uint32_t length) {
    if (string == nullptr || (text == nullptr && length != 0))
        return QXL_ERR_BAD_ARGUMENT;
    // The terminator must fit a 32-bit block too.
    if (length == UINT32_MAX)
        return QXL_ERR_OUT_OF_MEMORY;
    StatusCode status = 0;
    auto* copy = static_cast<char*>(qxumalloc(ctx, length + 1, &status));
    if (copy == nullptr)
        return status;
    if (length != 0)
        std::memcpy(copy, text, length);
    copy[length] = '\0';
    string->data = copy;
    string->length = length;
    return 0;
}

extern "C" void qxstrfc_free_content(SecurityContext* ctx, QxString* string) {
    if (string == nullptr)
        return;
    qxumfree(ctx, &string->data);
    string->length = 0;
}
