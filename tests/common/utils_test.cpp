#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include <unistd.h>

#include "common/utils.h"
#include "framework/clock.h"
#include "tests/support/log_capture.h"
#include "tests/support/moved_time.h"

namespace
{
const char kAbsent[] = "no-such-if0";

TEST(UtilsInterfaceTest, LoopbackIsFoundAndAnAbsentInterfaceHasTheStatedDefaults)
{
    char szIp[16];
    UInt32 u32Ip = 1;
    ASSERT_TRUE(GetLocalIPStr("lo", szIp));
    EXPECT_STREQ(szIp, "127.0.0.1");
    EXPECT_EQ(GetLocalIP("lo"), 0x7F000001U);
    ASSERT_TRUE(GetLocalIPStr(kAbsent, szIp));
    EXPECT_STREQ(szIp, "0.0.0.0");
    ASSERT_TRUE(GetLocalIP(kAbsent, &u32Ip));
    EXPECT_EQ(u32Ip, 0U);

    testing::internal::CaptureStdout();
    ASSERT_TRUE(GetLocalBcastIPStr(kAbsent, szIp));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Get Local Bcast IP failed\n");
    EXPECT_STREQ(szIp, "255.255.255.255");
    EXPECT_EQ(GetLocalBcastIP(kAbsent), 0xFFFFFFFFU);
}

TEST(UtilsInterfaceTest, HardwareAddress)
{
    CLogCapture objLog;
    UInt8 u8Mac[7] = {9, 9, 9, 9, 9, 9, 9};
    EXPECT_EQ(getMac(u8Mac, "lo"), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(u8Mac), 7), std::string("\0\0\0\0\0\0\t", 7));
    EXPECT_EQ(getMac(nullptr, "lo"), -1);
    EXPECT_EQ(getMac(u8Mac, nullptr), -1);
    EXPECT_EQ(objLog.Lines().size(), 0U);
    EXPECT_EQ(getMac(u8Mac, kAbsent), -1);
    EXPECT_EQ(getMac(u8Mac, std::string(5000, 'l').c_str()), -1);
    EXPECT_EQ(objLog.Count("ERROR getMac ioctl error --["), 2);
}

TEST(UtilsMulticastTest, OwnGroupIsAppended)
{
    CLogCapture objLog;
    std::string strIp = "x";
    EXPECT_EQ(get_multicast_ip(strIp, "lo"), 0);
    EXPECT_EQ(get_multicast_ip(strIp, "lo"), 0);
    EXPECT_EQ(get_multicast_ip(strIp, kAbsent), -1);
    EXPECT_EQ(strIp, "x234.24.0.0234.24.0.0");
    EXPECT_TRUE(objLog.Has("ERROR get_multicast_ip error --["));
}

