// Every test process runs with LC_ALL=C and a HOME of its own, removed at the end.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tests/support/support.h"

int main(int argc, char** argv) {
    setenv("LC_ALL", "C", 1);
    kvotest::TempDir home;
    setenv("HOME", home.path().c_str(), 1);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
