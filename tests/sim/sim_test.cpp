#include <algorithm>

#include <gtest/gtest.h>

#include "sim/receive/rtp_counter.h"
#include "sim/receive/screen.h"
#include "sim/uevent/uevent.h"

namespace
{
TEST(SimUeventTest, ReadsATimingAsAPersonSaysIt)
{
    static const struct {
        const char *pSaid;
        const char *pEvent; /* null: refused */
    } kCases[] = {
        {"1920x1080@60-0", "1920x1080@60-0"},
        {"1280x720@50", "1280x720@50-0"},
        {"1080p60", "1920x1080@60-0"},
        {"1080i50", "1920x1080@50-1"},
        {"", nullptr},
        {"1920x1080", nullptr},
        {"1920x1080@60-", nullptr},
        {"99999999999x1080@60", nullptr},
        {"1080q60", nullptr},
    };
    for (const auto &stCase : kCases) {
        std::string strEvent = "untouched";
        EXPECT_EQ(TimingToEvent(stCase.pSaid, &strEvent), stCase.pEvent != nullptr) << stCase.pSaid;
        EXPECT_EQ(strEvent, stCase.pEvent == nullptr ? "untouched" : stCase.pEvent) << stCase.pSaid;
    }
}

void AddPacket(CRtpCounter *io_pCounter, UInt16 i_u16Number, UInt8 i_u8Source = 1)
{
    UInt8 u8Packet[20] = {0x80, 96, static_cast<UInt8>(i_u16Number >> 8),
                          static_cast<UInt8>(i_u16Number)};
    u8Packet[11] = i_u8Source;
    io_pCounter->Add(u8Packet, sizeof(u8Packet));
}

TEST(SimRtpTest, CountsGapsOverTheNumbersEnd)
{
    CRtpCounter objCounter;
    for (const UInt16 u16Number : {65533, 65534, 1, 2}) {
        AddPacket(&objCounter, u16Number);
    }
    EXPECT_EQ(objCounter.Counts().u64Lost, 2U); /* 65535 and 0 */
    AddPacket(&objCounter, 0);
    EXPECT_EQ(objCounter.Counts().u64Lost, 1U);
    EXPECT_EQ(objCounter.Counts().u64Late, 1U);
    AddPacket(&objCounter, 2); /* a copy fills no gap */
    EXPECT_EQ(objCounter.Counts().u64Lost, 1U);
    EXPECT_EQ(objCounter.Counts().u64Late, 2U);
    EXPECT_EQ(objCounter.Counts().u64Packets, 6U);
    EXPECT_EQ(objCounter.Counts().u64Bytes, 120U);
    EXPECT_EQ(objCounter.Counts().u64Sessions, 1U);
}

TEST(SimRtpTest, ANewSourceIsNoGapAndNoiseIsNoPacket)
{
    CRtpCounter objCounter;
    AddPacket(&objCounter, 10, 1);
    AddPacket(&objCounter, 40000, 2);
    const UInt8 u8Noise[20] = {0x40};
    objCounter.Add(u8Noise, sizeof(u8Noise));
    objCounter.Add(u8Noise, 0);
    EXPECT_EQ(objCounter.Counts().u64Sessions, 2U);
    EXPECT_EQ(objCounter.Counts().u64Lost, 0U);
    EXPECT_EQ(objCounter.Counts().u64Malformed, 2U);
    EXPECT_EQ(objCounter.Counts().u64Packets, 2U);
}

TEST(SimScreenTest, FitsTheTerminalAndKeepsTheCommandWhole)
{
    SCREEN_S stScreen;
    stScreen.bHasDaemon = stScreen.bHasLog = stScreen.stProcess.bRuns = true;
    stScreen.strSettings = std::string(100, 's');
    stScreen.strHint = std::string(70, 'h');
    stScreen.stLog.strReceivers = "192.0.2.1:1,192.0.2.2:2,192.0.2.3:3,192.0.2.4:4";
    for (int i = 0; i < 9; i++) {
        ReadLogLine("2026-01-31 10:00:0" + std::to_string(i) + ".123 INFO   line --[a.cpp:1]",
                    &stScreen.stLog);
    }
    static const struct {
        TERMINAL_S stTerminal;
        size_t u64HintRows;
        bool bNewestLog, bPackets;
    } kCases[] = {
        {{80, 24, false}, 1, true, true},
        {{60, 24, false}, 2, true, true},
        {{60, 14, false}, 2, false, true},
        {{40, 8, false}, 2, false, false},
    };
    for (const auto &stCase : kCases) {
        const std::string strText = ScreenText(stScreen, stCase.stTerminal);
        const auto Shows = [&](const std::string &i_strText) {
            return strText.find(i_strText) != std::string::npos;
        };
        const auto u64Rows = static_cast<size_t>(std::count(strText.begin(), strText.end(), '\n'));
        EXPECT_LE(u64Rows + stCase.u64HintRows, stCase.stTerminal.u64Rows);
        EXPECT_TRUE(Shows("(Ctrl-C ends)") && Shows("Picture") && Shows(stScreen.strHint));
        EXPECT_EQ(Shows("10:00:08 INFO   line\033"), stCase.bNewestLog);
        EXPECT_EQ(Shows("Packets"), stCase.bPackets);
        EXPECT_EQ(
            std::count_if(strText.begin(), strText.end(), [](char i_cByte) { return i_cByte < 0; }),
            0);
    }
}

TEST(SimScreenTest, AReadOfTheSettingsIsNoFaultInTheLog)
{
    LOG_VIEW_S stLog;
    for (const char *pLine :
         {"boxes parse success, 92 bytes ",
          "set h264 enable:-1, gop:-1, mode:-1, bitrate:-1,  preview enable:-1, height:-1, "
          "refreshrate:-1",
          "cmd error", "set h264 enable:-1, gop:1, mode:-1, bitrate:-1,  preview enable:-1, ",
          "cmd error"}) {
        ReadLogLine(pLine, &stLog);
    }
    ASSERT_EQ(stLog.objLatest.size(), 2U);
    EXPECT_EQ(stLog.objLatest.back(), "cmd error");
}

} // namespace
