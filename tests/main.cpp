// The main function of every test program. Tests write to the daemon's real paths in /etc, /var and
// /run, so they run only as process 1 of the private root that tests/sandbox makes.
#include <stdio.h>
#include <unistd.h>

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    if (getpid() != 1) {
        fprintf(stderr, "tests write to /etc, /var and /run: run tests/sandbox %s\n", argv[0]);
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
