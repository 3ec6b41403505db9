/* The control channel of the running daemon: answers, switching, and hostile datagrams. */
#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "tests/support/loopback.h"
#include "tests/system/box.h"
#include "tools/control_channel.h"

namespace
{
constexpr CFieldAsks kAskAll = {true, true, true, true, true, true, true};
constexpr std::nullopt_t kNo = std::nullopt;

class ControlTest : public testing::Test
{
protected:
    void SetUp() override
    {
        WriteParams({{"h264_stream_gop", "10"}});
        ASSERT_TRUE(m_objDaemon.WaitUntilUp()) << m_objDaemon.Output();
        SendTiming("320x240@30-0");
        ASSERT_TRUE(m_objDaemon.WaitFor("gstreamer start ok --["));
    }
    static CFieldValues Ask(const CFieldValues &i_objSets = {})
    {
        const ANSWER_S stAnswer = AskDaemon({}, kAskAll, i_objSets, Seconds(20));
        EXPECT_EQ(stAnswer.eResult, AskResult::Answered);
        return stAnswer.objValues;
    }
    long ResidentKb() const
    {
        const std::string strStatus =
            ReadFile("/proc/" + std::to_string(m_objDaemon.Pid()) + "/status");
        return std::atol(strStatus.c_str() + strStatus.find("VmRSS:") + 6);
    }

