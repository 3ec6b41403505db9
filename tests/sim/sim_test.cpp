#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include <unistd.h>

#include "sim/gst/source_control.h"
#include "sim/receive/daemon_view.h"
#include "sim/receive/rtp_counter.h"
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
        {"1920x1080@30-1", "1920x1080@30-1"},
        {"1280x720@50", "1280x720@50-0"},
        {"0x0@0-0", "0x0@0-0"},
        {"1080p60", "1920x1080@60-0"},
        {"1080i50", "1920x1080@50-1"},
        {"576i50", "720x576@50-1"},
        {"", nullptr},
        {"1920x1080", nullptr},
        {"1920x1080@", nullptr},
        {"1920x1080@60-", nullptr},
        {"1920x1080@60-0 ", nullptr},
        {"-1920x1080@60-0", nullptr},
        {"99999999999x1080@60", nullptr},
        {"1081p60", nullptr},
        {"1080q60", nullptr},
        {"1080p0", nullptr},
        {"1080p60x", nullptr},
    };
    for (const auto &stCase : kCases) {
        std::string strEvent = "untouched";
        EXPECT_EQ(TimingToEvent(stCase.pSaid, &strEvent), stCase.pEvent != nullptr) << stCase.pSaid;
        EXPECT_EQ(strEvent, stCase.pEvent == nullptr ? "untouched" : stCase.pEvent) << stCase.pSaid;
    }
}

TEST(SimUeventTest, LaysTheEventOutLikeTheKernel)
{
    UeventVars objVars = BridgeEvent("1x2@3-4");
    SetVar(&objVars, "DEVPATH", "/d");
    SetVar(&objVars, "EXTRA", "");
    static const char kExpected[] = "change@/d\0ACTION=change\0DEVPATH=/d\0SUBSYSTEM=i2c\0"
                                    "DRIVER=tc358743\0EVENT=1x2@3-4\0EXTRA=";
    EXPECT_EQ(UeventPayload(objVars), std::string(kExpected, sizeof(kExpected)));
}

TEST(SimSourceTest, TakesOnlyWholeOrders)
{
    SIM_ORDER_S stOrder;
    for (const char *pLine :
         {"", "Run", "run ", "failure", "switch", "switch 1280x720", "switch 1280x720@60 now",
          "switch 0x720@60", "switch 1280x720@-1", "slow", "slow -1", "slow 5s", "slow 600001"}) {
        stOrder.eKind = SIM_ORDER_ABSENT;
        EXPECT_FALSE(ParseSimOrder(pLine, &stOrder)) << pLine;
        EXPECT_EQ(stOrder.eKind, SIM_ORDER_ABSENT) << pLine;
    }
    EXPECT_TRUE(ParseSimOrder("switch 1280x720@60", &stOrder));
    EXPECT_EQ(stOrder.eKind, SIM_ORDER_SWITCH);
    EXPECT_EQ(stOrder.s32Width, 1280);
    EXPECT_EQ(stOrder.s32Height, 720);
    EXPECT_EQ(stOrder.s32Fps, 60);
    EXPECT_TRUE(ParseSimOrder("slow 1500", &stOrder));
    EXPECT_EQ(stOrder.eKind, SIM_ORDER_SLOW);
    EXPECT_EQ(stOrder.s32Milliseconds, 1500);
    EXPECT_TRUE(ParseSimOrder("stall", &stOrder));
    EXPECT_EQ(stOrder.eKind, SIM_ORDER_STALL);
}

void AddPacket(CRtpCounter *io_pCounter, UInt16 i_u16Number, UInt8 i_u8Source = 1)
{
    const UInt8 u8Packet[20] = {0x80,
                                96,
                                static_cast<UInt8>(i_u16Number >> 8),
                                static_cast<UInt8>(i_u16Number),
                                0,
                                0,
                                0,
                                0,
                                0,
                                0,
                                0,
                                i_u8Source};
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

TEST(SimLogTest, TellsWhatTheDaemonLogged)
{
    LOG_VIEW_S stView;
    ReadLogLine("INFO input timing width:1920 height:1080 fps:60 interlaced:0, gst start:0 --[e:1]",
                &stView);
    EXPECT_EQ(stView.strTiming, "1920x1080, 60 frames/s, progressive");
    ReadLogLine("INFO addr list: 234.29.78.95:59202,127.0.0.1:12350 --[e:2]", &stView);
    EXPECT_EQ(stView.strReceivers, "234.29.78.95:59202,127.0.0.1:12350");
    ReadLogLine("INFO gst cmd [v4l2src ! x] in [gst-h264] --[g:1]", &stView);
    EXPECT_EQ(stView.strStream, "being built");
    ReadLogLine("INFO Let's run [gst-h264]! --[g:2]", &stView);
    EXPECT_EQ(stView.strStream, "running");
    EXPECT_EQ(stView.strPreview, "not started");
    ReadLogLine("ERROR Received error in [gst-h264] --[g:3]", &stView);
    ReadLogLine("INFO Going out [gst-h264] --[g:4]", &stView);
    EXPECT_EQ(stView.strStream, "ended by an error");
    ReadLogLine("INFO gstreamer stop gst-h264, old status:1 --[g:5]", &stView);
    ReadLogLine("INFO Going out [gst-h264] --[g:6]", &stView);
    EXPECT_EQ(stView.strStream, "stopped");
    ReadLogLine("ERROR pipeline could not be constructed: no element \"x\" in [gst-jpeg] --[g:7]",
                &stView);
    EXPECT_EQ(stView.strPreview, "could not be built");
    ReadLogLine("INFO input timing width:0 height:0 fps:0 interlaced:0, gst start:1 --[e:3]",
                &stView);
    EXPECT_EQ(stView.strTiming, "no signal");
    EXPECT_EQ(stView.objLatest.size(), 6U);
}

TEST(SimLogTest, FollowsAFileThatAppearsLateAndIsRolledOver)
{
    char szFolder[] = "/tmp/sim-log-XXXXXX";
    ASSERT_NE(mkdtemp(szFolder), nullptr);
    const std::string strFile = std::string(szFolder) + "/log";
    LOG_VIEW_S stView;
    {
        CLogTail objTail(strFile);
        objTail.Read(&stView);
        std::ofstream objLog(strFile);
        objLog << "one\ntw" << std::flush;
        objTail.Read(&stView);
        EXPECT_EQ(stView.objLatest, std::deque<std::string>({"one"}));
        objLog << "o\n" << std::flush;
        rename(strFile.c_str(), (strFile + ".1").c_str());
        objLog << "three\n" << std::flush;
        std::ofstream(strFile) << "four\n";
        objTail.Read(&stView);
        EXPECT_EQ(stView.objLatest, std::deque<std::string>({"one", "two", "three", "four"}));
    }
    unlink(strFile.c_str());
    unlink((strFile + ".1").c_str());
    rmdir(szFolder);
}
} // namespace
