// PEM text of any shape delivered into a cache.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_layer.h"
#include "text_cache.h"

namespace {

// Large enough for any input of the run, so decoded CRLs stay cached and
// are released by the owner.
constexpr uint32_t cache_capacity = 8u << 20;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size >= UINT32_MAX)
        return 0;
    SecurityContext* ctx = qxfuzz::layer();
    qxfuzz::BlockCheck check(ctx);
    const std::vector<char> text = qxfuzz::terminated_text(data, size);
    const qxfuzz::InputCache cache(ctx, cache_capacity);
    qxcrl_SetB64Crl(cache.owner(), text.data(), static_cast<uint32_t>(size));
    qxfuzz::check_cache(cache.owner()->crlCache);
    return 0;
}
