/*
 * IPv4 sockets.
 */
#include "framework/socket.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <netinet/tcp.h>
#include <sys/socket.h>

#include "framework/assertion.h"
#include "framework/socketutils.h"

CEventThread *CSocket::s_pEventThread = nullptr;

void CSocket::Initialize()
{
    /* writev(2) has no flag against the signal, so it is ignored as a whole. */
    struct sigaction stAction = {};
    if (sigaction(SIGPIPE, nullptr, &stAction) == 0 && SIG_DFL == stAction.sa_handler) {
        (void)signal(SIGPIPE, SIG_IGN);
    }
    if (nullptr == s_pEventThread) {
        s_pEventThread = new CEventThread;
    }
}

void CSocket::StartThread()
{
    static Bool s_bStarted = false;
    assert(s_pEventThread != NULL);
    if (!s_bStarted) {
        s_bStarted = true;
        s_pEventThread->Start();
    }
}

CSocket::CSocket(CTask *i_pTask, unsigned int i_u32Flags)
    : CEventContext(kInvalidFileDesc, s_pEventThread),
      m_u32Flags(i_u32Flags), m_stLocalAddr{}, m_stRemoteAddr{}, m_pLocalAddrStrPtr(nullptr),
      m_pLocalDNSStrPtr(nullptr), m_szPortBuffer{},
      m_objPortStr(m_szPortBuffer, sizeof(m_szPortBuffer)), m_bOpened(false)
{
    SetTask(i_pTask);
}

OS_Error CSocket::Open(int i_s32Type)
{
    assert(m_s32FileDesc == CEventContext::kInvalidFileDesc);
    if (m_bOpened) {
        m_u32Flags &= ~static_cast<UInt32>(kBound | kConnected);
        m_stLocalAddr = {};
        m_stRemoteAddr = {};
        m_pLocalAddrStrPtr = nullptr;
        m_pLocalDNSStrPtr = nullptr;
        m_objPortStr.m_u32Len = sizeof(m_szPortBuffer);
    }
    m_bOpened = true;
    m_s32FileDesc = socket(AF_INET, i_s32Type | SOCK_CLOEXEC, 0);
    if (kInvalidFileDesc == m_s32FileDesc) {
        return errno;
    }
    if ((m_u32Flags & kNonBlocking) != 0) {
        InitNonBlocking(m_s32FileDesc);
    }
    return 0;
}

void CSocket::SetOption(int i_s32Level, int i_s32Option, int i_s32Value)
{
    [[maybe_unused]] SInt32 s32Err =
        setsockopt(m_s32FileDesc, i_s32Level, i_s32Option, &i_s32Value, sizeof(i_s32Value));
    assert(s32Err == 0);
}

void CSocket::ReuseAddr()
{
    SetOption(SOL_SOCKET, SO_REUSEADDR, 1);
}

OS_Error CSocket::Bind(unsigned int i_u32Addr, unsigned short i_u16Port)
{
    m_stLocalAddr = {};
    m_stLocalAddr.sin_family = AF_INET;
    m_stLocalAddr.sin_port = htons(i_u16Port);
    m_stLocalAddr.sin_addr.s_addr = htonl(i_u32Addr);
    socklen_t u32Len = sizeof(m_stLocalAddr);
    if (bind(m_s32FileDesc, reinterpret_cast<struct sockaddr *>(&m_stLocalAddr), u32Len) != 0) {
        OS_Error s32Err = errno;
        m_stLocalAddr.sin_port = 0;
        m_stLocalAddr.sin_addr.s_addr = 0;
        return s32Err;
    }
    (void)getsockname(m_s32FileDesc, reinterpret_cast<struct sockaddr *>(&m_stLocalAddr), &u32Len);
    m_u32Flags |= kBound;
    return 0;
}

void CSocket::SetSocketType(unsigned int i_u32Flags)
{
    m_u32Flags |= i_u32Flags;
    if ((m_u32Flags & kNonBlocking) != 0) {
        InitNonBlocking(m_s32FileDesc);
    }
}

void CSocket::BroadCast()
{
    SetOption(SOL_SOCKET, SO_BROADCAST, 1);
}

void CSocket::NoDelay()
{
    SetOption(IPPROTO_TCP, TCP_NODELAY, 1);
}

void CSocket::KeepAlive()
{
    SetOption(SOL_SOCKET, SO_KEEPALIVE, 1);
}

void CSocket::SetSocketBufSize(unsigned int i_u32Bytes)
{
    SetOption(SOL_SOCKET, SO_SNDBUF, static_cast<int>(i_u32Bytes));
}

