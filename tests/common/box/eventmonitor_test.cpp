#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include <net/ethernet.h>
#include <sys/socket.h>

#include "common/box/eventmonitor.h"
#include "framework/timeouttask.h"
#include "framework/udpsocket.h"
#include "tests/framework/net_support.h"
#include "tests/support/log_capture.h"
#include "tests/support/loopback.h"
#include "tests/support/private_net.h"

namespace
{
std::atomic<bool> g_bNoSockets{false};
} // namespace

/* Linked in place of socket(2). */
extern "C" int __real_socket(int i_s32Family, int i_s32Type, int i_s32Protocol);
extern "C" int __wrap_socket(int i_s32Family, int i_s32Type, int i_s32Protocol)
{
    if (g_bNoSockets) {
        errno = EMFILE;
        return -1;
    }
    return __real_socket(i_s32Family, i_s32Type, i_s32Protocol);
}

namespace
{
std::mutex g_objMutex; /* guards what the callbacks leave here */
std::vector<std::string> g_strCalls;
int g_s32Result = 0;
int g_s32ReplyLength = 0;

void Called(const std::string &i_strWhat)
{
    const std::lock_guard objLock(g_objMutex);
    g_strCalls.push_back(i_strWhat);
}

/* What the callbacks answer from now on. */
void Answer(int i_s32Result, int i_s32Length)
{
    const std::lock_guard objLock(g_objMutex);
    g_s32Result = i_s32Result;
    g_s32ReplyLength = i_s32Length;
}

std::vector<std::string> Calls()
{
    const std::lock_guard objLock(g_objMutex);
    return g_strCalls;
}

int OnDatagram(char *i_pReceived, int i_s32Length, char *o_pReply, int i_s32Capacity,
               int &o_s32ReplyLength)
{
    EXPECT_EQ(i_pReceived[i_s32Length], '\0');
    EXPECT_EQ(i_s32Capacity, 4096);
    EXPECT_EQ(o_s32ReplyLength, 0);
    memset(o_pReply, 'r', 4096);
    const std::lock_guard objLock(g_objMutex);
    o_s32ReplyLength = g_s32ReplyLength;
    g_strCalls.emplace_back(i_pReceived, i_s32Length);
    return g_s32Result;
}

class CWatchedTask : public CEventMonitorTask
{
public:
    CWatchedTask(const char *i_pAddress, UInt16 i_u16Port)
        : CEventMonitorTask(OnDatagram, i_pAddress, i_u16Port)
    {
        s_s32Alive++;
    }
    ~CWatchedTask() override { s_s32Alive--; }
    SInt64 Run() override
    {
        const SInt64 s64Result = CEventMonitorTask::Run();
        m_eState = GetSocketState();
        m_s32Runs++;
        return s64Result;
    }
    static inline std::atomic<int> s_s32Alive{0};
    std::atomic<SocketState> m_eState{SOCKET_STATE_INIT};
    std::atomic<int> m_s32Runs{0};
};

class EventMonitorTest : public CPrivateNetTest
{
protected:
    ~EventMonitorTest() override
    {
        if (m_pTask != nullptr) {
            m_pTask->Signal(CTask::kKillEvent);
            EXPECT_TRUE(WaitUntil([] { return CWatchedTask::s_s32Alive == 0; }));
            CTaskThreadPool::RemoveThreads();
        }
    }
    void Create(const char *i_pAddress = "127.0.0.1")
    {
        CTaskThreadPool::AddThreads(2);
        CTimeoutTask::Initialize(100);
        StartEvents();
        m_objClient = BindLoopback(0);
        if (m_u16Port == 0) {
            (void)BindLoopback(0, &m_u16Port);
        }
        m_pTask = new CWatchedTask(i_pAddress, m_u16Port);
    }
    bool Reaches(CEventMonitorTask::SocketState i_eState)
    {
        return WaitUntil([&] { return m_pTask->m_eState == i_eState; });
    }
    void StartAndWait()
    {
        Create();
        m_pTask->Signal(CTask::kStartEvent);
        ASSERT_TRUE(Reaches(CEventMonitorTask::SOCKET_STATE_READY));
    }
    void Send(const std::string &i_strBytes)
    {
        SendLoopback(m_objClient.Get(), m_u16Port, i_strBytes);
    }
    /* Waits for as many calls and returns the last. */
    static std::string CallNumber(std::size_t i_u64Count)
    {
        EXPECT_TRUE(WaitUntil([&] { return Calls().size() >= i_u64Count; }));
        return Calls().empty() ? "no call" : Calls().back();
    }

