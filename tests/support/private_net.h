/*
 * A network of the test process's own, for tests whose packets must not leave the machine.
 */
#pragma once

#include <string>

#include <gtest/gtest.h>

/* Moves the calling process, which has one thread, into a new network namespace and brings its
 * loopback interface up, with the route of the multicast groups. Empty, or the reason why it is not
 * possible. */
std::string EnterPrivateNetwork();

/* Each case has such a network, or is skipped with the reason. */
class CPrivateNetTest : public testing::Test
{
protected:
    void SetUp() override
    {
        const std::string strReason = EnterPrivateNetwork();
        if (!strReason.empty()) {
            GTEST_SKIP() << strReason;
        }
    }
};