OS_Error CSocket::SetSocketRcvBufSize(unsigned int i_u32Bytes)
{
    int s32Size = static_cast<int>(i_u32Bytes);
    if (setsockopt(m_s32FileDesc, SOL_SOCKET, SO_RCVBUF, &s32Size, sizeof(s32Size)) != 0) {
        return errno;
    }
    return 0;
}

CPLString *CSocket::GetLocalAddrStr()
{
    if (nullptr == m_pLocalAddrStrPtr) {
        for (UInt32 i = 0; i < CSocketUtils::GetNumIPAddrs(); i++) {
            if (CSocketUtils::GetIPAddr(i) == ntohl(m_stLocalAddr.sin_addr.s_addr)) {
                m_pLocalAddrStrPtr = CSocketUtils::GetIPAddrStr(i);
                break;
            }
        }
    }
    assert(m_pLocalAddrStrPtr != NULL);
    return m_pLocalAddrStrPtr;
}

CPLString *CSocket::GetLocalDNSStr()
{
    assert(m_stLocalAddr.sin_addr.s_addr != INADDR_ANY);
    if (nullptr == m_pLocalDNSStrPtr) {
        for (UInt32 i = 0; i < CSocketUtils::GetNumIPAddrs(); i++) {
            if (CSocketUtils::GetIPAddr(i) == ntohl(m_stLocalAddr.sin_addr.s_addr)) {
                m_pLocalDNSStrPtr = CSocketUtils::GetDNSNameStr(i);
                break;
            }
        }
    }
    if (nullptr == m_pLocalDNSStrPtr) {
        m_pLocalDNSStrPtr = GetLocalAddrStr();
    }
    assert(m_pLocalDNSStrPtr != NULL);
    return m_pLocalDNSStrPtr;
}

CPLString *CSocket::GetLocalPortStr()
{
    if (m_objPortStr.m_u32Len == sizeof(m_szPortBuffer)) {
        snprintf(m_szPortBuffer, sizeof(m_szPortBuffer), "%d", ntohs(m_stLocalAddr.sin_port));
        m_objPortStr.m_u32Len = static_cast<UInt32>(strlen(m_szPortBuffer));
    }
    return &m_objPortStr;
}

OS_Error CSocket::TransferFailed()
{
    OS_Error s32Err = errno;
    if (s32Err != EAGAIN && IsConnected()) {
        m_u32Flags &= ~static_cast<UInt32>(kConnected);
    }
    return s32Err;
}

OS_Error CSocket::Send(const char *i_pData, unsigned int i_u32Len, unsigned int *o_pSentLen)
{
    assert(i_pData != NULL);
    if (!IsConnected()) {
        return ENOTCONN;
    }
    ssize_t s64Len = 0;
    do {
        s64Len = send(m_s32FileDesc, i_pData, i_u32Len, 0);
    } while (s64Len < 0 && EINTR == errno);
    if (s64Len < 0) {
        return TransferFailed();
    }
    *o_pSentLen = static_cast<unsigned int>(s64Len);
    return 0;
}

OS_Error CSocket::WriteV(const struct iovec *i_pIOVector, unsigned int i_u32NumVectors,
                         unsigned int *o_pSentLen)
{
    assert(i_pIOVector != NULL);
    if (!IsConnected()) {
        return ENOTCONN;
    }
    ssize_t s64Len = 0;
    do {
        s64Len = writev(m_s32FileDesc, i_pIOVector, static_cast<int>(i_u32NumVectors));
    } while (s64Len < 0 && EINTR == errno);
    if (s64Len < 0) {
        return TransferFailed();
    }
    if (o_pSentLen != nullptr) {
        *o_pSentLen = static_cast<unsigned int>(s64Len);
    }
    return 0;
}

OS_Error CSocket::Read(void *o_pBuffer, unsigned int i_u32Len, unsigned int *o_pRecvLen)
{
    assert(o_pRecvLen != NULL);
    assert(o_pBuffer != NULL);
    if (!IsConnected()) {
        return ENOTCONN;
    }
    ssize_t theRecvLen = 0;
    do {
        theRecvLen = recv(m_s32FileDesc, o_pBuffer, i_u32Len, 0);
    } while (theRecvLen < 0 && EINTR == errno);
    if (theRecvLen < 0) {
        return TransferFailed();
    }
    if (0 == theRecvLen) {
        m_u32Flags &= ~static_cast<UInt32>(kConnected);
        return ENOTCONN;
    }
    assert(theRecvLen > 0);
    *o_pRecvLen = static_cast<unsigned int>(theRecvLen);
    return 0;
}