TEST(UtilsMulticastTest, GroupsFromIds)
{
    struct {
        const char *pId;
        const char *pOwn;
        UInt8 u8Index;
        const char *pIndexed;
    } stRows[] = {
        {"0a1b2c3d4e5f", "234.29.78.95", 2, "224.45.78.95"},
        {"0A1B2C3D4E5F", "234.29.78.95", 16, "224.13.78.95"},
        {"000000ffffff", "234.31.255.255", 255, "224.255.255.255"},
        {"zzzzzzzzzzzz", "234.24.0.0", 1, "224.16.0.0"},
        {"000000-1-1-1", "234.31.255.255", 0, "224.15.255.255"},
    };
    for (const auto &stRow : stRows) {
        std::string strIp;
        char szIp[17] = {};
        szIp[16] = '#';
        EXPECT_EQ(get_multicast_ip_by_id(strIp, stRow.pId), 0);
        EXPECT_EQ(strIp, stRow.pOwn);
        EXPECT_EQ(MakeMulticastIP(stRow.pId, stRow.u8Index, szIp), szIp);
        EXPECT_STREQ(szIp, stRow.pIndexed);
        EXPECT_EQ(szIp[16], '#');
    }
    CLogCapture objLog;
    std::string strIp;
    for (const char *pId :
         {"", "0a1b2c3d4e5", "0a1b2c3d4e5f0", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(get_multicast_ip_by_id(strIp, pId), -1);
    }
    EXPECT_EQ(strIp, "");
    EXPECT_EQ(objLog.Count("ERROR input param err --["), 4);
    char szIp[16];
    EXPECT_DEATH(MakeMulticastIP("0a1b2c3d4e5", 1, szIp), "Assertion");
}

TEST(UtilsMulticastTest, IdsOfAnAddressList)
{
    struct {
        const char *pList;
        SInt32 s32Max;
        UInt8 u8Index;
        std::string strExpected; /* "id=address" of each row, blanks between */
    } stRows[] = {
        {"0a1b2c3d4e5f:5000;0a1b2c3d4e60:5000", 4, 0,
         "0a1b2c3d4e5f=224.45.78.95 0a1b2c3d4e60=224.45.78.96 "},
        {"0a1b2c3d4e5f:5000", 4, 0, "0a1b2c3d4e5f=224.29.78.95 "},
        {"0a1b2c3d4e5f:5000;0a1b2c3d4e60:5000", 1, 0, "0a1b2c3d4e5f=224.29.78.95 "},
        {"0a1b2c3d4e5f:5000", 4, 7, "0a1b2c3d4e5f=224.125.78.95 "},
        {"abc:0a1b2c3d4e5f", 4, 0, ""},
        {"0a1b2c3d4e5f;", 4, 0, "0a1b2c3d4e5f=224.29.78.95 "},
        {";;0a1b2c3d4e5;name-0a1b2c3d4e5f", 4, 0, "0a1b2c3d4e5f=224.29.78.95 "},
        {"a:b:0a1b2c3d4e5f:x:0a1b2c3d4e60:", 4, 0, "0a1b2c3d4e60=224.29.78.96 "},
        {"0a1b2c3d4e5f", 0, 0, ""},
        {nullptr, 4, 0, ""},
        {"", 4, 0, ""},
    };
    for (const auto &stRow : stRows) {
        char szAddrs[5][32] = {};
        char szIds[5][13] = {};
        szIds[stRow.s32Max][0] = '#';
        SInt32 s32Count =
            GetMulticastIPAddrs(stRow.pList, szAddrs, szIds, stRow.s32Max, stRow.u8Index);
        std::string strGot;
        for (SInt32 i = 0; i < s32Count; i++) {
            strGot += std::string(szIds[i]) + "=" + szAddrs[i] + " ";
        }
        EXPECT_EQ(strGot, stRow.strExpected) << stRow.pList;
        EXPECT_EQ(szIds[stRow.s32Max][0], '#');
    }
}

TEST(UtilsMulticastTest, SourceNames)
{
    CLogCapture objLog;
    char szNames[4][32];
    const std::string str31(31, 'a');
    const std::string strList = "name-0a1b2c3d4e5f:80;" + str31 + ";" + str31 +
                                "b;12345678901;1234567890:12345;0a1b2c3d4e60;0a1b2c3d4e61";
    memset(szNames, '#', sizeof(szNames));
    ASSERT_EQ(GetSrcName(strList.c_str(), szNames, 3), 3);
    EXPECT_STREQ(szNames[0], "name-0a1b2c3d4e5f");
    EXPECT_EQ(szNames[1], str31);
    EXPECT_STREQ(szNames[2], "0a1b2c3d4e60");
    EXPECT_EQ(szNames[3][0], '#');
    EXPECT_EQ(objLog.Count("INFO got a SRC: "), 3);
    EXPECT_TRUE(objLog.Has("INFO got a SRC: name-0a1b2c3d4e5f --["));
    EXPECT_EQ(GetSrcName(nullptr, szNames, 3), 0);
    EXPECT_EQ(GetSrcName(strList.c_str(), szNames, 0), 0);
}

TEST(UtilsTextTest, OnlyRunsOfExactlyTwelveDigitsAreIds)
{
    struct {
        const char *pText;
        SInt32 s32Count;
    } stRows[] = {
        {"0a1b2c3d4e5f;0a1b2c3d4e5", 1},
        {"0a1b2c3d4e5f0", 0},
        {"g0A1B2C3D4E5Fg", 1},
        {"0a1b2c3d4e5f 0a1b2c3d4e60,0a1b2c3d4e6100 aabbccddeeff", 3},
        {"\xff\x80"
         "0a1b2c3d4e5f",
         1},
        {"", 0},
    };
    for (const auto &stRow : stRows) {
        EXPECT_EQ(get_num_mac(stRow.pText), stRow.s32Count) << stRow.pText;
    }
    char szRows[3][32] = {};
    EXPECT_EQ(get_mac_addr("0a1b2c3d4e5f;0a1b2c3d4e60", 1, szRows), 1);
    EXPECT_STREQ(szRows[0], "0a1b2c3d4e5f");
    EXPECT_STREQ(szRows[1], "");
    memset(szRows, '#', sizeof(szRows));
    EXPECT_EQ(get_mac_addr("x0a1b2c3d4e5f;0a1b2c3d4e60", 3, szRows), 2);
    EXPECT_EQ(std::string(szRows[1], 13), "0a1b2c3d4e60#");

    CLogCapture objLog;
    EXPECT_EQ(get_num_mac(nullptr), -1);
    EXPECT_TRUE(objLog.Has("ERROR get_num_src para err --["));
    EXPECT_EQ(get_mac_addr(nullptr, 3, szRows), -1);
    EXPECT_TRUE(objLog.Has("ERROR get_num_addr para <3> err --["));
    EXPECT_EQ(get_mac_addr("", -2, szRows), -1);
    EXPECT_TRUE(objLog.Has("ERROR get_num_addr para <-2> err --["));
    EXPECT_EQ(get_mac_addr("0a1b2c3d4e5f", 0, szRows), 0);
    EXPECT_TRUE(objLog.Has("WARN get_num_addr para <0> --["));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(mac_char_check(nullptr));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "mac_char_check para err");
}

