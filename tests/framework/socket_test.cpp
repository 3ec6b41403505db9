#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/box/igmp.h"
#include "framework/socketutils.h"
#include "framework/udpsocket.h"
#include "framework/unique_fd.h"
#include "tests/framework/net_support.h"
#include "tests/support/private_net.h"
#include "tests/support/temp_dir.h"

namespace
{
constexpr UInt32 kLoopback = 0x7F000001;

class CTestSocket : public CSocket
{
public:
    explicit CTestSocket(UInt32 i_u32Flags) : CSocket(nullptr, i_u32Flags) {}
    ~CTestSocket() override { CleanupIfWanted(); }
    void Adopt(int i_s32FileDesc) { m_s32FileDesc = i_s32FileDesc; }
};

class CTestUDPSocket : public CUDPSocket
{
public:
    explicit CTestUDPSocket(UInt32 i_u32Flags = kNonBlocking) : CUDPSocket(nullptr, i_u32Flags) {}
    ~CTestUDPSocket() override { CleanupIfWanted(); }
    void OpenAndBind(UInt16 i_u16Port = 0)
    {
        ASSERT_EQ(Open(), 0);
        ASSERT_EQ(Bind(kLoopback, i_u16Port), 0);
    }
    UInt16 Port() const { return ntohs(m_stLocalAddr.sin_port); }
    std::string PortText()
    {
        return std::string(GetLocalPortStr()->m_pPtr, GetLocalPortStr()->m_u32Len);
    }
    /* Length of the next datagram; minus the result if it is not 0. */
    int Receive(char *o_pBuffer, unsigned int i_u32Size)
    {
        m_u32From = 0xDEAD;
        m_u16From = 0xDE;
        unsigned int u32Len = 0xDEAD;
        OS_Error s32Err = RecvFrom(&m_u32From, &m_u16From, o_pBuffer, i_u32Size, &u32Len);
        EXPECT_EQ(s32Err != 0, u32Len == 0xDEAD);
        return s32Err != 0 ? -s32Err : static_cast<int>(u32Len);
    }
    UInt32 m_u32From;
    UInt16 m_u16From;
};

TEST(SocketTest, ThereIsOneEventThread)
{
    StartEvents();
    const auto s64Threads = EntriesIn("/proc/self/task");
    StartEvents();
    EXPECT_EQ(EntriesIn("/proc/self/task"), s64Threads);
}

/* A stream that is gone is a result, and not the end of the process. */
TEST(SocketTest, AStreamPassesBytesUntilItsPeerIsGone)
{
    CSocket::Initialize();
    int aPair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, aPair), 0);
    UniqueFd objPeer(aPair[1]);
    CTestSocket objSocket(0);
    objSocket.Adopt(aPair[0]);
    EXPECT_FALSE(objSocket.IsConnected());
    objSocket.SetSocketType(CSocket::kConnected | CSocket::kNonBlocking);
    unsigned int u32Len = 77;
    char szBuffer[64] = "";
    char szParts[] = "123";
    struct iovec aParts[] = {{szParts, 1}, {szParts, 0}, {szParts + 1, 2}};
    EXPECT_EQ(objSocket.Send("abcdef", 6, &u32Len), 0);
    EXPECT_EQ(u32Len, 6U);
    EXPECT_EQ(objSocket.WriteV(aParts, 3, &u32Len), 0);
    EXPECT_EQ(u32Len, 3U);
    EXPECT_EQ(recv(objPeer.Get(), szBuffer, 9, MSG_WAITALL), 9);
    EXPECT_EQ(std::string(szBuffer, 9), "abcdef123");

    EXPECT_EQ(objSocket.Read(szBuffer, 8, &u32Len), EAGAIN);
    EXPECT_TRUE(objSocket.IsConnected());
    EXPECT_EQ(write(objPeer.Get(), "xyz", 3), 3);
    objPeer.Reset();
    EXPECT_EQ(objSocket.Read(szBuffer, 8, &u32Len), 0);
    EXPECT_EQ(u32Len, 3U);
    EXPECT_EQ(objSocket.Read(szBuffer, 8, &u32Len), ENOTCONN);
    for (bool bScatter : {false, true}) {
        EXPECT_FALSE(objSocket.IsConnected());
        objSocket.SetSocketType(CSocket::kConnected);
        EXPECT_EQ(bScatter ? objSocket.WriteV(aParts, 3, nullptr) : objSocket.Send("x", 1, &u32Len),
                  EPIPE);
    }
    EXPECT_FALSE(objSocket.IsConnected());
}

TEST(SocketDeathTest, WhatTheSystemRefusesIsAResultAndMisuseIsFatal)
{
    CTestSocket objStream(0);
    EXPECT_EQ(objStream.Open(11), EINVAL);
    EXPECT_EQ(objStream.Open(SOCK_RAW), EPROTONOSUPPORT);
    EXPECT_EQ(objStream.Open(SOCK_STREAM), 0);

    CTestUDPSocket objSocket;
    EXPECT_EQ(objSocket.SetSocketRcvBufSize(4096), EBADF);
    EXPECT_EQ(objSocket.SetTtl(1), EBADF);
    ASSERT_EQ(objSocket.Open(), 0);
    EXPECT_DEATH(objSocket.Open(), "m_s32FileDesc == CEventContext::kInvalidFileDesc");
    EXPECT_DEATH(objSocket.GetLocalDNSStr(), "m_stLocalAddr.sin_addr.s_addr != INADDR_ANY");
    ASSERT_EQ(objSocket.Bind(kLoopback, 0), 0);
    EXPECT_DEATH(objSocket.GetLocalAddrStr(), "m_pLocalAddrStrPtr != NULL");
    CSocketUtils::Initialize(false);
    EXPECT_TRUE(objSocket.GetLocalAddrStr()->Equal("127.0.0.1"));
    EXPECT_TRUE(objSocket.GetLocalDNSStr()->Equal("127.0.0.1"));
}

