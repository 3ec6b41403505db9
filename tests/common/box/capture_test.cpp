#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/box/capture.h"
#include "framework/unique_fd.h"
#include "tests/support/fake_router.h"
#include "tests/support/log_capture.h"
#include "tests/support/moved_time.h"

namespace
{
std::string Lines(const std::vector<std::string> &i_strLines)
{
    std::string strDatagram;
    for (const std::string &strLine : i_strLines) {
        strDatagram += strLine + '\0';
    }
    return strDatagram;
}

std::string Announce(const std::string &i_strEvent)
{
    return Lines({"change@/devices/i2c-1/1-000f", "ACTION=change", "SUBSYSTEM=i2c",
                  "DRIVER=tc358743", "EVENT=" + i_strEvent});
}

/* Parses a datagram from a buffer of exactly its size and the two NULs, so that the address
 * sanitizer sees any read behind it. */
void Parse(const std::string &i_strDatagram)
{
    static CCapture s_objCapture;
    std::unique_ptr<char[]> pBuffer(new char[i_strDatagram.size() + 2]());
    memcpy(pBuffer.get(), i_strDatagram.data(), i_strDatagram.size());
    uevent stEvent;
    s_objCapture.parse_event(pBuffer.get(), &stEvent);
}

TEST(CaptureParseTest, TimingTexts)
{
    struct {
        const char *pText;
        INPUT_TIMING_S stTiming;
    } stRows[] = {
        {"1920x1080@30-1", {1920, 1080, 30, 1}},
        {"1920x1080", {1920, 1080, 0, 0}},
        {"1920 x1080@60-0", {1920, 0, 0, 0}},
        {" 1920x 1080@ +60-\t1 trailing", {1920, 1080, 60, 1}},
        {"-1x-2@-3--4", {-1, -2, -3, -4}},
        {"2147483648x-2147483649@99999999999999999999-0", {INT_MAX, INT_MIN, INT_MAX, 0}},
    };
    std::size_t u64Sent = 0;
    for (const auto &stRow : stRows) {
        Parse(Announce(stRow.pText));
        std::vector<MSG_DESC_INFO_S> stSent = fake_router::Sent(MSG_ENC_VIDEO_CHG);
        ASSERT_EQ(stSent.size(), ++u64Sent) << stRow.pText;
        EXPECT_EQ(PayloadOf<INPUT_TIMING_S>(stSent.back()), stRow.stTiming) << stRow.pText;
    }
}

TEST(CaptureParseTest, MessageAndLogLines)
{
    CLogCapture objLog;
    Parse(Announce("1280x720@50-0"));
    MSG_DESC_INFO_S stExpected = {1, 9, 2, 0, 0x803, {}, {}};
    const SInt32 s32Timing[] = {1280, 720, 50, 0};
    memcpy(stExpected.payload, s32Timing, 16);
    ASSERT_EQ(fake_router::Sent(MSG_ENC_VIDEO_CHG).size(), 1U);
    EXPECT_EQ(memcmp(&fake_router::Sent(MSG_ENC_VIDEO_CHG)[0], &stExpected, sizeof(stExpected)), 0);
    std::string strLog;
    for (const std::string &strLine : objLog.Lines()) {
        strLog += strLine.substr(0, strLine.find(" --[")) + "\n";
    }
    EXPECT_EQ(strLog, "DEBUG line:2,msg:{ACTION=change}\n"
                      "DEBUG line:3,msg:{SUBSYSTEM=i2c}\n"
                      "DEBUG line:4,msg:{DRIVER=tc358743}\n"
                      "DEBUG line:5,msg:{EVENT=1280x720@50-0}\n"
                      "INFO event {'tc358743', 'i2c', 'change', '1280x720@50-0'}\n"
                      "INFO width:1280, height:720, fps:50, interlaced:0\n");
}

TEST(CaptureParseTest, OnlyTheBridgeOnItsBusIsATiming)
{
    struct {
        std::vector<std::string> strLines;
        std::size_t u64Sent;
    } stRows[] = {
        {{"DRIVER=tc358743", "SUBSYSTEM=i2c"}, 1}, /* no EVENT: all zeros */
        {{"DRIVER=tc358743x", "SUBSYSTEM=i2c-dev", "EVENT=1x1@1-1"}, 1},
        {{"DRIVER=tc35874", "SUBSYSTEM=i2c", "EVENT=1x1@1-1"}, 0},
        {{"DRIVER=tc358743", "SUBSYSTEM=spi", "EVENT=1x1@1-1"}, 0},
        {{"DRIVER=tc358743", "SUBSYSTEM=i2c", "SUBSYSTEM=usb"}, 0}, /* the later line holds */
        {{"DRIVER=tc358743", "", "SUBSYSTEM=i2c"}, 0},              /* the empty line ends it */
    };
    for (const auto &stRow : stRows) {
        std::size_t u64Before = fake_router::Sent(MSG_ENC_VIDEO_CHG).size();
        Parse(Lines(stRow.strLines));
        EXPECT_EQ(fake_router::Sent(MSG_ENC_VIDEO_CHG).size() - u64Before, stRow.u64Sent)
            << testing::PrintToString(stRow.strLines);
    }
    EXPECT_EQ(PayloadOf<INPUT_TIMING_S>(fake_router::Sent(MSG_ENC_VIDEO_CHG)[0]), INPUT_TIMING_S());
}

/* The module's thread on a real uevent socket; datagrams come from a socket of the test's own,
 * addressed to this process alone. */
class CaptureLoopTest : public testing::Test
{
protected:
    void SetUp() override
    {
        fake_router::OnMessage([this](const MSG_DESC_INFO_S &i_stMsg, void *) {
            return i_stMsg.dst == MODULE_CAPTURE ? m_objCapture.PushMsg(&i_stMsg) : 1;
        });
        moved_time::DivideSleeps(20);
        m_objFd.Reset(socket(AF_NETLINK, SOCK_DGRAM, NETLINK_KOBJECT_UEVENT));
        ASSERT_TRUE(m_objFd);
    }

