#include <gtest/gtest.h>

#include <csignal>
#include <thread>

int main(int argc, char** argv) {
    // Sends to a peer that has gone must fail with EPIPE in the tests, not end the process.
    signal(SIGPIPE, SIG_IGN);
    // ThreadSanitizer starts a helper thread of its own with the first thread a program makes;
    // make it now so that the per-test thread count does not see it.
    std::thread([] {}).join();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
