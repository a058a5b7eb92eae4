// main.cpp - installs the drivers once, then plays the scenes.
#include <stdio.h>

#include <exception>

#include <gtest/gtest.h>

#include "install.h"

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    setvbuf(stdout, nullptr, _IONBF, 0); // nothing is lost when a scene hangs
    try {
        InstallFilter();
        InstallTestDrivers();
    } catch (const std::exception& fault) {
        fprintf(stderr, "test-pnp: %s\n", fault.what());
        return 1;
    }
    return RUN_ALL_TESTS();
}
