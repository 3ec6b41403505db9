/* The way of a timing from the kernel to a picture at a receiver. */
#include <gtest/gtest.h>

#include <string>

#include "tests/system/box.h"

namespace
{
constexpr char kPlaying[] = "Let's run [gst-h264]! --[";

class StreamTest : public testing::Test
{
protected:
    /* A receiver that joins late waits for the next key frame. */
    void SetUp() override { WriteParams({{"h264_stream_gop", "10"}}); }

    static void ExpectPictures(const char *i_pWhat, int i_s32Width, int i_s32Height,
                               double i_f64Rate)
    {
        SCOPED_TRACE(i_pWhat);
        ExpectGroupStream(i_s32Width, i_s32Height, i_f64Rate);
    }
};

TEST_F(StreamTest, TimingsStartKeepChangeAndStopTheStream)
{
    CDaemon objDaemon;
    ASSERT_TRUE(objDaemon.WaitUntilUp());
    SendTiming("320x240@30-0");
    ASSERT_TRUE(objDaemon.WaitFor("gstreamer start ok --["));
    EXPECT_TRUE(objDaemon.WaitFor("multicast ip : 234.29.78.95  --["));
    EXPECT_TRUE(objDaemon.WaitFor("addr list: 234.29.78.95:59202,127.0.0.1:12350 --["));
    ExpectPictures("first timing", 320, 240, 30);

    SendTiming("320x240@30-0");
    ASSERT_TRUE(objDaemon.WaitFor("start gstreamer status:1 --["));
    ExpectPictures("same timing", 320, 240, 30);
    EXPECT_EQ(objDaemon.Count(kPlaying), 1);

    SendTiming("640x360@15-0");
    ASSERT_TRUE(objDaemon.WaitFor(kPlaying, 2));
    ExpectPictures("changed timing", 640, 360, 15);

    SendTiming("0x0@0-0");
    ASSERT_TRUE(objDaemon.WaitFor("Going out [gst-h264] --[", 2));
    EXPECT_TRUE(WaitUntil([] { return Receive(kGroup, kGroupPort, 1).s64Packets == 0; }));
    /* The preview is left alone by a lost signal; on a busy machine it is stopped for a stall. */
    const int s32Stopped = objDaemon.Count("gstreamer stop gst-jpeg, ");
    EXPECT_LE(s32Stopped, objDaemon.Count("we need stop gstreamer jpeg --["));

    SendTiming("640x360@15-0");
    ASSERT_TRUE(objDaemon.WaitFor(kPlaying, 3));
    SendTiming("640x360@15-1");
    ASSERT_TRUE(objDaemon.WaitFor("WARN interlaced not support --["));
    EXPECT_TRUE(objDaemon.WaitFor("Going out [gst-h264] --[", 3));
    SendTiming("640x360@15-0");
    ASSERT_TRUE(objDaemon.WaitFor(kPlaying, 4));
    ExpectPictures("after interlaced", 640, 360, 15);
}

TEST_F(StreamTest, ATimingBeforeTheEncoderIsReadyIsNotLost)
{
    CDaemon objDaemon;
    for (int i = 0; i < 200 && objDaemon.Count("input timing width:320") == 0; i++) {
        SendTiming("320x240@30-0");
    }
    EXPECT_TRUE(objDaemon.WaitFor(kPlaying));
    ExpectPictures("early timing", 320, 240, 30);
}

TEST_F(StreamTest, AbsurdTimingsAreSurvived)
{
    CDaemon objDaemon;
    ASSERT_TRUE(objDaemon.WaitUntilUp());
    const char *const kAbsurd[] = {"-2147483648x-2147483648@-2147483648-0",
                                   "99999999999999x99999999999@99999999999-0", "-1x-1@-1-0",
                                   "2147483647x1@2147483647-0", "1x2147483647@1-0"};
    int s32Timings = 0;
    for (const char *pTiming : kAbsurd) {
        RunToEnd({MV3300_SIM_UEVENT, "--raw", std::string("EVENT=") + pTiming});
        ASSERT_TRUE(objDaemon.WaitFor("INFO input timing ", ++s32Timings)) << pTiming;
    }
    /* The first two are no announcements, and the last one has no timing in it. */
    RunToEnd({MV3300_SIM_UEVENT, "1x1@1-0", "--raw", "SUBSYSTEM=usb"});
    RunToEnd({MV3300_SIM_UEVENT, "1x1@1-0", "--raw", "DRIVER=other"});
    RunToEnd({MV3300_SIM_UEVENT, "1x1@1-0", "--without", "EVENT"});
    ASSERT_TRUE(objDaemon.WaitFor("input timing width:0 height:0 fps:0 interlaced:0"));
    EXPECT_EQ(objDaemon.Count("INFO input timing "), s32Timings + 1);
    const int s32Played = objDaemon.Count(kPlaying);
    SendTiming("320x240@30-0");
    ASSERT_TRUE(objDaemon.WaitFor(kPlaying, s32Played + 1));
    ExpectPictures("after absurd timings", 320, 240, 30);
}

TEST_F(StreamTest, WithoutEth0TheGroupIsMissedAndItsReturnBringsTheStream)
{
    RunToEnd({"/bin/sh", "-c", "ip link set eth0 name gone0"});
    CDaemon objDaemon;
    ASSERT_TRUE(objDaemon.WaitUntilUp());
    SendTiming("320x240@30-0");
    EXPECT_TRUE(objDaemon.WaitFor("ERROR getMac ioctl error --["));
    EXPECT_TRUE(objDaemon.WaitFor("ERROR get_multicast_ip error --["));
    ASSERT_TRUE(objDaemon.WaitFor("gstreamer start ok --["));
    RunToEnd({"/bin/sh", "-c",
              "ip link set gone0 down; ip link set gone0 name eth0; ip link set eth0 up; "
              "ip route replace 224.0.0.0/4 dev eth0"});
    SendTiming("320x240@15-0");
    ASSERT_TRUE(objDaemon.WaitFor("gstreamer start ok --[", 2));
    ExpectPictures("eth0 is back", 320, 240, 15);
}

/* The live screen knows the input and the reason of a failure from the log alone. */
TEST_F(StreamTest, TheScreenTellsWhatTheDaemonDoes)
{
    CDaemon objDaemon;
    ASSERT_TRUE(objDaemon.WaitUntilUp());
    const struct {
        const char *pSource, *pTiming, *pLine;
    } stCases[] = {
        {"absent", "320x240@30-0",
         "input 320x240, 30 frames/s, progressive; stream ended by an error;"},
        {"run", "640x360@30-0", "input 640x360, 30 frames/s, progressive; stream running;"},
    };
    for (const auto &stCase : stCases) {
        SetSource(stCase.pSource);
        SendTiming(stCase.pTiming);
        CProgram objScreen({MV3300_SIM_RECEIVE, "--show", "--seconds", "30", "--pid",
                            std::to_string(objDaemon.Pid()), "--log", "/run/mv3300d.log"});
        EXPECT_TRUE(WaitUntil([&] {
            return objScreen.Output().find(stCase.pLine) != std::string::npos;
        })) << objScreen.Output();
    }
}

} // namespace
