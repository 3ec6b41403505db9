/*
 * Timing texts, the conditions, when the guard acts, and the state file.
 */
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "guard/capture_query.h"
#include "guard/daemon_view.h"
#include "guard/policy.h"
#include "guard/state.h"

namespace
{
using namespace std::string_literals;

TEST(TimingTest, UeventsAreReadAsTheDaemonReadsThem)
{
    const std::string strHead = "change@/x\0SUBSYSTEM=i2c\0DRIVER=tc358743\0"s;
    const struct {
        std::string strDatagram;
        std::optional<TIMING_S> stTiming;
    } kRows[] = {
        {strHead + "EVENT=1920x1080@60-0\0"s, TIMING_S{1920, 1080, 60, 0}},
        {strHead + "EVENT=1920x1080@30-1"s, TIMING_S{1920, 1080, 30, 1}},
        {strHead + "EVENT=1920x1080"s, TIMING_S{1920, 1080, 0, 0}},
        {strHead + "EVENT=99999999999x1@1-0"s, TIMING_S{2147483647, 1, 1, 0}},
        {strHead, TIMING_S{}},
        {strHead + "\0EVENT=1x1@1-0"s, TIMING_S{}},
        {"change@/x\0SUBSYSTEM=usb\0DRIVER=tc358743\0EVENT=1x1@1-0"s, std::nullopt},
        {"change@/x\0SUBSYSTEM=i2c\0DRIVER=other\0EVENT=1x1@1-0"s, std::nullopt},
        {"", std::nullopt},
        {UeventOfTiming({720, 576, 50, 1}), TIMING_S{720, 576, 50, 1}},
    };
    for (const auto &stRow : kRows) {
        EXPECT_EQ(TimingOfUevent(stRow.strDatagram), stRow.stTiming) << stRow.strDatagram;
    }
}

TEST(TimingTest, MemoryIsReadBackOrRefused)
{
    const auto stHeard = ParseMemory(MemoryText({{1280, 720, 50, 0}, 1764000000.125}));
    ASSERT_TRUE(stHeard);
    EXPECT_EQ(stHeard->stTiming, (TIMING_S{1280, 720, 50, 0}));
    EXPECT_EQ(stHeard->f64Time, 1764000000.125);
    for (const char *pText : {"", "1280x720@50-0", "1280x720@50-0 12", "1280x720@50 12\n",
                              "1280x720@50-0 -1\n", "1280x720@50-0 nan\n", "1x1@1-0 1 2\n"}) {
        EXPECT_FALSE(ParseMemory(pText)) << pText;
    }
}

TEST(CaptureQueryTest, PicturesASecondOfATiming)
{
    v4l2_bt_timings stBt = {};
    stBt.width = 1920;
    stBt.height = 1080;
    stBt.hfrontporch = 280;
    stBt.vfrontporch = 45;
    stBt.pixelclock = 148352000; /* 59.94 */
    EXPECT_EQ(TimingOfBt(stBt), (TIMING_S{1920, 1080, 60, 0}));
    EXPECT_EQ(TimingOfBt({}), TIMING_S{});
}

TEST(DaemonViewTest, TablesOfProc)
{
    const auto stDaemon = ParseProcStat("42 (a) b) S 1 2 3 4 5 6 7 8 9 10 150 50 0 0 20 0 9 0 "
                                        "1000 99 25 1",
                                        100, 4096);
    ASSERT_TRUE(stDaemon);
    EXPECT_EQ(stDaemon->s64CpuMs, 2000);
    EXPECT_EQ(stDaemon->s64StartMs, 10000);
    EXPECT_EQ(stDaemon->u64Memory, 102400U);
    EXPECT_FALSE(ParseProcStat("42 (a) S 1", 100, 4096));
    const char *pNetlink = "sk Eth Pid Groups\n00 15 42 ffffffff 0\n00 0 77 0 0\n";
    EXPECT_TRUE(HasUeventPort(pNetlink, 42));
    EXPECT_FALSE(HasUeventPort(pNetlink, 77));
    const char *pUdp = "  sl  local_address\n  12: 0100007F:20AE 00000000:0000 07\n";
    EXPECT_TRUE(HasUdpPort(pUdp, 8366));
    EXPECT_FALSE(HasUdpPort(pUdp, 8365));
}

/* A daemon of ten minutes that streams 1080p60, seen at a time that a case moves. */
FACTS_S Streaming()
{
    FACTS_S stFacts;
    stFacts.s64NowMs = 1000000;
    stFacts.s32Pid = 42;
    stFacts.s64DaemonMs = 400000;
    stFacts.stTiming = TIMING_S{1920, 1080, 60, 0};
    stFacts.eLink = Link::Ok;
    stFacts.s64TimingMs = 400000;
    stFacts.s64ListenMs = 400000;
    stFacts.s64PacketMs = 999990;
    stFacts.s64FlowingMs = 402000;
    stFacts.s64PictureMs = 999000;
    stFacts.u32Source = 7;
    return stFacts;
}

TEST(ConditionTest, TheFirstThatHolds)
{
    const auto objSettings = [](bool i_bH264, bool i_bPreview) {
        SETTINGS_S stSettings;
        stSettings.bH264 = i_bH264;
        stSettings.bPreview = i_bPreview;
        return stSettings;
    };
    using Change = void (*)(FACTS_S &, decltype(objSettings) &);
    const struct {
        const char *pWord;
        Change pChange;
    } kRows[] = {
        {"streaming", [](FACTS_S &, auto &) {}},
        {"no-daemon", [](FACTS_S &f, auto &) { f.s32Pid.reset(), f.stTiming.reset(); }},
        {"input-unknown", [](FACTS_S &f, auto &) { f.stTiming.reset(); }},
        {"no-signal", [](FACTS_S &f, auto &) { f.stTiming->fps = 0, f.stTiming->interlaced = 1; }},
        {"interlaced", [](FACTS_S &f, auto &) { f.stTiming->interlaced = 1; }},
        {"disabled",
         [](FACTS_S &f, auto &s) {
             f.s64PacketMs = 990000, f.s64SettingsMs = 999000, f.stSettings = s(true, false);
         }},
        {"disabled", /* the preview has its packets */
         [](FACTS_S &f, auto &s) { f.u32SettingsSource = 7, f.stSettings = s(false, true); }},
        {"streaming", /* the next stream, with H.264 on for all that is known */
         [](FACTS_S &f, auto &s) { f.u32SettingsSource = 6, f.stSettings = s(false, true); }},
        {"stalled", /* what was told before the last packet says nothing about the pause */
         [](FACTS_S &f, auto &s) {
             f.s64PacketMs = 990000, f.s64SettingsMs = 989000, f.stSettings = s(false, false);
         }},
        {"starting", [](FACTS_S &f, auto &) { f.s64PacketMs.reset(), f.s64DaemonMs = 988001; }},
        {"stalled", [](FACTS_S &f, auto &) { f.s64PacketMs.reset(), f.s64DaemonMs = 988000; }},
        {"starting", /* the last packets of the old timing */
         [](FACTS_S &f, auto &) { f.s64PacketMs = 997500, f.s64TimingMs = 997000; }},
        {"streaming", [](FACTS_S &f, auto &) { f.s64TimingMs = 999000; }},
        {"starting", [](FACTS_S &f, auto &) { f.s64PacketMs = 970000, f.s64RestartMs = 988001; }},
        {"failed", [](FACTS_S &f, auto &) { f.s64PacketMs = 970000, f.s64RestartMs = 988000; }},
        {"stalled", [](FACTS_S &f, auto &) { f.s64PacketMs = 990000, f.s64RestartMs = 970000; }},
        {"stalled", [](FACTS_S &f, auto &) { f.s64PacketMs = 998000; }},
        {"streaming", [](FACTS_S &f, auto &) { f.s64PacketMs = 998001; }},
        {"preview-stalled", [](FACTS_S &f, auto &) { f.s64PictureMs = 990000; }},
        {"streaming", [](FACTS_S &f, auto &) { f.s64PictureMs.reset(), f.s64FlowingMs = 991000; }},
        {"preview-stalled", /* before relay-refused, which is why */
         [](FACTS_S &f, auto &) { f.s64PictureMs = 990000, f.s64RefusedSinceMs = 989000; }},
        {"relay-refused",
         [](FACTS_S &f, auto &) { f.s64PictureMs = 990001, f.s64RefusedSinceMs = 995000; }},
        {"streaming", /* what was refused before the stream came back does not count */
         [](FACTS_S &f, auto &) { f.s64FlowingMs = 995001, f.s64RefusedSinceMs = 402000; }},
        {"streaming", /* the preview is still being started */
         [](FACTS_S &f, auto &) { f.s64RefusedSinceMs = 995001; }},
    };
    for (const auto &stRow : kRows) {
        FACTS_S stFacts = Streaming();
        stRow.pChange(stFacts, objSettings);
        const Condition eCondition = Judge(stFacts);
        EXPECT_STREQ(ConditionWord(eCondition), stRow.pWord) << &stRow - kRows;
        EXPECT_EQ(Describe(stFacts, 0).find("12350"), std::string::npos);
        EXPECT_EQ(Describe(stFacts, 0).find("nobody listens") != std::string::npos,
                  IsRefused(stFacts));
        stFacts.s64ListenMs.reset();
        EXPECT_EQ(Describe(stFacts, 0).find("12350") != std::string::npos,
                  eCondition >= Condition::Starting)
            << stRow.pWord << ": another program has the port";
    }
}

TEST(AnnounceTest, EachInstanceIsToldOnce)
{
    CAnnouncePolicy objPolicy;
    FACTS_S stFacts = Streaming();
    EXPECT_FALSE(objPolicy.IsDue(stFacts, true)) << "it was there before, and streams";
    stFacts.s32Pid = 43;
    stFacts.s64DaemonMs = stFacts.s64NowMs;
    EXPECT_FALSE(objPolicy.IsDue(stFacts, false)) << "it does not listen yet";
    EXPECT_TRUE(objPolicy.IsDue(stFacts, true));
    EXPECT_TRUE(objPolicy.IsDue(stFacts, true)) << "the telling failed";
    objPolicy.Told();
    EXPECT_FALSE(objPolicy.IsDue(stFacts, true));
    stFacts.s64DaemonMs += 5;
    EXPECT_TRUE(objPolicy.IsDue(stFacts, true)) << "another one with the same number";
    stFacts.stTiming->height = 0;
    EXPECT_FALSE(objPolicy.IsDue(stFacts, true));

    CAnnouncePolicy objOther;
    stFacts = Streaming();
    stFacts.s64PacketMs.reset();
    EXPECT_FALSE(objOther.IsDue(stFacts, true)) << "it may stream: the guard is new";
    stFacts.s64NowMs += 3000;
    EXPECT_TRUE(objOther.IsDue(stFacts, true));
}

TEST(StreamAskTest, OnceForEachStream)
{
    CStreamAskPolicy objPolicy;
    FACTS_S stFacts = Streaming();
    const auto objDue = [&](UInt32 i_u32Source, SInt64 i_s64Ms) {
        stFacts.u32Source = i_u32Source;
        stFacts.s64NowMs += i_s64Ms;
        stFacts.s64PacketMs = stFacts.s64NowMs;
        return objPolicy.IsDue(stFacts);
    };
    EXPECT_FALSE(objDue(7, 0));
    EXPECT_FALSE(objDue(7, 1999));
    EXPECT_TRUE(objDue(7, 1));
    objPolicy.Asked(stFacts.s64NowMs, 7, false);
    EXPECT_FALSE(objDue(7, 4999));
    EXPECT_TRUE(objDue(7, 1)) << "the answer port was taken";
    objPolicy.Asked(stFacts.s64NowMs, 7, true);
    EXPECT_FALSE(objDue(7, 60000));
    for (UInt32 i = 0; i < 8; i++) {
        EXPECT_FALSE(objDue(i % 2, 1000)) << "two senders at once";
    }
    EXPECT_TRUE(objDue(1, 2000));
}

/* Runs the policy by the quarter of a second; the daemon answers at once. */
struct Patient {
    CRestartPolicy objPolicy{RESTART_LIMITS_S{}};
    FACTS_S stFacts = Streaming();
    std::vector<SInt64> s64Acts; /* s since the first moment */

