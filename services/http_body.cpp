#include "http_body.h"

#include <algorithm>
#include <cstring>

#include "http_trace.h"

namespace {

// The first block for a body of unknown length.
constexpr uint64_t first_capacity = 16 * 1024;

} // namespace

namespace qxhttp {

StatusCode Body::grow(uint64_t needed, int64_t expected) {
    // An announced length is taken at its word up to the cap: a body that
    // then runs longer grows again, and one that ends shorter is cut.
    uint64_t capacity = expected >= 0 && static_cast<uint64_t>(expected) >= needed
                            ? static_cast<uint64_t>(expected)
                            : std::max<uint64_t>(capacity_ * uint64_t{2}, first_capacity);
    capacity = std::max(std::min<uint64_t>(capacity, cap_), needed);
    if (const StatusCode status = chain_.hold(qxfetch::block_cost(capacity)))
        return status;
    StatusCode status = 0;
    void* grown = qxumrealloc(ctx_, data_, static_cast<uint32_t>(capacity), &status);
    if (grown == nullptr)
        return status;
    data_ = static_cast<unsigned char*>(grown);
    capacity_ = static_cast<uint32_t>(capacity);
    return 0;
}

bool Body::append(const char* url, const char* bytes, size_t length, int64_t expected) {
    const uint64_t needed = uint64_t{size_} + length;
    if (needed > cap_) {
        qxu_print_trace(ctx_, function_name, trace_level, "http: body of %s over %u bytes\n", url,
                        cap_);
        status_ = QXL_ERR_FETCH;
        return false;
    }
    if (needed > capacity_ && (status_ = grow(needed, expected)) != 0)
        return false;
    std::memcpy(data_ + size_, bytes, length);
    size_ = static_cast<uint32_t>(needed);
    return true;
}

void Body::clear() {
    qxumfree(ctx_, &data_);
    size_ = capacity_ = 0;
    status_ = 0;
    chain_.release();
}

StatusCode Body::release(unsigned char** block) {
    if (size_ == 0)
        qxumfree(ctx_, &data_);
    else if (size_ < capacity_) {
        StatusCode status = 0;
        void* cut = qxumrealloc(ctx_, data_, size_, &status);
        if (cut == nullptr)
            return status;
        data_ = static_cast<unsigned char*>(cut);
    }
    *block = data_;
    data_ = nullptr;
    size_ = capacity_ = 0;
    chain_.release();
    return 0;
}

} // namespace qxhttp
