// Base64 decoding, and the encoder's text decoding back to the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz_layer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > UINT32_MAX)
        return 0;
    SecurityContext* ctx = qxfuzz::layer();
    qxfuzz::BlockCheck check(ctx);
    const char* text = reinterpret_cast<const char*>(data);
    unsigned char* der = nullptr;
    uint32_t derLength = 0;
    if (qxbc_b64_to_der(ctx, text, static_cast<uint32_t>(size), &der, &derLength) != 0) {
        if (der != nullptr) // a failed decode hands out nothing
            std::abort();
        return 0;
    }
    // Four characters make at most three bytes.
    if (derLength > size / 4 * 3)
        std::abort();

    char* encoded = nullptr;
    uint32_t encodedLength = 0;
    if (qxbc_der_to_b64(ctx, der, derLength, &encoded, &encodedLength) != 0)
        std::abort();
    if (std::strlen(encoded) != encodedLength)
        std::abort();
    unsigned char* again = nullptr;
    uint32_t againLength = 0;
    if (qxbc_b64_to_der(ctx, encoded, encodedLength, &again, &againLength) != 0)
        std::abort();
    if (againLength != derLength || (derLength != 0 && std::memcmp(again, der, derLength) != 0))
        std::abort();
    qxumfree(ctx, &again);
    qxumfree(ctx, &encoded);
    qxumfree(ctx, &der);
    return 0;
}
