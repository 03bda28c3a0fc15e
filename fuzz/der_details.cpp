// DER decoding and every detail item of whatever decodes.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_layer.h"

namespace {

// Reading every entry of a huge CRL would make single inputs slow without
// reaching new code.
constexpr uint32_t max_entries = 64;

void read_details(SecurityContext* ctx, CrlObject* crl, size_t inputSize) {
    uint32_t word = 0;
    char name[1025];
    char time[129];
    // A serial or extension value lies inside the input, so its size bounds them.
    std::vector<unsigned char> bytes(inputSize + 1);
    CrlDetailBuffer buffer{bytes.data(), 0};

    qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_VERSION, 0, &word);
    qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_SIGNATURE_TYPE, 0, &word);
    qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_ISSUER_NAME, 0, name);
    qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_THIS_UPDATE, 0, time);
    qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_NEXT_UPDATE, 0, time);
    qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_EXTENSION, 0, &buffer);
    if (buffer.length > inputSize)
        std::abort();

    uint32_t count = 0;
    if (qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_ENTRY_COUNT, 0, &count) != 0)
        return;
    const uint32_t limit = count < max_entries ? count : max_entries;
    for (uint32_t index = 0; index < limit; ++index) {
        buffer.length = 0;
        qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_ENTRY_SERIAL, index, &buffer);
        if (buffer.length > inputSize)
            std::abort();
        qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_ENTRY_REVOCATION_DATE, index, time);
    }
    // One past the end must fail cleanly, not read beyond the entries.
    if (count < max_entries) {
        buffer.length = 0;
        if (qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_ENTRY_SERIAL, count, &buffer) == 0)
            std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > UINT32_MAX)
        return 0;
    SecurityContext* ctx = qxfuzz::layer();
    qxfuzz::BlockCheck check(ctx);
    CrlObject* crl = nullptr;
    if (qxcrl_CreateCtx(ctx, &crl, data, static_cast<uint32_t>(size)) == 0)
        read_details(ctx, crl, size);
    qxcrl_Destroy(ctx, &crl);
    if (crl != nullptr)
        std::abort();
    return 0;
}