using CSocketNetTest = CPrivateNetTest;
using CUDPSocketNetTest = CPrivateNetTest;

/* What the daemon starts through a shell must not hold its sockets open. */
TEST_F(CSocketNetTest, NoDescriptorIsInherited)
{
    auto objCountInherited = [] {
        int s32Count = 0;
        for (int i = 0; i < 64; i++) {
            const int s32Flags = fcntl(i, F_GETFD);
            s32Count += s32Flags >= 0 && (s32Flags & FD_CLOEXEC) == 0;
        }
        return s32Count;
    };
    const int s32Before = objCountInherited();
    StartEvents();
    CTestUDPSocket objSocket;
    EXPECT_EQ(objSocket.Open(), 0);
    CIGMP objReport;
    objReport.Open(kLoopback, 0xEF010203);
    EXPECT_EQ(objCountInherited(), s32Before);
}

TEST(UDPSocketTest, DatagramsWithTheirSource)
{
    CTestUDPSocket objOne;
    CTestUDPSocket objTwo(CSocket::kNonBlocking | CSocket::kWantsDemuxer);
    objOne.OpenAndBind();
    objTwo.OpenAndBind();
    char szBuffer[8];
    EXPECT_EQ(objTwo.Receive(szBuffer, 8), -EAGAIN);
    EXPECT_EQ(objTwo.m_u32From, 0xDEADU);

    for (const char *pText : {"hello", "", "0123456789"}) {
        EXPECT_EQ(objOne.SendTo(kLoopback, objTwo.Port(), pText, strlen(pText)), 0);
    }
    EXPECT_EQ(objTwo.Receive(szBuffer, 8), 5);
    EXPECT_EQ(std::string(szBuffer, 5), "hello");
    EXPECT_EQ(objTwo.m_u32From, kLoopback);
    EXPECT_EQ(objTwo.m_u16From, objOne.Port());
    EXPECT_EQ(objTwo.Receive(szBuffer, 8), 0);
    EXPECT_EQ(objTwo.Receive(szBuffer, 8), 8);
    EXPECT_EQ(objTwo.Receive(szBuffer, 8), -EAGAIN);
    std::string strHuge(65508, 'x');
    EXPECT_EQ(objOne.SendTo(kLoopback, objTwo.Port(), strHuge.data(), 65508), EMSGSIZE);
}

TEST_F(CUDPSocketNetTest, BindSaysWhichPortAndAFailureOrANewDescriptorLeavesNone)
{
    CTestUDPSocket objOne, objTwo;
    objOne.OpenAndBind(8366);
    EXPECT_EQ(objOne.PortText(), "8366");
    ASSERT_EQ(objTwo.Open(), 0);
    EXPECT_EQ(objTwo.Bind(kLoopback, 8366), EADDRINUSE);
    EXPECT_EQ(objTwo.Port(), 0);
    EXPECT_EQ(objTwo.Bind(0x08080808, 8366), EADDRNOTAVAIL);

    objOne.SetSocketType(CSocket::kConnected);
    objOne.Cleanup();
    ASSERT_EQ(objOne.Open(), 0);
    EXPECT_FALSE(objOne.IsConnected());
    EXPECT_EQ(objOne.Port(), 0);
    EXPECT_EQ(objOne.Bind(kLoopback, 0), 0);
    EXPECT_EQ(objOne.PortText(), std::to_string(objOne.Port()));
}

TEST_F(CUDPSocketNetTest, GroupsAreJoinedAndLeft)
{
    constexpr UInt32 kGroup = 0xEF010203;
    CTestUDPSocket objSender;
    EXPECT_EQ(objSender.Open(), 0);
    objSender.SetMulticastInterface(kLoopback);
    objSender.SetMulticastLoop(1);
    EXPECT_EQ(objSender.SetTtl(0x0107), 0);
    EXPECT_DEATH(objSender.SetMulticastInterface(0x08080808), "s32Err == 0");

    /* Leaving reverses the bytes of the interface's address, which only some addresses bear. */
    for (UInt32 u32Interface : {0x7F00007FU, kLoopback}) {
        CTestUDPSocket objMember;
        ASSERT_EQ(objMember.Open(), 0);
        ASSERT_EQ(objMember.Bind(0, 0), 0);
        const UInt16 u16Port = objMember.Port();
        objMember.SetMulticastInterface(u32Interface);
        EXPECT_EQ(objMember.JoinMulticast(0xC0A80101), EINVAL);
        EXPECT_EQ(objMember.JoinMulticast(kGroup), 0);
        EXPECT_EQ(objSender.SendTo(kGroup, u16Port, "one", 3), 0);
        char szBuffer[8];
        EXPECT_TRUE(WaitUntil([&] { return objMember.Receive(szBuffer, 8) == 3; }));
        EXPECT_EQ(objMember.LeaveMulticast(kGroup), u32Interface == kLoopback ? EADDRNOTAVAIL : 0);
    }
}
} // namespace
