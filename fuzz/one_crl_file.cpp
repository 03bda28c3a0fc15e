// A file of one CRL read straight into the CRL's bytes: the input is the
// file, held in memory and read through its /proc path, so that the reader's
// in-place Base64 decoding meets hostile text. A CRL it takes must be the
// one the command's block reader finds in the same file, decoded apart, and
// the module must take those bytes as well.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "crl_blocks.h"
#include "fuzz_layer.h"

namespace {

using qxfuzz::require;

// The input as a file: one memory file, rewritten for every run.
const std::string& file_holding(const uint8_t* data, size_t size) {
    static const int fd = memfd_create("one_crl_file", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    require(fd >= 0 && ftruncate(fd, 0) == 0 &&
                pwrite(fd, data, size, 0) == static_cast<ssize_t>(size),
            "writing the memory file");
    return path;
}

// What the command's block reader makes of text: with no CRL begin line,
// the whole as DER; with one, that block's Base64 (from the line after the
// begin line to the first end line) decoded apart; nothing for more blocks,
// or a block that does not decode.
std::optional<std::string> as_the_block_reader_reads(SecurityContext* ctx, std::string_view text) {
    const std::vector<std::string_view> blocks = qxcli::crl_pem_blocks(text);
    if (blocks.empty())
        return std::string(text);
    const size_t lineEnd = blocks[0].find('\n');
    const size_t end = blocks[0].find("-----END ");
    if (blocks.size() != 1 || lineEnd == std::string_view::npos || end == std::string_view::npos ||
        end < lineEnd)
        return std::nullopt;
    unsigned char* der = nullptr;
    uint32_t length = 0;
    if (qxbc_b64_to_der(ctx, blocks[0].data() + lineEnd + 1,
                        static_cast<uint32_t>(end - lineEnd - 1), &der, &length) != 0)
        return std::nullopt;
    std::string bytes(reinterpret_cast<const char*>(der), length);
    qxumfree(ctx, &der);
    return bytes;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size >= UINT32_MAX)
        return 0;
    SecurityContext* ctx = qxfuzz::layer();
    const std::string& path = file_holding(data, size);
    const qxfuzz::BlockCheck blocks(ctx);
    CrlObject* crl = nullptr;
    const StatusCode status = qxfile_read_one_crl(ctx, path.c_str(), &crl);
    require((status == 0) == (crl != nullptr), "a CRL without success, or success without one");
    if (status != 0) {
        require(status == QXL_ERR_NOT_A_CRL || status == QXL_ERR_OUT_OF_MEMORY,
                "a failure other than not-a-CRL");
        return 0;
    }
    unsigned char* der = nullptr;
    uint32_t length = 0;
    require(qxcrl_GetDER(ctx, crl, &der, &length) == 0, "the DER of a CRL read");
    const std::string taken(reinterpret_cast<const char*>(der), length);
    qxumfree(ctx, &der);
    qxcrl_Destroy(ctx, &crl);
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    require(as_the_block_reader_reads(ctx, input) == taken,
            "the CRL is not what the command's block reader reads");
    CrlObject* again = nullptr;
    require(qxcrl_CreateCtx(ctx, &again, reinterpret_cast<const unsigned char*>(taken.data()),
                            length) == 0,
            "the module refuses the bytes the reader took");
    qxcrl_Destroy(ctx, &again);
    return 0;
}
