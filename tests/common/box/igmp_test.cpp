#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <net/ethernet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/box/igmp.h"
#include "tests/support/loopback.h"
#include "tests/support/private_net.h"

namespace
{
using CReport = std::array<UInt8, 28>;

/* 192.168.1.10 reports 239.1.1.1 with the identification 0x1234. */
constexpr CReport kReport = {0x45, 0x00, 0x1C, 0x00, 0x12, 0x34, 0x00, 0x00, 0x01, 0x02,
                             0xDA, 0x13, 0xC0, 0xA8, 0x01, 0x0A, 0xEF, 0x01, 0x01, 0x01,
                             0x16, 0x00, 0xF9, 0xFC, 0xEF, 0x01, 0x01, 0x01};

TEST(IgmpTest, ReportBytes)
{
    CReport aPacket;
    CIGMP::BuildReport(0xC0A8010A, 0xEF010101, 0x1234, aPacket.data());
    EXPECT_EQ(aPacket, kReport);
}

TEST(IgmpTest, CheckSumInMemoryOrder)
{
    struct {
        std::vector<UInt8> u8Data;
        UInt16 u16Expected; /* as the bytes in memory, high byte first */
    } const stCases[] = {
        {{}, 0xFFFF},
        {{0x00, 0x01, 0xF2, 0x03, 0xF4, 0xF5, 0xF6, 0xF7}, 0x220D}, /* the RFC's own example */
        {{0x12, 0x34, 0x56}, 0x97CB},                               /* an odd byte is a high one */
        {{0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0x00}, 0xFEFF},             /* and one out of a carry too */
        {std::vector<UInt8>(65536, 0xFF), 0x0000},                  /* as do many */
    };
    for (const auto &stCase : stCases) {
        std::vector<UInt8> u8Shifted(stCase.u8Data.size() + 1);
        std::copy(stCase.u8Data.begin(), stCase.u8Data.end(), u8Shifted.begin() + 1);
        EXPECT_EQ(CIGMP::CheckSum(u8Shifted.data() + 1, stCase.u8Data.size()),
                  htons(stCase.u16Expected))
            << stCase.u8Data.size();
    }
}

/* The lowest free descriptor: unchanged if whatever was opened is closed. */
int NextDescriptor()
{
    return UniqueFd(dup(0)).Get();
}

using CIgmpNetTest = CPrivateNetTest;
TEST_F(CIgmpNetTest, TheSameReportLeavesEachTime)
{
    const UniqueFd objPackets(socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_IP)));
    int s32Before = NextDescriptor();
    {
        CIGMP objIgmp;
        objIgmp.Open("10.1.2.3", "239.1.1.1");
        objIgmp.Open("127.0.0.1", "239.1.1.1");
        EXPECT_EQ(NextDescriptor(), s32Before + 1);
        objIgmp.MemberShip();
        const std::string strFirst = ReceiveLoopback(objPackets.Get(), 5000);
        objIgmp.MemberShip();
        ASSERT_EQ(strFirst.size(), 28U);
        EXPECT_EQ(strFirst, ReceiveLoopback(objPackets.Get(), 5000));

        EXPECT_EQ(strFirst.substr(8, 2), std::string("\1\2", 2)); /* lifetime, protocol */
        EXPECT_EQ(strFirst.substr(12),
                  std::string("\x7F\0\0\1\xEF\1\1\1\x16\0\xF9\xFC\xEF\1\1\1", 16));

        objIgmp.Open("127.0.0.1", "192.168.1.1");
        EXPECT_EQ(NextDescriptor(), s32Before);
        objIgmp.MemberShip();
        objIgmp.Open(nullptr, nullptr);
        objIgmp.MemberShip();
        EXPECT_EQ(ReceiveLoopback(objPackets.Get(), 50), "none");
        objIgmp.Open(0x7F000001, 0xE0000001);
        EXPECT_EQ(NextDescriptor(), s32Before + 1);
    }
    EXPECT_EQ(NextDescriptor(), s32Before);
}

} // namespace