    CWatchedTask *m_pTask = nullptr;
    UInt16 m_u16Port = 0;
    UniqueFd m_objClient;
};

TEST_F(EventMonitorTest, EveryDatagramIsHandedOverWholeUpToTheLimit)
{
    StartAndWait();
    const std::string strLong = std::string(4095, 'a') + "bc";
    std::size_t u64Calls = 0;
    for (std::size_t u64Size : {1U, 0U, 4095U, 4096U, 4097U}) {
        Send(strLong.substr(0, u64Size));
        EXPECT_EQ(CallNumber(++u64Calls), strLong.substr(0, std::min<std::size_t>(u64Size, 4096)));
    }
    for (int i = 0; i < 60; i++) { /* more than one waits when the task gets round to it */
        Send(std::to_string(i));
    }
    EXPECT_EQ(CallNumber(65), "59");
}

TEST_F(EventMonitorTest, AnAnswerNeedsAResultAndALengthAboveZero)
{
    StartAndWait();
    const struct {
        int s32Result, s32Length;
        std::size_t u64Sent;
    } stCases[] = {{0, 5, 0}, {1, 0, 0}, {-1, 5, 0}, {7, 4096, 4096}};
    std::size_t u64Calls = 0;
    for (const auto &stCase : stCases) {
        Answer(stCase.s32Result, stCase.s32Length);
        Send("ask");
        CallNumber(++u64Calls);
        /* Answers come in order, so one too many is noticed with the next. */
        if (stCase.u64Sent > 0) {
            EXPECT_EQ(ReceiveLoopback(m_objClient.Get(), 20000), std::string(stCase.u64Sent, 'r'));
        }
    }
}

TEST_F(EventMonitorTest, TheOlderCallbacksTakeAndAnswerTextsFirst)
{
    Create();
    m_pTask->SetTextCallbacks(
        [](char *i_pReceived) {
            Called(std::string("text ") + i_pReceived);
            return 0;
        },
        [](char *i_pReceived, char *o_pReply, int i_s32Capacity) {
            Called("reply to " + std::string(i_pReceived) + std::to_string(i_s32Capacity));
            strcpy(o_pReply, *i_pReceived == 't' ? "the answer" : "");
            return 0;
        });
    m_pTask->Signal(CTask::kStartEvent);
    ASSERT_TRUE(Reaches(CEventMonitorTask::SOCKET_STATE_READY));
    Send("one");
    EXPECT_EQ(CallNumber(3), "one");
    Answer(2, 2);
    Send(std::string("two\0x", 5));
    EXPECT_EQ(ReceiveLoopback(m_objClient.Get(), 20000), "the answer");
    EXPECT_EQ(ReceiveLoopback(m_objClient.Get(), 20000), "rr");
    EXPECT_EQ(Calls(), (std::vector<std::string>{"text one", "reply to one4096", "one", "text two",
                                                 "reply to two4096", std::string("two\0x", 5)}));
}

TEST_F(EventMonitorTest, ATakenPortIsTriedUntilItIsFree)
{
    CLogCapture objLog;
    UniqueFd objHolder = BindLoopback(0, &m_u16Port);
    Create();
    m_pTask->Signal(CTask::kStartEvent);
    ASSERT_TRUE(Reaches(CEventMonitorTask::SOCKET_STATE_OPENED));
    EXPECT_TRUE(WaitUntil([&] { return m_pTask->m_s32Runs >= 3; })) << "no retry";
    EXPECT_EQ(m_pTask->m_eState, CEventMonitorTask::SOCKET_STATE_OPENED);
    objHolder.Reset();
    ASSERT_TRUE(Reaches(CEventMonitorTask::SOCKET_STATE_READY));
    Send("now");
    EXPECT_EQ(CallNumber(1), "now");
    const std::string strChannel = "control channel 127.0.0.1:" + std::to_string(m_u16Port);
    EXPECT_EQ(objLog.Count("WARN " + strChannel + " cannot be set up, bind: Address already"), 1);
    EXPECT_EQ(objLog.Count("INFO " + strChannel + " is set up now --["), 1);
}

TEST_F(EventMonitorTest, ASocketThatCannotBeOpenedIsNotTriedAgain)
{
    CLogCapture objLog;
    Create();
    /* Its sending socket could be opened; the receiving one cannot. */
    EXPECT_EQ(objLog.Count("ERROR"), 0);
    g_bNoSockets = true;
    m_pTask->Signal(CTask::kStartEvent);
    EXPECT_TRUE(WaitUntil([&] { return m_pTask->m_s32Runs == 1; }));
    EXPECT_EQ(objLog.Count("cannot be set up, open: Too many open files --["), 1);
    {
        CWatchedTask objOther("127.0.0.1", m_u16Port);
        EXPECT_TRUE(objLog.Has("ERROR CEventMonitorTask InitSendSocket open err --["));
        EXPECT_EQ(CUDPSocket(nullptr, 0).Open(), EMFILE);
    }
    g_bNoSockets = false;
    m_pTask->Signal(CTask::kTimeoutEvent);
    EXPECT_TRUE(WaitUntil([&] { return m_pTask->m_s32Runs == 2; }));
    EXPECT_EQ(m_pTask->m_eState, CEventMonitorTask::SOCKET_STATE_INIT);
}

TEST_F(EventMonitorTest, NotificationsGoToTheirPortOrAreRefused)
{
    Create();
    const UniqueFd objListener = BindLoopback(23456);
    CLogCapture objLog;
    m_pTask->SendNotifyMsg("text", 0);
    m_pTask->SendNotifyMsg(nullptr, 5);
    m_pTask->SendNotifyMsg("text", 3);
    EXPECT_EQ(ReceiveLoopback(objListener.Get(), 20000), "tex");
    m_pTask->SendNotifyMsg(std::string(70000, 'x').c_str(), 70000);
    for (const char *pLine : {"SendNotifyMsg para <0> err --[", "SendNotifyMsg para <5> err --[",
                              "send errno<90> --["}) {
        EXPECT_EQ(objLog.Count(pLine), 1) << pLine;
    }
    EXPECT_EQ(objLog.Count("ERROR "), 3);
}

/* How many reports of 239.1.2.3 by version 2 of the protocol leave eth0, two at most. */
int CountReports(int i_s32Packets)
{
    const UInt8 aReport[] = {0xC0, 0x00, 0x02, 0x09, 0xEF, 0x01, 0x02, 0x03,
                             0x16, 0x00, 0xF8, 0xFA, 0xEF, 0x01, 0x02, 0x03};
    int s32Count = 0;
    std::string strPacket;
    while (s32Count < 2 && strPacket != "none") {
        strPacket = ReceiveLoopback(i_s32Packets, 10000);
        s32Count += strPacket.size() >= 28 && memcmp(strPacket.data() + 12, aReport, 16) == 0;
    }
    return s32Count;
}

TEST_F(EventMonitorTest, AGroupIsJoinedAsSoonAsItCanBeAndReportedFromThenOn)
{
    if (system("ip route del 224.0.0.0/4 && ip link add eth0 type veth peer name switch0") != 0) {
        GTEST_SKIP() << "no eth0 in the private network";
    }
    const UniqueFd objPackets(socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_ALL)));
    Create("239.1.2.3");
    testing::internal::CaptureStdout();
    m_pTask->Signal(CTask::kStartEvent);
    ASSERT_TRUE(Reaches(CEventMonitorTask::SOCKET_STATE_BOUND));
    EXPECT_EQ(system("ip addr add 192.0.2.9/24 dev eth0 && ip link set switch0 up && "
                     "ip link set eth0 up && ip route add 224.0.0.0/4 dev eth0"),
              0);
    ASSERT_TRUE(Reaches(CEventMonitorTask::SOCKET_STATE_READY));
    const std::string strPrinted = testing::internal::GetCapturedStdout();
    /* The threads of the framework print too, as they start. */
    EXPECT_NE(strPrinted.find("join multicast failed, 19: No such device\n"), std::string::npos);
    EXPECT_EQ(strPrinted.substr(strPrinted.size() - 19), "join multicast now.") << strPrinted;
    EXPECT_EQ(CountReports(objPackets.Get()), 2);

    struct sockaddr_in stGroup = Loopback(m_u16Port);
    stGroup.sin_addr.s_addr = htonl(0xEF010203);
    const struct in_addr stFrom = {htonl(0xC0000209)};
    const UniqueFd objSender(socket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_EQ(setsockopt(objSender.Get(), IPPROTO_IP, IP_MULTICAST_IF, &stFrom, sizeof(stFrom)), 0);
    sendto(objSender.Get(), "to all", 6, 0, reinterpret_cast<struct sockaddr *>(&stGroup),
           sizeof(stGroup));
    EXPECT_EQ(CallNumber(1), "to all");
}
} // namespace
