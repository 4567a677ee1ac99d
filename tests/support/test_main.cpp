// The main of every test program: the private network first, then the tests.
// Nothing a test sends can leave this process's own loopback.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "kvthost.h"

int main(int argc, char **argv) {
    std::string error;
    if (!kvthost::EnterPrivateNetwork(&error)) {
        std::fprintf(stderr, "cannot enter the private network: %s\n", error.c_str());
        return 2;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
