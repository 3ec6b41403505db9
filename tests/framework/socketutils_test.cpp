#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>

#include <arpa/inet.h>

#include "framework/socketutils.h"
#include "tests/support/private_net.h"

namespace
{
TEST(SocketUtilsTest, ConversionsAndTheMulticastRange)
{
    struct {
        const char *pText;
        UInt32 u32Addr;
        bool bMulticast;
    } const stCases[] = {
        {"0.0.0.0", 0, false},
        {"14.0.0.0", 0x0E000000, false},
        {"127.0.0.1", 0x7F000001, false},
        {"223.255.255.255", 0xDFFFFFFF, false},
        {"224.0.0.0", 0xE0000000, true},
        {"239.255.255.255", 0xEFFFFFFF, true},
        {"240.0.0.0", 0xF0000000, false},
        {"255.255.255.255", 0xFFFFFFFF, false},
    };
    for (const auto &stCase : stCases) {
        SCOPED_TRACE(stCase.pText);
        EXPECT_EQ(CSocketUtils::ConvertStringToAddr(stCase.pText), stCase.u32Addr);
        EXPECT_EQ(CSocketUtils::IsMulticastIPAddr(stCase.u32Addr), stCase.bMulticast);
        char szBuffer[16];
        CPLString objText(szBuffer, 0);
        CSocketUtils::ConvertAddrToString({htonl(stCase.u32Addr)}, &objText);
        EXPECT_TRUE(objText.Equal(stCase.pText));
        EXPECT_STREQ(szBuffer, stCase.pText);
    }
    EXPECT_EQ(CSocketUtils::ConvertStringToAddr(nullptr), 0u);
    for (const char *pText : {"", "300.1.1.1", "encoder"}) {
        EXPECT_EQ(CSocketUtils::ConvertStringToAddr(pText), 0xFFFFFFFF) << pText;
    }
}

class CAddrTableTest : public CPrivateNetTest, public testing::WithParamInterface<int>
{
};

/* The system fills 2048 bytes with 51 whole records of 40 bytes and leaves the rest out. */
TEST_P(CAddrTableTest, HoldsTheHostsAddressesLoopbackNotFirst)
{
    EXPECT_FALSE(CSocketUtils::IsLocalIPAddr(0x7F000001));
    for (int i = 1; i <= GetParam(); i++) {
        const std::string strNumber = std::to_string(i);
        const std::string strCommand = "ip addr add 10.0.0." + strNumber + " dev lo label lo:";
        ASSERT_EQ(system((strCommand + strNumber).c_str()), 0);
    }
    CSocketUtils::Initialize(false);
    CSocketUtils::Initialize(false);
    UInt32 u32Expected = static_cast<UInt32>(std::min(GetParam() + 1, 51));
    ASSERT_EQ(CSocketUtils::GetNumIPAddrs(), u32Expected);

    std::set<UInt32> u32Seen;
    for (UInt32 i = 0; i < u32Expected; i++) {
        UInt32 u32Addr = CSocketUtils::GetIPAddr(i);
        u32Seen.insert(u32Addr);
        EXPECT_TRUE(CSocketUtils::IsLocalIPAddr(u32Addr));
        const char *pText = inet_ntoa({htonl(u32Addr)});
        EXPECT_TRUE(CSocketUtils::GetIPAddrStr(i)->Equal(pText)) << i;
        EXPECT_TRUE(CSocketUtils::GetDNSNameStr(i)->Equal(pText)) << i;
    }
    EXPECT_EQ(u32Seen.size(), u32Expected);
    EXPECT_EQ(CSocketUtils::GetIPAddr(u32Expected > 1 ? 1 : 0), 0x7F000001U);
    EXPECT_FALSE(CSocketUtils::IsLocalIPAddr(0x0A0000FF));
    EXPECT_DEATH(CSocketUtils::GetIPAddr(u32Expected), "i_u32AddrIndex < s_u32NumIPAddrs");
    EXPECT_DEATH(CSocketUtils::GetDNSNameStr(u32Expected), "i_u32DNSIndex < s_u32NumIPAddrs");
}
INSTANTIATE_TEST_SUITE_P(Addresses, CAddrTableTest, testing::Values(0, 1, 60));
} // namespace
