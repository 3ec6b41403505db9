/*
 * Entry of every unit test program: the framework is set up as the daemon does it.
 */
#include <gtest/gtest.h>

#include "framework/thread.h"

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CThread::Initialize(0x80000);
    return RUN_ALL_TESTS();
}
