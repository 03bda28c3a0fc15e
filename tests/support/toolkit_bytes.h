// The toolkit's two-call encodings (length first, then the bytes) as one call.
#ifndef QXCRL_TESTS_SUPPORT_TOOLKIT_BYTES_H
#define QXCRL_TESTS_SUPPORT_TOOLKIT_BYTES_H

#include <gtest/gtest.h>

#include "test_pki.h"
#include "toolkit/r_toolkit.h"

namespace qxtest {

template <typename Object>
Bytes toolkit_bytes(Object* object, int (*encode)(Object*, uint32_t, unsigned char*, uint32_t*)) {
    uint32_t length = 0;
    EXPECT_EQ(encode(object, 0, nullptr, &length), R_ERROR_NONE);
    Bytes bytes(length);
    EXPECT_EQ(encode(object, length, bytes.data(), &length), R_ERROR_NONE);
    EXPECT_EQ(length, bytes.size());
    return bytes;
}

} // namespace qxtest

#endif
