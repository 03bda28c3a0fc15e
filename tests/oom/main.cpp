// The allocator must be in place before OpenSSL's first allocation.
#include <cstdio>

#include <gtest/gtest.h>

#include "openssl_allocator.h"

int main(int argc, char** argv) {
    if (!qxtest::install_openssl_allocator()) {
        std::fprintf(stderr, "OpenSSL allocated before its allocator could be replaced\n");
        return 1;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
