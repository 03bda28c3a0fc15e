/*
 * Bytes the toolkit owns, from OpenSSL's allocator (so allocation-failure
 * tests reach them). Small runs stay inline: a CRL entry handed to a caller
 * costs no allocation.
 */
#ifndef QXCRL_TOOLKIT_R_BYTES_H
#define QXCRL_TOOLKIT_R_BYTES_H

#include <cstddef>
#include <cstdint>

class RBytes {
  public:
    RBytes() = default;
    RBytes(const RBytes&) = delete;
    RBytes& operator=(const RBytes&) = delete;
    ~RBytes();

    const unsigned char* data() const { return heap_ != nullptr ? heap_ : inline_; }
    unsigned char* data() { return heap_ != nullptr ? heap_ : inline_; }
    size_t size() const { return size_; }

    /* Makes room for size bytes, contents undefined; false when out of memory (nothing changed). */
    bool resize_uninitialised(size_t size);
    /* Replaces the contents with a copy of the first length bytes of from. */
    bool assign(const unsigned char* from, size_t length);
    /* Takes other's contents, leaving it empty. */
    void swap(RBytes& other);
    void clear();

  private:
    static constexpr size_t inline_capacity = 96;
    unsigned char inline_[inline_capacity] = {};
    unsigned char* heap_ = nullptr;
    size_t size_ = 0;
};

#endif
