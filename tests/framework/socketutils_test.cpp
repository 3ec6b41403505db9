#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>

#include <arpa/inet.h>

#include "framework/socketutils.h"
#include "tests/support/private_net.h"

namespace
{
TEST(SocketUtilsTest, Conversions)
{
    struct {
        const char *pText;
        UInt32 u32Addr;
    } const stCases[] = {
        {nullptr, 0},
        {"0.0.0.0", 0},
        {"127.0.0.1", 0x7F000001},
        {"239.1.1.1", 0xEF010101},
        {"255.255.255.254", 0xFFFFFFFE},
        {"", 0xFFFFFFFF},
        {"300.1.1.1", 0xFFFFFFFF},
        {"encoder", 0xFFFFFFFF},
    };
    for (const auto &stCase : stCases) {
        EXPECT_EQ(CSocketUtils::ConvertStringToAddr(stCase.pText), stCase.u32Addr);
    }
    char szBuffer[16];
    CPLString objText(szBuffer, 0);
    for (const char *pText : {"255.255.255.255", "1.2.3.4", "192.168.100.200"}) {
        struct in_addr stAddr = {inet_addr(pText)};
        CSocketUtils::ConvertAddrToString(stAddr, &objText);
        EXPECT_TRUE(objText.Equal(pText)) << pText;
        EXPECT_STREQ(szBuffer, pText);
    }
}

TEST(SocketUtilsTest, MulticastRange)
{
    for (UInt32 u32Addr : {0xE0000000U, 0xE0000001U, 0xEFFFFFFFU}) {
        EXPECT_TRUE(CSocketUtils::IsMulticastIPAddr(u32Addr));
    }
    for (UInt32 u32Addr : {0U, 0x0E000000U, 0xDFFFFFFFU, 0xF0000000U, 0xFFFFFFFFU}) {
        EXPECT_FALSE(CSocketUtils::IsMulticastIPAddr(u32Addr));
    }
}

class CAddrTableTest : public CPrivateNetTest, public testing::WithParamInterface<int>
{
};

/* The system fills 2048 bytes with 51 whole records of 40 bytes and leaves the rest out. */
TEST_P(CAddrTableTest, HoldsTheHostsAddressesLoopbackNotFirst)
{
    int s32Added = GetParam();
    for (int i = 1; i <= s32Added; i++) {
        const std::string strNumber = std::to_string(i);
        const std::string strCommand = "ip addr add 10.0.0." + strNumber + " dev lo";
        ASSERT_EQ(system((strCommand + " label lo:" + strNumber).c_str()), 0);
    }
    CSocketUtils::Initialize(false);
    CSocketUtils::Initialize(false);
    UInt32 u32Expected = static_cast<UInt32>(std::min(s32Added + 1, 51));
    ASSERT_EQ(CSocketUtils::GetNumIPAddrs(), u32Expected);

    std::set<UInt32> u32Seen;
    for (UInt32 i = 0; i < u32Expected; i++) {
        UInt32 u32Addr = CSocketUtils::GetIPAddr(i);
        u32Seen.insert(u32Addr);
        EXPECT_TRUE(CSocketUtils::IsLocalIPAddr(u32Addr));
        struct in_addr stAddr = {htonl(u32Addr)};
        EXPECT_TRUE(CSocketUtils::GetIPAddrStr(i)->Equal(inet_ntoa(stAddr))) << i;
        EXPECT_TRUE(CSocketUtils::GetDNSNameStr(i)->Equal(inet_ntoa(stAddr))) << i;
    }
    EXPECT_EQ(u32Seen.size(), u32Expected);
    EXPECT_EQ(CSocketUtils::GetIPAddr(u32Expected > 1 ? 1 : 0), 0x7F000001U);
    EXPECT_FALSE(CSocketUtils::IsLocalIPAddr(0x0A0000FF));
    EXPECT_DEATH(CSocketUtils::GetIPAddr(u32Expected), "i_u32AddrIndex < s_u32NumIPAddrs");
    EXPECT_DEATH(CSocketUtils::GetDNSNameStr(u32Expected), "i_u32DNSIndex < s_u32NumIPAddrs");
}
INSTANTIATE_TEST_SUITE_P(Addresses, CAddrTableTest, testing::Values(0, 1, 50, 60));

TEST(SocketUtilsTest, WithoutATableNoAddressIsLocal)
{
    EXPECT_EQ(CSocketUtils::GetNumIPAddrs(), 0U);
    EXPECT_FALSE(CSocketUtils::IsLocalIPAddr(0x7F000001));
}
} // namespace