TEST(UtilsFileTest, VersionIsTheFirstLineBoundToTheBuffer)
{
    const std::string strPath = testing::TempDir() + "version." + std::to_string(getpid());
    struct {
        const char *pContents; /* null: no such file */
        int s32Len;
        const char *pExpected;
    } stRows[] = {
        {"1.2.3\nsecond\n", 16, "1.2.3"},
        {"1.2.3", 16, "1.2.3"},
        {"1.2.3\n", 4, "1.2"},
        {"\n\n", 16, ""},
        {"", 16, ""},
        {"1.2.3\n", 1, ""},
        {nullptr, 16, "before"},
    };
    for (const auto &stRow : stRows) {
        unlink(strPath.c_str());
        if (stRow.pContents != nullptr) {
            std::ofstream(strPath) << stRow.pContents;
        }
        char szVersion[16] = "before";
        EXPECT_EQ(GetLocalDevVersion(szVersion, stRow.s32Len, strPath.c_str()), 1);
        EXPECT_STREQ(szVersion, stRow.pExpected);
    }
    unlink(strPath.c_str());
    CLogCapture objLog;
    char szVersion[4];
    EXPECT_EQ(GetLocalDevVersion(nullptr, 4), 0);
    EXPECT_EQ(GetLocalDevVersion(szVersion, 0), 0);
    EXPECT_EQ(objLog.Count("ERROR input version addr is null or len is 0\n --["), 2);
}

TEST(UtilsFileTest, RecordDirAndFileTypes)
{
    char szDir[12];
    memset(szDir, '#', sizeof(szDir));
    EXPECT_EQ(GetRecordDir(szDir, 5), 1);
    EXPECT_STREQ(szDir, "/mnt");
    EXPECT_EQ(szDir[5], '#');
    EXPECT_EQ(GetRecordDir(szDir, 12), 1);
    EXPECT_EQ(std::string(szDir, 12), std::string("/mnt/REC/\0\0\0", 12));
    EXPECT_EQ(GetRecordDir(szDir, 1), 0);
    EXPECT_EQ(GetRecordDir(nullptr, 12), 0);
    EXPECT_TRUE(IS_DIR("/"));
    EXPECT_FALSE(IS_FILE("/"));
    EXPECT_TRUE(IS_FILE("/proc/self/exe"));
    EXPECT_FALSE(IS_DIR("/proc/self/exe"));
    EXPECT_FALSE(IS_FILE("/no/such"));
    EXPECT_FALSE(IS_DIR(nullptr));
}

TEST(UtilsSortTest, DifferenceWrapsInsteadOfOverflowing)
{
    SInt32 s32Values[] = {3, -5, 0, 12, 7};
    qsort(s32Values, 5, sizeof(SInt32), cmp_asc);
    EXPECT_TRUE(std::is_sorted(s32Values, s32Values + 5));
    qsort(s32Values, 5, sizeof(SInt32), cmp_desc);
    EXPECT_TRUE(std::is_sorted(s32Values, s32Values + 5, std::greater<>()));
    SInt32 s32Min = INT_MIN;
    SInt32 s32One = 1;
    EXPECT_EQ(cmp_asc(&s32Min, &s32One), INT_MAX);
}

TEST(UtilsDelayTest, NeverShorterThanAskedAndAtOnceOutOfRange)
{
    SInt64 s64Begin = GetTimeInMcros();
    delay_microsecond(25000);
    EXPECT_GE(GetTimeInMcros() - s64Begin, 25000);
    s64Begin = GetTimeInMcros();
    busy_delay(3);
    EXPECT_GE(GetTimeInMcros() - s64Begin, 3000);
    s64Begin = GetTimeInMcros();
    delay_microsecond_busy(700);
    EXPECT_GE(GetTimeInMcros() - s64Begin, 700);
    {
        /* The longest delay there is, while the clock is moved past it. */
        std::atomic<bool> bDone{false};
        std::thread objMover([&] {
            while (!bDone) {
                moved_time::Advance(2147482);
                std::this_thread::yield();
            }
        });
        busy_delay(2147482);
        bDone = true;
        objMover.join();
    }
    s64Begin = GetTimeInMcros();
    busy_delay(2147483);
    busy_delay(INT_MIN);
    delay_microsecond(INT_MIN);
    delay_microsecond_busy(0);
    testing::internal::CaptureStdout();
    delay_millisecond_10();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_LT(GetTimeInMcros() - s64Begin, 20000000);
}

TEST(UtilsShellTest, StatusIsTheRawWaitStatus)
{
    CLogCapture objLog;
    EXPECT_EQ(system_vfork("exit 3"), 768);
    EXPECT_TRUE(objLog.Has("INFO my_system cmd<exit 3> status = 768 --["));
    EXPECT_EQ(system_vfork("kill -9 $$"), 9);
    EXPECT_EQ(system_vfork("test \"$0\" = sh"), 0);
    EXPECT_EQ(system_vfork(nullptr), 1);
    EXPECT_EQ(objLog.Count("my_system"), 3);
}
} // namespace
