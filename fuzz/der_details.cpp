// DER decoding and every detail item of whatever decodes, each written into
// a buffer no larger than its documented size: the text items into their
// exact arrays, the byte strings into capacities taken from the input (too
// small by some bytes, exact, larger, and unchecked), with guard bytes behind.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz_layer.h"
#include "guarded_buffer.h"

namespace {

using qxfuzz::GuardedBuffer;
using qxfuzz::require;

// Reading every entry of a huge CRL would make single inputs slow without
// reaching new code.
constexpr uint32_t max_entries = 64;
constexpr size_t name_size = 1025;
constexpr size_t time_size = 129;

// Successive bytes of the input, from its end backwards, for choices the
// input itself makes (the end of a CRL is its signature, which decoding
// does not judge).
class Choices {
  public:
    Choices(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    uint32_t next() {
        if (size_ == 0)
            return 0;
        const uint8_t byte = data_[size_ - 1 - taken_ % size_];
        ++taken_;
        return byte;
    }

  private:
    const uint8_t* data_;
    size_t size_;
    size_t taken_ = 0;
};

// A text item into its array of exactly size bytes: a terminated text within
// it on success, nothing written on failure.
void read_text(SecurityContext* ctx, CrlObject* crl, CrlDetailItem item, uint32_t index,
               size_t size) {
    GuardedBuffer out(size);
    if (qxcrl_GetDetails(ctx, crl, item, index, out.text()) == 0) {
        require(std::memchr(out.text(), '\0', size) != nullptr, "detail text not terminated");
        require(out.guards_intact(), "detail text written past its array");
    } else {
        require(out.untouched_from(0), "failed detail text call wrote its array");
    }
}

// One call with a capacity; checks what it wrote against the value when it
// is known. Returns the call's status.
StatusCode read_bytes_with_capacity(SecurityContext* ctx, CrlObject* crl, CrlDetailItem item,
                                    uint32_t index, uint32_t capacity, size_t room,
                                    const unsigned char* value, uint32_t valueLength) {
    GuardedBuffer out(room);
    CrlDetailBuffer buffer{out.data(), capacity};
    const StatusCode result = qxcrl_GetDetails(ctx, crl, item, index, &buffer);
    if (result != 0) {
        require(out.untouched_from(0), "refused detail call wrote the buffer");
        require(buffer.length == capacity, "refused detail call changed the length");
        return result;
    }
    require(buffer.length <= room, "detail value longer than the buffer");
    require(out.untouched_from(buffer.length), "detail call wrote past the value it reported");
    if (value != nullptr)
        require(buffer.length == valueLength && std::memcmp(out.data(), value, valueLength) == 0,
                "detail value differs between capacities");
    return result;
}

// A byte-string item read unchecked into room for anything the input holds,
// then into capacities around its length.
void read_bytes(SecurityContext* ctx, CrlObject* crl, CrlDetailItem item, uint32_t index,
                size_t inputSize, Choices& choices) {
    // A serial or CRL Number lies inside the input, so its size bounds them.
    GuardedBuffer whole(inputSize);
    CrlDetailBuffer buffer{whole.data(), 0};
    if (qxcrl_GetDetails(ctx, crl, item, index, &buffer) != 0) {
        require(whole.untouched_from(0) && buffer.length == 0,
                "failed detail call wrote the buffer");
        return;
    }
    require(buffer.length <= inputSize && whole.untouched_from(buffer.length),
            "detail value longer than the input");
    const unsigned char* value = whole.data();
    const uint32_t length = buffer.length;
    if (length == 0)
        return; // a capacity of 0 means unchecked: nothing tighter to try

    require(read_bytes_with_capacity(ctx, crl, item, index, length, length, value, length) == 0,
            "detail value refused a buffer of its exact length");
    const uint32_t larger = length + choices.next() % 64;
    require(read_bytes_with_capacity(ctx, crl, item, index, larger, larger, value, length) == 0,
            "detail value refused a larger buffer");
    if (length > 1) {
        // One byte short, and short by as many bytes as the input says.
        for (const uint32_t smaller : {length - 1, 1 + choices.next() % (length - 1)})
            require(read_bytes_with_capacity(ctx, crl, item, index, smaller, smaller, nullptr, 0) ==
                        QXERR_NO_OUTPUT_BUFFER,
                    "detail value accepted a buffer too small for it");
    }
}

void read_details(SecurityContext* ctx, CrlObject* crl, const uint8_t* data, size_t size) {
    Choices choices(data, size);
    uint32_t word = 0;
    qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_VERSION, 0, &word);
    qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_SIGNATURE_TYPE, 0, &word);
    read_text(ctx, crl, QXCRL_DETAIL_ISSUER_NAME, 0, name_size);
    read_text(ctx, crl, QXCRL_DETAIL_THIS_UPDATE, 0, time_size);
    read_text(ctx, crl, QXCRL_DETAIL_NEXT_UPDATE, 0, time_size);
    read_bytes(ctx, crl, QXCRL_DETAIL_EXTENSION, 0, size, choices);

    uint32_t count = 0;
    if (qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_ENTRY_COUNT, 0, &count) != 0)
        return;
    const uint32_t limit = count < max_entries ? count : max_entries;
    for (uint32_t index = 0; index < limit; ++index) {
        read_bytes(ctx, crl, QXCRL_DETAIL_ENTRY_SERIAL, index, size, choices);
        read_text(ctx, crl, QXCRL_DETAIL_ENTRY_REVOCATION_DATE, index, time_size);
    }
    // One past the end must fail cleanly, not read beyond the entries.
    if (count < max_entries) {
        GuardedBuffer out(size);
        CrlDetailBuffer buffer{out.data(), 0};
        require(qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_ENTRY_SERIAL, count, &buffer) != 0,
                "entry past the end read");
        read_text(ctx, crl, QXCRL_DETAIL_ENTRY_REVOCATION_DATE, count, time_size);
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
        read_details(ctx, crl, data, size);
    qxcrl_Destroy(ctx, &crl);
    require(crl == nullptr, "qxcrl_Destroy left the record");
    return 0;
}
