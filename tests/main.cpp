#include <gtest/gtest.h>

#include <csignal>

int main(int argc, char** argv) {
    // Feeding standard input to a program that exits early must not kill the suite.
    signal(SIGPIPE, SIG_IGN);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