    CDaemon m_objDaemon;
};

TEST_F(ControlTest, EachChangeRebuildsWhatItHasTo)
{
    /* The preview's stop is not among them: on a busy machine it is stopped for a stall, too. */
    constexpr int kLines = 6;
    const char *const kLine[kLines] = {
        "INFO switch status:1 --[",
        "INFO switch status:0 --[",
        "INFO we need stop gstreamer 264",
        "INFO gstreamer start 264 ok --[",
        "multifilesink max-files=5 location=/tmp/image/image-%d.jpeg] --[",
        "ERROR invalid "};
    const CFieldValues objFirst = {true, 10, "vbr", 1000000, true, 720, 1};
    const struct {
        const char *pWhat;
        CFieldValues objSets;
        CFieldValues objAfter;
        std::array<int, kLines> s32More; /* of each line */
    } stSteps[] = {
        {"the same", {true, 10, kNo, kNo, kNo, kNo, 1}, objFirst, {0, 1, 0, 0, 0, 0}},
        {"preview alone",
         {kNo, kNo, kNo, kNo, kNo, 360, 2},
         {true, 10, "vbr", 1000000, true, 360, 2},
         {1, 0, 1, 1, 1, 0}},
        {"one out of range",
         {kNo, 121, kNo, 300000, kNo, kNo, kNo},
         {true, 10, "vbr", 1000000, true, 360, 2},
         {0, 0, 0, 0, 0, 1}},
        {"both off",
         {false, kNo, kNo, kNo, false, kNo, kNo},
         {false, 10, "vbr", 1000000, false, 360, 2},
         {1, 0, 1, 0, 0, 0}},
        {"stream on",
         {true, kNo, "cbr", 300000, kNo, kNo, kNo},
         {true, 10, "vbr", 300000, false, 360, 2},
         {1, 0, 0, 1, 0, 0}},
    };
    CFieldValues objNow = objFirst;
    std::array<int, kLines> s32Expected;
    for (std::size_t i = 0; i < kLines; i++) {
        s32Expected[i] = m_objDaemon.Count(kLine[i]);
    }
    for (const auto &stStep : stSteps) {
        SCOPED_TRACE(stStep.pWhat);
        EXPECT_EQ(Ask(stStep.objSets), objNow) << "the state before the set";
        objNow = stStep.objAfter;
        for (std::size_t i = 0; i < kLines; i++) {
            s32Expected[i] += stStep.s32More[i];
            EXPECT_TRUE(m_objDaemon.WaitFor(kLine[i], s32Expected[i])) << kLine[i];
        }
        for (std::size_t i = 0; i < kLines; i++) {
            EXPECT_EQ(m_objDaemon.Count(kLine[i]), s32Expected[i]) << kLine[i];
        }
        EXPECT_EQ(Ask(), objNow);
    }
    EXPECT_EQ(m_objDaemon.Count("INFO addr list: 234.29.78.95:59202 --["), 1);
    EXPECT_EQ(m_objDaemon.Count("INFO h264 and preview not enable --["), 1);
    EXPECT_GT(Receive(kGroup, kGroupPort).s32Pictures, 0);
}

std::string Record(UInt32 i_u32Type, UInt32 i_u32Length, const std::string &i_strValue)
{
    const UInt32 u32Header[2] = {i_u32Type, i_u32Length};
    return std::string(reinterpret_cast<const char *>(u32Header), 8) + i_strValue;
}

std::vector<std::string> HostileDatagrams()
{
    const std::string strGet = EncodeStreamCommand(kAskAll, {});
    std::string strDeep;
    while (strDeep.size() < 4000) {
        strDeep = Record(4, static_cast<UInt32>(strDeep.size()), strDeep);
    }
    std::vector<std::string> strDatagrams = {"",
                                             "\x04",
                                             strGet.substr(0, strGet.size() - 1),
                                             strDeep,
                                             strGet + std::string(50000, 'x'),
                                             std::string(4096, '\0'),
                                             std::string(4096, '\xFF')};
    for (UInt32 u32Length : {0xFFFFFFFFU, 0xFFFFFFF8U, 0xFFFFFFF0U, 0x80000000U, 0x7FFFFFFFU}) {
        strDatagrams.push_back(Record(4, u32Length, strGet.substr(8)));
        strDatagrams.push_back(Record(4, 20, Record(0x10001, u32Length, "true") + strGet));
    }
    return strDatagrams;
}

TEST_F(ControlTest, HostileDatagramsHarmNeitherTheStreamNorTheDaemon)
{
    const std::vector<std::string> strHostile = HostileDatagrams();
    const std::string strGet = EncodeStreamCommand(kAskAll, {});
    /* A seed of its own for every run would now and then hit upon a valid set. */
    std::mt19937 objRandom(8366);
    const UniqueFd objClient = BindLoopback(0);
    auto Attack = [&](Seconds i_objTime) {
        const auto objEnd = std::chrono::steady_clock::now() + i_objTime;
        int s32Sent = 0;
        for (; std::chrono::steady_clock::now() < objEnd; s32Sent++) {
            std::string strBytes =
                strHostile[static_cast<std::size_t>(s32Sent) % strHostile.size()];
            if (s32Sent % 2 == 0) {
                strBytes = strGet;
                for (unsigned i = objRandom() % 4; i > 0; i--) {
                    strBytes[objRandom() % strBytes.size()] = static_cast<char>(objRandom());
                }
                strBytes.resize(objRandom() % (strBytes.size() + 1));
            }
            SendLoopback(objClient.Get(), 8366, strBytes);
            usleep(500);
            if (s32Sent % 100 == 99) {
                Ask(); /* so that a slow machine keeps up, and loses none */
            }
        }
        return s32Sent;
    };
    /* The preview's decoder would take memory of its own. */
    const CFieldValues objSettings = {true, 10, "vbr", 1000000, false, 720, 1};
    Ask({kNo, kNo, kNo, kNo, false, kNo, kNo});
    ASSERT_TRUE(m_objDaemon.WaitFor("INFO gstreamer start 264 ok --["));
    Attack(Seconds(2)); /* first calls allocate */
    EXPECT_EQ(Ask(), objSettings);
    const std::size_t u64Descriptors = m_objDaemon.Descriptors();
    const long s64Resident = ResidentKb();
    const int s32Before = m_objDaemon.Count("boxes parse success");

    RECEIVED_S stReceived;
    std::thread objReceiver([&] { stReceived = Receive(kGroup, kGroupPort, 8); });
    const int s32Sent = Attack(Seconds(7));
    objReceiver.join();
    EXPECT_EQ(Ask(), objSettings);
    EXPECT_GT(stReceived.s32Pictures, 30);
    EXPECT_EQ(stReceived.s64Gaps, 0);
    EXPECT_EQ(m_objDaemon.Count("switch status:1"), 1);
    /* A reply may be on its way at either look. */
    EXPECT_LT(m_objDaemon.Descriptors(), u64Descriptors + 10);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) /* they keep what was freed */
    EXPECT_LT(ResidentKb(), s64Resident + 1024);
#endif
    RecordProperty("kB", std::to_string(s64Resident) + " to " + std::to_string(ResidentKb()));
    RecordProperty("sent", s32Sent);
    EXPECT_GT(m_objDaemon.Count("boxes parse success") - s32Before, s32Sent / 2) << "was not read";
    EXPECT_GT(s32Sent, 1000);
}
} // namespace