    void Run(SInt64 i_s64Seconds, bool i_bPackets, bool i_bEnabled = true, bool i_bAnswers = true)
    {
        const SInt64 s64BeginMs = stFacts.s64NowMs;
        while (stFacts.s64NowMs < s64BeginMs + i_s64Seconds * 1000) {
            stFacts.s64NowMs += 250;
            if (i_bPackets) {
                if (!IsFlowing(stFacts)) {
                    stFacts.s64FlowingMs = stFacts.s64NowMs;
                }
                stFacts.s64PacketMs = stFacts.s64NowMs;
            }
            if (objPolicy.Decide(stFacts) == CRestartPolicy::Step::None) {
                continue;
            }
            stFacts.stSettings = SETTINGS_S{};
            stFacts.stSettings->bH264 = i_bEnabled;
            stFacts.stSettings->bPreview = true;
            stFacts.s64SettingsMs = stFacts.s64NowMs;
            if (objPolicy.Answered(stFacts, i_bAnswers)) {
                stFacts.s64RestartMs = stFacts.s64NowMs;
                s64Acts.push_back((stFacts.s64NowMs - 1000000) / 1000);
            }
        }
    }
};

TEST(RestartTest, BackoffBudgetAndTheHealthyMinute)
{
    Patient stPatient;
    stPatient.Run(1000, false);
    EXPECT_EQ(stPatient.s64Acts, (std::vector<SInt64>{12, 24, 48, 96, 192, 384, 684, 984}));
    EXPECT_EQ(stPatient.objPolicy.FailedRestarts(), 8U);
    stPatient.Run(30, true);
    EXPECT_EQ(stPatient.objPolicy.BackoffMs(), 300000);
    stPatient.Run(31, true);
    EXPECT_EQ(stPatient.objPolicy.BackoffMs(), 12000);
    EXPECT_EQ(stPatient.objPolicy.BudgetLeft(), 12U);
    stPatient.s64Acts.clear();
    stPatient.Run(2 * 3600, false);
    EXPECT_EQ(stPatient.s64Acts.size(), 24U) << "twelve an hour";
}

TEST(RestartTest, NeverWithoutAReason)
{
    using Change = void (*)(FACTS_S &);
    const Change kChanges[] = {
        [](FACTS_S &f) { f.stTiming.reset(); },
        [](FACTS_S &f) { f.stTiming->width = 0; },
        [](FACTS_S &f) { f.stTiming->interlaced = 1; },
        [](FACTS_S &f) { f.s32Pid.reset(); },
        [](FACTS_S &f) { f.s64ListenMs.reset(), f.s64PacketMs.reset(); },
    };
    for (const auto &pChange : kChanges) {
        Patient stPatient;
        pChange(stPatient.stFacts);
        stPatient.Run(600, false);
        EXPECT_TRUE(stPatient.s64Acts.empty()) << &pChange - kChanges;
    }
    Patient stDisabled;
    stDisabled.Run(600, false, false);
    EXPECT_TRUE(stDisabled.s64Acts.empty());
    Patient stSilent;
    stSilent.Run(600, false, true, false);
    EXPECT_TRUE(stSilent.s64Acts.empty());
    Patient stYoung;
    stYoung.stFacts.s64DaemonMs = stYoung.stFacts.s64NowMs;
    stYoung.Run(11, false);
    EXPECT_TRUE(stYoung.s64Acts.empty());
    Patient stNewGuard;
    stNewGuard.stFacts.s64ListenMs = stNewGuard.stFacts.s64NowMs;
    stNewGuard.stFacts.s64PacketMs.reset();
    stNewGuard.Run(11, false);
    EXPECT_TRUE(stNewGuard.s64Acts.empty());
}

TEST(StateTest, TheFileHasEverySectionAndIsReadBack)
{
    STATE_S stState;
    stState.strText = "a \"quote\" and \xff";
    stState.stStream.objSps = {0x67, 0x64, 0x00, 0x29};
    stState.stRelay.objAlso = {{12346, 3, 2, 1}};
    stState.objEvents = {{1.5, "input", "x"}};
    std::string strError;
    const nlohmann::json objState = ParseState(StateText(stState), &strError);
    ASSERT_FALSE(objState.is_null()) << strError;
    EXPECT_EQ(objState["condition"], "no-daemon");
    EXPECT_EQ(objState["stream"]["sps"], "Z2QAKQ==");
    EXPECT_EQ(objState["stream"]["width"], nullptr);
    EXPECT_EQ(objState["relay"]["also"][0]["refused"], 2);
    EXPECT_EQ(objState["settings"], nullptr);
    EXPECT_EQ(objState["events"][0]["kind"], "input");
    for (const char *pTime : {"/time", "/input/time"}) {
        nlohmann::json objHostile = objState;
        objHostile[nlohmann::json::json_pointer(pTime)] = 1e300;
        EXPECT_TRUE(ParseState(objHostile.dump(), &strError).is_null()) << pTime;
    }
    for (const char *pText : {"", "[]", "{}", "{\"schema\":1}", "{\"schema\":\"1\"}",
                              "{\"schema\":2,\"condition\":\"streaming\"}"}) {
        EXPECT_TRUE(ParseState(pText, &strError).is_null()) << pText;
        EXPECT_FALSE(strError.empty());
    }
    nlohmann::json objOther = objState;
    objOther["text"] = 5;
    EXPECT_TRUE(ParseState(objOther.dump(), &strError).is_null());
}

} // namespace
