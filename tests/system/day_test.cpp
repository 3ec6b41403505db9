/* A day of the box: cables, settings and faults that come while something else is under way. */
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "tests/system/box.h"

namespace
{
constexpr char kPlaying[] = "Let's run [gst-h264]! --[";
constexpr char kPicture[] = "/tmp/image.jpeg";

void Set(const std::string &i_strOption, const std::string &i_strValue)
{
    RunToEnd({MV3300_CTL, "set", i_strOption, i_strValue});
}

void Storm(int i_s32Events, const std::string &i_strTiming)
{
    RunToEnd({"/bin/sh", "-c",
              "for i in $(seq " + std::to_string(i_s32Events) + "); do " + MV3300_SIM_UEVENT +
                  " -q " + i_strTiming + "; done"});
}

/* Waits for a published picture that is newer than the call; false after the limit. */
bool WaitForPicture(Seconds i_objLimit)
{
    std::filesystem::remove(kPicture);
    std::string strPicture;
    auto IsThere = [&] { return !(strPicture = ReadFile(kPicture)).empty(); };
    if (!WaitUntil(IsThere, i_objLimit)) {
        return false;
    }
    EXPECT_EQ(strPicture.substr(0, 2), "\xFF\xD8");
    EXPECT_EQ(strPicture.substr(strPicture.size() - 2), "\xFF\xD9");
    return true;
}

class DayTest : public testing::Test
{
protected:
    void SetUp() override
    {
        WriteParams({{"h264_stream_gop", "10"}});
        m_pDaemon = std::make_unique<CDaemon>();
        ASSERT_TRUE(m_pDaemon->WaitUntilUp());
    }

    /* The stream at a receiver, and what the last start asked for. */
    void ExpectStream(int i_s32Width, int i_s32Height, double i_f64Rate,
                      const std::string &i_strSettings = "gop-size=10")
    {
        ExpectGroupStream(i_s32Width, i_s32Height, i_f64Rate);
        const std::string strLog = ReadFile("/run/mv3300d.log");
        const std::size_t u64Start = strLog.rfind("gst cmd [v4l2src");
        ASSERT_NE(u64Start, std::string::npos);
        EXPECT_NE(strLog.find(i_strSettings, u64Start), std::string::npos);
    }

    std::unique_ptr<CDaemon> m_pDaemon;
};

TEST_F(DayTest, AfterAStormOfTimingsTheLastOneHolds)
{
    SendTiming("320x240@30-0");
    ASSERT_TRUE(m_pDaemon->WaitFor(kPlaying));
    Storm(200, "320x240@30-0");
    SetSource("slow 6000");
    SendTiming("640x360@30-0");
    ASSERT_TRUE(m_pDaemon->WaitFor("gst cmd [v4l2src", 2));
    EXPECT_EQ(m_pDaemon->Count(kPlaying), 1);

    /* The stop waits for the slow device, and the encoder's queue holds 49 messages: of a storm
     * over that the end is lost and said, and the next announcement holds. */
    SendTiming("640x360@30-1");
    ASSERT_TRUE(m_pDaemon->WaitFor("we need stop gstreamer --[", 3));
    Storm(200, "640x360@30-1");
    SetSource("run");
    EXPECT_TRUE(m_pDaemon->WaitFor("overflow, msg<src:9,dst:2,msgtype:0x803> discard --["));
    ASSERT_TRUE(m_pDaemon->WaitFor("WARN interlaced not support --[", 45));
    for (const char *pTiming : {"320x240@30-0", "320x240@30-1", "176x144@30-0"}) {
        SendTiming(pTiming);
    }
    ASSERT_TRUE(m_pDaemon->WaitFor("width=176, height=144"));
    ASSERT_TRUE(m_pDaemon->WaitFor("gstreamer start ok --[", 4));
    ExpectStream(176, 144, 30);
}

TEST_F(DayTest, SettingsGivenWhileATimingChangesAreInTheStream)
{
    SendTiming("320x240@30-0");
    ASSERT_TRUE(m_pDaemon->WaitFor("addr list: "));
    Set("--gop", "5"); /* the H.264 start is at its pause */
    SendTiming("640x360@15-0");
    Set("--bitrate", "300000");
    Set("--height", "270");
    ASSERT_TRUE(m_pDaemon->WaitFor("newnew stream status, ", 3));
    ASSERT_TRUE(m_pDaemon->WaitFor("cmd jpeg [", 4));
    ASSERT_TRUE(m_pDaemon->WaitFor("Let's run [gst-jpeg]! --[", 4));
    ExpectStream(640, 360, 15, "bitrate=300 gop-size=5 ");
    EXPECT_TRUE(m_pDaemon->WaitFor("video/x-raw,width=480,height=270"));
}

TEST_F(DayTest, AStalledPreviewIsRestartedAndItsPictureReturns)
{
    SendTiming("320x240@30-0");
    ASSERT_TRUE(m_pDaemon->WaitFor(kPlaying));
    ASSERT_TRUE(WaitForPicture(Seconds(20)));
    SetSource("stall");
    ASSERT_TRUE(m_pDaemon->WaitFor("] restart --[", 2));
    EXPECT_FALSE(WaitForPicture(Seconds(1)));
    SetSource("run");
    EXPECT_TRUE(WaitForPicture(Seconds(20)));
    EXPECT_EQ(m_pDaemon->Count(kPlaying), 1); /* the stream itself is left alone */
}
} // namespace
