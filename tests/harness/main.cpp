// The main of the test binaries that run in a Java virtual machine.
#include <gtest/gtest.h>

#include "jvm.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new harness::JvmEnvironment);
    return RUN_ALL_TESTS();
}
