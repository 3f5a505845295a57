// The entry of the end-to-end programs, which run only inside the sandbox.

#include <gtest/gtest.h>

#include "harness.h"

int main(int argc, char** argv) {
    // Outside the sandbox the daemon would reconfigure this machine.
    const char* token = std::getenv("CFGD_SANDBOX");
    if (token == nullptr || e2e::readFile("/etc/cfgd-sandbox") != std::string(token) + "\n") {
        std::fprintf(stderr, "%s: runs only inside the sandbox: sandbox/sandbox.sh test %s\n",
                     argv[0], argv[0]);
        return 2;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
