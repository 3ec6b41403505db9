#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include <signal.h>

#include "common/box/utils_offered.h"
#include "framework/clock.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace
{
const char kAbsent[] = "no-such-if0";

TEST(UtilsInterfaceTest, LoopbackIsFoundAndAnAbsentInterfaceIsAnswered)
{
    CLogCapture objLog;
    char szIp[16];
    EXPECT_EQ(GetLocalIP("lo"), 0x7F000001U);
    ASSERT_TRUE(GetLocalIPStr(kAbsent, szIp));
    EXPECT_STREQ(szIp, "0.0.0.0");
    EXPECT_EQ(GetLocalBcastIP(kAbsent), 0xFFFFFFFFU);
    ASSERT_TRUE(GetLocalBcastIPStr("lo", szIp)); /* 0.0.0.0: shorter than what stood there before */
    EXPECT_EQ(memcmp(szIp, "0.0.0.0\0\0\0\0\0\0\0\0", 16), 0);

    UInt8 u8Mac[7] = {9, 9, 9, 9, 9, 9, 9};
    EXPECT_EQ(getMac(u8Mac, "lo"), 0);
    EXPECT_EQ(memcmp(u8Mac, "\0\0\0\0\0\0\t", 7), 0);
    EXPECT_EQ(getMac(nullptr, "lo"), -1);
    EXPECT_EQ(getMac(u8Mac, std::string(5000, 'l').c_str()), -1);
    std::string strIp = "x";
    EXPECT_EQ(get_multicast_ip(strIp, "lo"), 0);
    EXPECT_EQ(get_multicast_ip(strIp, kAbsent), -1);
    EXPECT_EQ(strIp, "x234.24.0.0");
    EXPECT_EQ(objLog.Count("ERROR getMac ioctl error --["), 2);
    EXPECT_EQ(objLog.Count("ERROR get_multicast_ip error --["), 1);
}

TEST(UtilsMulticastTest, GroupsFromIds)
{
    struct {
        const char *pId, *pOwn;
        UInt8 u8Index;
        const char *pIndexed;
    } stRows[] = {
        {"0a1b2c3d4e5f", "234.29.78.95", 2, "224.45.78.95"},
        {"0A1B2C3D4E5F", "234.29.78.95", 16, "224.13.78.95"},
        {"zzzzzz-1-1-1", "234.31.255.255", 0, "224.15.255.255"},
    };
    for (const auto &stRow : stRows) {
        std::string strIp;
        char szIp[17] = "################";
        EXPECT_EQ(get_multicast_ip_by_id(strIp, stRow.pId), 0);
        EXPECT_EQ(strIp, stRow.pOwn);
        EXPECT_STREQ(MakeMulticastIP(stRow.pId, stRow.u8Index, szIp), stRow.pIndexed);
    }
    std::string strIp;
    char szIp[16];
    EXPECT_EQ(get_multicast_ip_by_id(strIp, "0a1b2c3d4e5f0"), -1);
    EXPECT_DEATH(MakeMulticastIP("0a1b2c3d4e5", 1, szIp), "Assertion");
}

TEST(UtilsMulticastTest, AddressLists)
{
    const char kTwo[] = "0a1b2c3d4e5f:5000;0a1b2c3d4e60:5000";
    struct {
        const char *pList;
        SInt32 s32Max;
        UInt8 u8Index;
        const char *pExpected; /* "id=address" of each row */
    } stRows[] = {
        {kTwo, 4, 0, "0a1b2c3d4e5f=224.45.78.95 0a1b2c3d4e60=224.45.78.96 "},
        {kTwo, 1, 0, "0a1b2c3d4e5f=224.29.78.95 "},
        {"abc:0a1b2c3d4e5f", 4, 0, ""},
        {";;0a1b2c3d4e5;name-0a1b2c3d4e5f", 4, 0, "0a1b2c3d4e5f=224.29.78.95 "},
        {"a:b:0a1b2c3d4e5f:x:0a1b2c3d4e60:", 4, 0, "0a1b2c3d4e60=224.29.78.96 "},
    };
    for (const auto &stRow : stRows) {
        char szAddrs[4][32];
        char szIds[4][13];
        SInt32 s32Count =
            GetMulticastIPAddrs(stRow.pList, szAddrs, szIds, stRow.s32Max, stRow.u8Index);
        std::string strGot;
        for (SInt32 i = 0; i < s32Count; i++) {
            strGot += std::string(szIds[i]) + "=" + szAddrs[i] + " ";
        }
        EXPECT_EQ(strGot, stRow.pExpected);
    }
}

TEST(UtilsTextTest, OnlyRunsOfExactlyTwelveDigitsAreIds)
{
    EXPECT_EQ(get_num_mac("0a1b2c3d4e5f;0a1b2c3d4e5"), 1);
    EXPECT_EQ(get_num_mac("\xff\x80g0A1B2C3D4E5Fg 0a1b2c3d4e6100 aabbccddeeff"), 2);
    char szRows[2][32];
    memset(szRows, '#', sizeof(szRows));
    EXPECT_EQ(get_mac_addr("x0a1b2c3d4e5f;0a1b2c3d4e60", 1, szRows), 1);
    EXPECT_EQ(szRows[1][0], '#');
    EXPECT_EQ(get_mac_addr("x0a1b2c3d4e5f;0a1b2c3d4e60", 3, szRows), 2);
    EXPECT_EQ(std::string(szRows[1], 13), "0a1b2c3d4e60#");
}

TEST(UtilsFileTest, TextsAreBoundToTheBuffer)
{
    const CTempDir objDir;
    const std::string strPath = objDir.Path("version");
    auto Version = [&](int i_s32Len) {
        char szVersion[16] = "before";
        EXPECT_EQ(GetLocalDevVersion(szVersion, i_s32Len, strPath.c_str()), 1);
        return std::string(szVersion);
    };
    EXPECT_EQ(Version(16), "before") << "no file";
    WriteFile(strPath, "1.2.3\nsecond\n");
    EXPECT_EQ(Version(16), "1.2.3");
    EXPECT_EQ(Version(4), "1.2");
    WriteFile(strPath, "");
    EXPECT_EQ(Version(16), "");

    char szText[5] = "####";
    EXPECT_EQ(GetRecordDir(szText, 5), 1);
    EXPECT_STREQ(szText, "/mnt");
    EXPECT_EQ(GetRecordDir(szText, 1), 0);
}

TEST(UtilsDelayTest, NeverShorterThanAskedAndAtOnceOutOfRange)
{
    SInt64 s64Begin = GetTimeInMcros();
    delay_microsecond(25000);
    EXPECT_GE(GetTimeInMcros() - s64Begin, 25000);
    s64Begin = GetTimeInMcros();
    busy_delay(2147483);
    busy_delay(INT_MIN);
    delay_microsecond(INT_MIN);
    delay_millisecond_10();
    EXPECT_LT(GetTimeInMcros() - s64Begin, 20000000);
}

TEST(UtilsShellTest, StatusIsTheRawWaitStatus)
{
    EXPECT_EQ(system_vfork("exit 3"), 768);
    /* The daemon's sockets ignore it; the shell has it as it was. */
    signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(system_vfork("kill -PIPE $$"), SIGPIPE);
    EXPECT_EQ(system_vfork(nullptr), 1);
}
} // namespace
