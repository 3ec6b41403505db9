/* The commands for a box in the field, beside the running daemon and guard. */
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include <nlohmann/json.hpp>
#include <unistd.h>

#include "tests/system/box.h"

namespace
{
struct ANSWER_TEXT_S {
    int s32Exit;
    std::string strText;
};

ANSWER_TEXT_S Ctl(const std::string &i_strArgs, const std::vector<std::string> &i_strEnv = {})
{
    CProgram objCtl({"/bin/sh", "-c", "exec " MV3300_CTL " " + i_strArgs}, i_strEnv);
    const int s32Status = objCtl.Wait();
    return {WIFEXITED(s32Status) ? WEXITSTATUS(s32Status) : -1, objCtl.Output()};
}

bool Holds(const std::string &i_strText, const std::string &i_strPart)
{
    return i_strText.find(i_strPart) != std::string::npos;
}

TEST(FieldTest, TheKitOfAnAnnouncedStreamIsTakenByRealReceivers)
{
    WriteParams({{"h264_stream_gop", "10"}});
    const CDaemon objDaemon;
    ASSERT_TRUE(objDaemon.WaitUntilUp()) << objDaemon.Output();
    EXPECT_EQ(Ctl("announce --timing 320x240").s32Exit, 2);
    EXPECT_EQ(Ctl("announce --timing 320x240@30-0").s32Exit, 0);
    ASSERT_TRUE(objDaemon.WaitFor("gstreamer start ok --["));
    ASSERT_TRUE(WaitUntil([] { return Holds(Ctl("receive-kit --sdp").strText, "sprop-"); }));
    RunToEnd({"/bin/sh", "-c", MV3300_CTL " receive-kit --sdp >/tmp/kit.sdp"});
    const nlohmann::json objStream =
        nlohmann::json::parse(ReadFile("/run/mv3300/state.json"))["stream"];
    EXPECT_TRUE(Holds(ReadFile("/tmp/kit.sdp"),
                      "sprop-parameter-sets=" + objStream["sps"].get<std::string>() + "," +
                          objStream["pps"].get<std::string>() + "\r\n"));
    const std::string strPictures = "/tmp/kit.gray";
    const auto Pictures = [&strPictures] { return ReadFile(strPictures).size() / (320 * 240); };
    RunToEnd({"/bin/sh", "-c",
              "timeout 30 gst-launch-1.0 filesrc location=/tmp/kit.sdp ! sdpdemux ! rtph264depay ! "
              "avdec_h264 ! videoconvert ! video/x-raw,format=GRAY8 ! identity eos-after=11 ! "
              "filesink location=" +
                  strPictures});
    EXPECT_GE(Pictures(), 10U);
    EXPECT_EQ(Ctl("announce --none").s32Exit, 0);
    EXPECT_TRUE(objDaemon.WaitFor("input timing width:0"));
    EXPECT_EQ(Ctl("announce --timing 320x240@30-0").s32Exit, 0);
    ASSERT_TRUE(objDaemon.WaitFor("gstreamer start ok --[", 2));
    if (access("/usr/bin/ffmpeg", X_OK) != 0) {
        GTEST_SKIP() << "ffmpeg is not installed: the kit was tried with sdpdemux alone";
    }
    RunToEnd({"/bin/sh", "-c",
              "timeout 30 ffmpeg -v error -y -protocol_whitelist file,udp,rtp -i /tmp/kit.sdp "
              "-frames:v 10 -pix_fmt gray -f rawvideo " +
                  strPictures + " </dev/null"});
    EXPECT_EQ(Pictures(), 10U);
}

/* As they are to be pasted, but for the window, which the machine may not have. */
TEST(FieldTest, TheKitsLinesPlayTheStreamOfAReceiver)
{
    WriteParams({{"h264_stream_gop", "10"}, {"addr_list", "127.0.0.1:5004"}});
    const CDaemon objDaemon;
    ASSERT_TRUE(objDaemon.WaitUntilUp()) << objDaemon.Output();
    SendTiming("320x240@30-0");
    ASSERT_TRUE(WaitUntil([] { return Holds(Ctl("receive-kit --sdp").strText, "sprop-"); }));
    RunToEnd({"/bin/sh", "-c", MV3300_CTL " receive-kit --sdp >/tmp/mv3300.sdp"});
    const nlohmann::json objKit = nlohmann::json::parse(Ctl("receive-kit --json").strText);
    const auto Line = [&objKit](const char *i_pPlayer) {
        return "cd /tmp && exec timeout 30 " + objKit["players"][i_pPlayer].get<std::string>();
    };
    std::string strPipeline = Line("gst-launch-1.0");
    const std::size_t u64Window = strPipeline.find("autovideosink");
    ASSERT_NE(u64Window, std::string::npos) << strPipeline;
    RunToEnd({"/bin/sh", "-c", strPipeline.replace(u64Window, 13, "fakesink num-buffers=10")});
    if (access("/usr/bin/ffplay", X_OK) != 0) {
        GTEST_SKIP() << "ffplay is not installed: of the kit's lines gst-launch-1.0 alone was run";
    }
    CProgram objPlayer({"/bin/sh", "-c", Line("ffplay")}, {"SDL_VIDEODRIVER=dummy"});
    /* Its clock, in seconds, which is "nan" until it shows pictures. */
    const std::regex objClock("[1-9]\\.[0-9]+ M-V");
    EXPECT_TRUE(
        WaitUntil([&] { return std::regex_search(objPlayer.Output(), objClock); }, Seconds(30)))
        << objPlayer.Output();
}

TEST(FieldTest, TheKitFollowsTheReceivers)
{
    WriteParams({{"addr_list", "192.0.2.7:5000,127.0.0.1:5001"}});
    const ANSWER_TEXT_S stFirst = Ctl("receive-kit --json");
    const nlohmann::json objFirst = nlohmann::json::parse(stFirst.strText);
    EXPECT_EQ(objFirst["address"], "192.0.2.7");
    EXPECT_TRUE(Holds(objFirst["sdp"], "c=IN IP4 192.0.2.7\r\n")) << objFirst["sdp"];
    EXPECT_TRUE(Holds(objFirst["sdp"], "m=video 5000 RTP/AVP 96\r\n")) << objFirst["sdp"];
    EXPECT_TRUE(
        Holds(objFirst["mediamtx"], "udp+rtp://192.0.2.7:5000\n    rtpSDP: |\n      v=0\n"));
    EXPECT_TRUE(Holds(Ctl("receive-kit --to 127.0.0.1:5001 --sdp").strText, "m=video 5001 "));
    EXPECT_EQ(Ctl("receive-kit --to no.such.host.invalid:1").s32Exit, 1);
    EXPECT_EQ(Ctl("check --timing 320x240@30-0").s32Exit, 0);
    EXPECT_EQ(Ctl("check --log-config /nowhere").s32Exit, 1);
    EXPECT_EQ(Ctl("announce --none").s32Exit, 3); /* nobody there to hear it */
}
/* The first thing that is wrong, "" for nothing. */
std::string FirstNo(const nlohmann::json &i_objDoctor)
{
    for (const nlohmann::json &objFinding : i_objDoctor["findings"]) {
        if (objFinding["answer"] == "no") {
            EXPECT_NE(objFinding["advice"], "") << objFinding;
            return objFinding["what"];
        }
    }
    return "";
}

std::string AnswerOf(const nlohmann::json &i_objDoctor, const std::string &i_strWhat)
{
    for (const nlohmann::json &objFinding : i_objDoctor["findings"]) {
        if (objFinding["what"] == i_strWhat) {
            return objFinding["answer"];
        }
    }
    return "";
}

TEST(FieldTest, TheDoctorNamesWhatIsWrongFirst)
{
    const auto FindsFirst = [](const std::string &i_strWhat, int i_s32Exit) {
        std::string strLast;
        const bool bFound = WaitUntil(
            [&] {
                const ANSWER_TEXT_S stAnswer = Ctl("doctor --json");
                strLast = stAnswer.strText;
                return stAnswer.s32Exit == i_s32Exit &&
                       FirstNo(nlohmann::json::parse(strLast)) == i_strWhat;
            },
            Seconds(30));
        EXPECT_TRUE(bFound) << i_strWhat << ": " << strLast;
    };
    WriteParams({{"h264_stream_gop", "10"}});
    FindsFirst("daemon", 1);
    {
        const CDaemon objDaemon;
        ASSERT_TRUE(objDaemon.WaitUntilUp()) << objDaemon.Output();
        SendTiming("320x240@30-0");
        FindsFirst("", 0);
        const struct {
            const char *pPlant;
            const char *pMend;
            const char *pFirst;
            int s32Exit;
        } kRows[] = {
            {"ip route change 224.0.0.0/4 dev lo", "ip route change 224.0.0.0/4 dev eth0",
             "multicast route", 1},
            {"ip link set switch0 down", "ip link set switch0 up", "multicast route", 1},
            {"cp -a /config /tmp && mount -t tmpfs -o size=512k t /config && cp -a /tmp/config /",
             "umount /config", "disk", 1},
            {MV3300_CTL " set --preview off", MV3300_CTL " set --preview on", "", 6},
            /* The box's own guard is in the way of another one. */
            {"box=$(cat /run/mv3300-sim/box.pid); for pid in $(cat /proc/$box/task/$box/children); "
             "do ! grep -q guard /proc/$pid/comm || kill -STOP $pid; done; "
             "mount -t tmpfs t /run/mv3300; mv3300-guard --no-restart & echo $! >/tmp/guard.pid",
             "kill $(cat /tmp/guard.pid); umount -l /run/mv3300; "
             "box=$(cat /run/mv3300-sim/box.pid); kill -CONT $(cat /proc/$box/task/$box/children)",
             "relay", 1},
        };
        for (const auto &stRow : kRows) {
            RunToEnd({"/bin/sh", "-c", stRow.pPlant});
            FindsFirst(stRow.pFirst, stRow.s32Exit);
            RunToEnd({"/bin/sh", "-c", stRow.pMend});
        }
        FindsFirst("", 0);
        SendTiming("0x0@0-0");
        FindsFirst("timing", 1);
        SetSource("absent");
        SendTiming("320x240@30-0");
        FindsFirst("pipelines", 1);
    }
}

TEST(FieldTest, TheDeviceIsAskedForItsTiming)
{
    WriteParams({{"h264_stream_gop", "10"}});
    const CDaemon objDaemon;
    ASSERT_TRUE(objDaemon.WaitUntilUp()) << objDaemon.Output();
    const auto CtlAsking = [](const std::string &i_strArgs) {
        /* The sanitizers would want their own library to be the first one. */
        return Ctl(i_strArgs, {std::string("LD_PRELOAD=") + getenv("BOX_CAPTURE"),
                               "ASAN_OPTIONS=verify_asan_link_order=0"});
    };
    const struct {
        const char *pInput;
        int s32Exit;
        const char *pAnnounced;
        const char *pLink;
        const char *pFree; /* the box has no such file to look for holders of */
    } kRows[] = {
        {"busy", 1, "Device or resource busy", "not known", "no"},
        {"no-lock", 0, "announced 0x0@0-0 (no signal)", "no", "not known"},
        {"320x240@30-0", 0, "announced 320x240@30-0 to", "yes", "not known"},
    };
    for (const auto &stRow : kRows) {
        SetSource(std::string("run\ninput ") + stRow.pInput);
        const nlohmann::json objDoctor = nlohmann::json::parse(CtlAsking("doctor --json").strText);
        EXPECT_EQ(AnswerOf(objDoctor, "link"), stRow.pLink) << objDoctor;
        EXPECT_EQ(AnswerOf(objDoctor, "device is free"), stRow.pFree) << objDoctor;
        const ANSWER_TEXT_S stQuery = CtlAsking("announce --query");
        EXPECT_EQ(stQuery.s32Exit, stRow.s32Exit) << stRow.pInput;
        EXPECT_TRUE(Holds(stQuery.strText, stRow.pAnnounced)) << stQuery.strText;
    }
    EXPECT_TRUE(objDaemon.WaitFor("gstreamer start ok --["));
}

TEST(FieldTest, WhatIsSavedHoldsAfterARestartAndTheRestOfTheFileStays)
{
    const auto Text = [](const std::string &i_strGop, const std::string &i_strBitrate) {
        return "<?xml version=\"1.0\"?>\r\n<!-- ours -->\n<CONFIGURATION>\n <CHANNEL_1>\n"
               "\t<PARAM NAME=\"h264_stream_gop\"  TYPE='string' >" +
               i_strGop +
               "</PARAM><!-- 59 --><PARAM NAME=\"other\"> 1 </PARAM>\n"
               "  <PARAM NAME=\"h264_stream_bitrate\" TYPE=\"string\">" +
               i_strBitrate + "</PARAM>\n </CHANNEL_1></CONFIGURATION>\n\n";
    };
    WriteFile(kParamFile, Text("59", "1000000"));
    {
        const CDaemon objDaemon;
        ASSERT_TRUE(objDaemon.WaitUntilUp()) << objDaemon.Output();
        EXPECT_EQ(Ctl("set --bitrate 2M").s32Exit, 0);
        EXPECT_EQ(Ctl("save --dry-run").s32Exit, 0);
        EXPECT_EQ(ReadFile(kParamFile), Text("59", "1000000"));
        EXPECT_EQ(Ctl("save").s32Exit, 0);
        EXPECT_EQ(ReadFile(kParamFile), Text("59", "2000000"));
        EXPECT_EQ(Ctl("set --gop 25 --save").s32Exit, 0);
        EXPECT_EQ(Ctl("set --gop 30").s32Exit, 0);
        EXPECT_EQ(ReadFile(kParamFile), Text("25", "2000000"));
    }
    const CDaemon objDaemon;
    ASSERT_TRUE(WaitUntil([] { return Ctl("get").s32Exit == 0; })) << objDaemon.Output();
    const nlohmann::json objNow = nlohmann::json::parse(Ctl("get --json").strText);
    EXPECT_EQ(objNow["gop"], 25);
    EXPECT_EQ(objNow["bitrate"], 2000000);
    EXPECT_EQ(ReadFile(kParamFile), Text("25", "2000000"));
}

TEST(FieldTest, TheBundleHoldsAReportAndMasksIt)
{
    WriteParams({{"addr_list", "192.0.2.7:5000"}});
    const CDaemon objDaemon;
    ASSERT_TRUE(objDaemon.WaitUntilUp()) << objDaemon.Output();
    SendTiming("320x240@30-0");
    ASSERT_TRUE(objDaemon.WaitFor("gstreamer start ok --["));
    EXPECT_EQ(Ctl("bundle /tmp/report.tar.gz --mask").s32Exit, 0);
    EXPECT_EQ(Ctl("bundle /tmp/report.tar.gz").s32Exit, 5); /* it exists */
    const std::string strList = RunToEnd({"/bin/tar", "-tzf", "/tmp/report.tar.gz"});
    for (const char *pName : {"doctor.txt", "check.txt", "state.json", "config/param.xml",
                              "versions.txt", "ip.txt", "proc/net/udp", "uevents.txt"}) {
        EXPECT_TRUE(Holds(strList, pName)) << strList;
    }
    const auto Part = [](const std::string &i_strName) {
        return RunToEnd({"/bin/tar", "-xOzf", "/tmp/report.tar.gz", "mv3300-bundle" + i_strName});
    };
    for (const char *pName : {"/log/mv3300.log", "/uevents.txt"}) {
        EXPECT_TRUE(Holds(Part(pName), "event {'tc358743'")) << pName;
    }
    const std::string strText = Part("");
    EXPECT_TRUE(Holds(strText, ">ipv4-")) << "the receiver of the parameter file";
    for (const char *pAddress : {"192.0.2.", "234.29.78.95", "0a:1b:2c:3d:4e:5f"}) {
        EXPECT_FALSE(Holds(strText, pAddress)) << pAddress;
    }
}
} // namespace