    void TearDown() override { m_objCapture.StopAndWaitForThread(); }

    /* False when the system keeps unicast on this protocol for a privileged user. */
    bool Send(const std::string &i_strDatagram)
    {
        struct sockaddr_nl stAddr = {};
        stAddr.nl_family = AF_NETLINK;
        stAddr.nl_pid = static_cast<UInt32>(getpid());
        ssize_t s64Sent = sendto(m_objFd.Get(), i_strDatagram.data(), i_strDatagram.size(), 0,
                                 reinterpret_cast<struct sockaddr *>(&stAddr), sizeof(stAddr));
        return s64Sent == static_cast<ssize_t>(i_strDatagram.size());
    }

    CLogCapture m_objLog;
    CCapture m_objCapture;
    UniqueFd m_objFd;
};

TEST_F(CaptureLoopTest, RetriesTheSocketUntilItIsFree)
{
    CCapture objOther;
    UniqueFd objTaken(objOther.open_uevent_socket());
    ASSERT_TRUE(objTaken);
    m_objCapture.Start();
    ASSERT_TRUE(m_objLog.WaitFor("INFO uevent device_fd = -1 --[", 2));
    EXPECT_GE(m_objLog.Count("ERROR open_uevent_socket error --["), 2);
    EXPECT_GE(moved_time::SleptMicroseconds(), 2000000U);
    objTaken.Reset();
    ASSERT_TRUE(m_objLog.WaitFor("INFO thread info [capture:"));
    ASSERT_TRUE(m_objLog.WaitFor("uevent device_fd = ", m_objLog.Count("device_fd = -1") + 1));
    m_objCapture.StopAndWaitForThread();

    EXPECT_TRUE(UniqueFd(objOther.open_uevent_socket())) << "the module has not closed its own";
}

TEST_F(CaptureLoopTest, DatagramsArriveWholeAndInOrder)
{
    m_objCapture.Start();
    ASSERT_TRUE(m_objLog.WaitFor("INFO uevent device_fd = "));
    if (!Send(Announce("1920x1080@60-0"))) {
        GTEST_SKIP() << "cannot send to a uevent socket: " << strerror(errno)
                     << " (needs CAP_NET_ADMIN)";
    }
    /* Exactly the buffer's size, without a NUL at the end. */
    std::string strFull = Announce("1x2@3-4") + "EVENT=5x6@7-8";
    strFull.insert(0, std::string(4096 - strFull.size() - 1, 'f') + '\0');
    ASSERT_EQ(strFull.size(), 4096U);
    ASSERT_TRUE(Send(strFull));
    ASSERT_TRUE(Send(strFull + "9")); /* cut where the buffer ends */
    ASSERT_TRUE(Send(Announce("720x576@25-1")));
    ASSERT_TRUE(fake_router::WaitForSent(MSG_ENC_VIDEO_CHG, 4));
    std::vector<MSG_DESC_INFO_S> stSent = fake_router::Sent(MSG_ENC_VIDEO_CHG);
    const INPUT_TIMING_S stExpected[] = {
        {1920, 1080, 60, 0}, {5, 6, 7, 8}, {5, 6, 7, 8}, {720, 576, 25, 1}};
    for (std::size_t i = 0; i < 4; i++) {
        EXPECT_EQ(PayloadOf<INPUT_TIMING_S>(stSent[i]), stExpected[i]) << i;
    }
    EXPECT_FALSE(m_objLog.Has("ERROR"));
}
} // namespace
