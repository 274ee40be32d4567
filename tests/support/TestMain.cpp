// The main of every test binary. Tests run on the process's initial thread, which is the
// library's main thread, so main-queue tests pump RunLoop from the test body.
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    // Death tests fork a process that may run threads; the threadsafe style re-executes the
    // binary instead of forking a multi-threaded one.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
