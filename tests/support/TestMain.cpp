#include <gtest/gtest.h>

#include <csignal>

int main(int argc, char** argv) {
    // Sends to a peer that has gone must fail with EPIPE in the tests, not end the process.
    signal(SIGPIPE, SIG_IGN);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
