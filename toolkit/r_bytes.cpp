// Owned bytes: inline when small, OpenSSL's allocator otherwise.
#include "r_bytes.h"

#include <cstring>
#include <utility>

#include <openssl/crypto.h>

RBytes::~RBytes() {
    OPENSSL_free(heap_);
}

bool RBytes::resize_uninitialised(size_t size) {
    if (size <= inline_capacity) {
        if (heap_ != nullptr)
            std::memcpy(inline_, heap_, size < size_ ? size : size_);
        OPENSSL_free(heap_);
        heap_ = nullptr;
        size_ = size;
        return true;
    }
    auto* grown = static_cast<unsigned char*>(OPENSSL_malloc(size));
    if (grown == nullptr)
        return false;
    std::memcpy(grown, data(), size < size_ ? size : size_);
    OPENSSL_free(heap_);
    heap_ = grown;
    size_ = size;
    return true;
}

bool RBytes::assign(const unsigned char* from, size_t length) {
    if (length <= inline_capacity) {
        // memmove: from may be these very bytes.
        if (length > 0)
            std::memmove(inline_, from, length);
        OPENSSL_free(heap_);
        heap_ = nullptr;
        size_ = length;
        return true;
    }
    RBytes fresh;
    if (!fresh.resize_uninitialised(length))
        return false;
    if (length > 0)
        std::memcpy(fresh.data(), from, length);
    swap(fresh);
    return true;
}

void RBytes::swap(RBytes& other) {
    unsigned char inlineCopy[inline_capacity];
    std::memcpy(inlineCopy, inline_, inline_capacity);
    std::memcpy(inline_, other.inline_, inline_capacity);
    std::memcpy(other.inline_, inlineCopy, inline_capacity);
    std::swap(heap_, other.heap_);
    std::swap(size_, other.size_);
}

void RBytes::clear() {
    OPENSSL_free(heap_);
    heap_ = nullptr;
    size_ = 0;
}
