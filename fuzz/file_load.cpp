// Loading a one-CRL file whose content is the input, served from memory
// through the layer's file interface so that no run touches the disk.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz_layer.h"

namespace {

struct MemoryFile {
    const uint8_t* data = nullptr;
    size_t size = 0;
    // Reads are served in pieces of at most this, so that the loader's
    // piecewise reading is exercised; 0 serves whatever is asked.
    uint32_t piece = 0;
};

// The one file a run serves; the name object, file objects and reads all lead to it.
MemoryFile current;

// A file object: where the next read starts, and whether it was opened.
struct OpenFile {
    size_t position = 0;
    bool open = false;
};

void* make_name(const QxFileInterface* files, void*, const char*, uint32_t, uint32_t) {
    return files->state;
}

void* setup_file(const QxFileInterface*, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
                 const char*) {
    return new OpenFile;
}

int file_length(const QxFileInterface*, void* name, uint64_t* size) {
    *size = static_cast<MemoryFile*>(name)->size;
    return 0;
}

int open_file(const QxFileInterface*, void* file, void*) {
    auto* opened = static_cast<OpenFile*>(file);
    if (opened->open)
        std::abort(); // opened twice
    opened->open = true;
    return 0;
}

int64_t read_file(const QxFileInterface* files, void* file, void* destination, uint32_t wanted) {
    auto* opened = static_cast<OpenFile*>(file);
    if (!opened->open)
        std::abort(); // read before open
    const auto* served = static_cast<const MemoryFile*>(files->state);
    size_t count = std::min<size_t>(wanted, served->size - opened->position);
    if (served->piece != 0)
        count = std::min<size_t>(count, served->piece);
    if (count != 0)
        std::memcpy(destination, served->data + opened->position, count);
    opened->position += count;
    return static_cast<int64_t>(count);
}

int close_file(const QxFileInterface*, void* file) {
    delete static_cast<OpenFile*>(file);
    return 0;
}

void release_name(const QxFileInterface*, void*) {}

const QxFileInterface memory_files{make_name, setup_file, file_length,  open_file,
                                   read_file, close_file, release_name, &current};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size >= UINT32_MAX)
        return 0;
    SecurityContext* ctx = qxfuzz::layer();
    ctx->layerContext->fileContext = &memory_files;
    qxfuzz::BlockCheck check(ctx);
    // The last byte also picks the read size: the CRL's leading bytes are
    // what the parser cares most about, the end matters little.
    current =
        MemoryFile{data, size, size != 0 ? static_cast<uint32_t>(data[size - 1] % 5) * 997u : 0};

    CrlObject* crl = nullptr;
    if (qxcrl_Load(ctx, &crl, "fuzz.crl") == 0) {
        uint32_t count = 0;
        if (qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_ENTRY_COUNT, 0, &count) != 0)
            std::abort(); // a loaded CRL always has a count
    }
    qxcrl_Destroy(ctx, &crl);
    return 0;
}
