/*
 * Event monitor task.
 */
#include "common/box/eventmonitor.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/box/utils.h"
#include "common/bus/log.h"
#include "framework/assertion.h"
#include "framework/ev.h"
#include "framework/socketutils.h"

namespace
{
constexpr UInt32 kNonBlocking = 1;
constexpr long kRetryMs = 1000;
constexpr long kReportMs = 10;
constexpr UInt16 kNotifyPort = 23456;
constexpr char kInterface[] = "eth0";
} // namespace

CEventMonitorTask::CEventMonitorTask(EventCallback i_pCallback, const char *i_pAddress,
                                     UInt16 i_u16Port)
    : m_udpRecvSocket(this, kNonBlocking), m_objTimeoutTask(this, 0, kTimeoutEvent),
      m_pTextCallback(nullptr), m_pTextReplyCallback(nullptr), m_pCallback(i_pCallback),
      m_pAddress(i_pAddress), m_u16Port(i_u16Port), m_eSocketState(SOCKET_STATE_INIT),
      m_udpSendSocket(nullptr, 0), m_u32NotifyAddress(0), m_bFailureLogged(false)
{
    InitSendSocket();
}

void CEventMonitorTask::SetTextCallbacks(EventTextCallback i_pText,
                                         EventTextReplyCallback i_pTextReply)
{
    m_pTextCallback = i_pText;
    m_pTextReplyCallback = i_pTextReply;
}

SInt64 CEventMonitorTask::Run()
{
    const UInt32 u32Events = GetEvents();
    if (u32Events & kKillEvent) {
        m_eSocketState = SOCKET_STATE_CLOSED;
        return -1;
    }
    if (u32Events & kStartEvent) {
        OnStart();
    }
    if ((u32Events & kReadEvent) && m_eSocketState == SOCKET_STATE_READY) {
        OnRead();
    }
    if (u32Events & kTimeoutEvent) {
        OnTimeout();
    }
    return 0;
}

void CEventMonitorTask::OnStart()
{
    assert(SOCKET_STATE_INIT == m_eSocketState);
    const OS_Error s32Err = m_udpRecvSocket.Open();
    if (s32Err != 0) {
        SetUpFailed("open", s32Err);
        return;
    }
    m_udpRecvSocket.ReuseAddr();
    m_eSocketState = SOCKET_STATE_OPENED;
    OnTimeout();
}

void CEventMonitorTask::OnRead()
{
    UInt32 u32Address = 0;
    UInt16 u16Port = 0;
    UInt32 u32RecvLen = 0;
    char szReceived[MAX_SND_RCV_BUF_SIZE + 1] = {};
    OS_Error s32Err = m_udpRecvSocket.RecvFrom(&u32Address, &u16Port, szReceived,
                                               MAX_SND_RCV_BUF_SIZE, &u32RecvLen);
    if (s32Err == 0) {
        HandleDatagram(szReceived, u32RecvLen, u32Address, u16Port);
        /* One datagram a run: the next one that waits is read by the run this causes. */
        Signal(kReadEvent);
    } else if (s32Err != EAGAIN) {
        fprintf(stderr, "receive a message failed <0x%x>\n", static_cast<unsigned>(s32Err));
    }
    m_udpRecvSocket.RequestEvent(EV_READ);
}

void CEventMonitorTask::HandleDatagram(char *i_pReceived, UInt32 u32RecvLen, UInt32 i_u32Address,
                                       UInt16 i_u16Port)
{
    assert(u32RecvLen < MAX_SND_RCV_BUF_SIZE + 1);
    i_pReceived[u32RecvLen] = '\0';
    /* One byte more than the callbacks are told of, so that a text always ends. */
    char szReply[MAX_SND_RCV_BUF_SIZE + 1] = {};
    if (m_pTextCallback != nullptr) {
        m_pTextCallback(i_pReceived);
    }
    if (m_pTextReplyCallback != nullptr) {
        m_pTextReplyCallback(i_pReceived, szReply, MAX_SND_RCV_BUF_SIZE);
        if (szReply[0] != '\0') {
            m_udpRecvSocket.SendTo(i_u32Address, i_u16Port, szReply,
                                   static_cast<UInt32>(strlen(szReply)));
        }
    }
    if (m_pCallback == nullptr) {
        return;
    }
    int s32ReplyLength = 0;
    int s32Result = m_pCallback(i_pReceived, static_cast<int>(u32RecvLen), szReply,
                                MAX_SND_RCV_BUF_SIZE, s32ReplyLength);
    if (s32Result > 0 && s32ReplyLength > 0) {
        assert(static_cast<UInt32>(s32ReplyLength) <= MAX_SND_RCV_BUF_SIZE);
        m_udpRecvSocket.SendTo(i_u32Address, i_u16Port, szReply,
                               static_cast<UInt32>(s32ReplyLength));
    }
}

void CEventMonitorTask::OnTimeout()
{
    const UInt32 u32Address = CSocketUtils::ConvertStringToAddr(m_pAddress);
    const bool bMulticast = CSocketUtils::IsMulticastIPAddr(u32Address);
    if (m_eSocketState == SOCKET_STATE_READY && bMulticast) {
        m_objIGMP.MemberShip();
        m_objTimeoutTask.SetTimeout(kReportMs);
    }
    if (m_eSocketState == SOCKET_STATE_OPENED) {
        const OS_Error s32Err = m_udpRecvSocket.Bind(u32Address, m_u16Port);
        if (s32Err != 0) {
            SetUpFailed("bind", s32Err);
            m_objTimeoutTask.SetTimeout(kRetryMs);
            return;
        }
        m_eSocketState = SOCKET_STATE_BOUND;
    }
    if (m_eSocketState != SOCKET_STATE_BOUND) {
        return;
    }
    if (bMulticast) {
        SetUpMulticast(u32Address);
    } else {
        BeReady();
        m_objTimeoutTask.SetTimeout(0);
    }
}

void CEventMonitorTask::SetUpMulticast(UInt32 i_u32Address)
{
    printf("join multicast now.");
    fflush(stdout); /* it is no whole line */
    const UInt32 u32Local = GetLocalIP(kInterface);
    m_udpRecvSocket.SetMulticastInterface(u32Local);
    OS_Error s32Err = m_udpRecvSocket.JoinMulticast(i_u32Address);
    if (s32Err != 0) {
        printf("join multicast failed, %d: %s\n", s32Err, strerror(s32Err));
        SetUpFailed("join", s32Err);
        m_objTimeoutTask.SetTimeout(kRetryMs);
        return;
    }
    BeReady();
    m_objIGMP.Open(u32Local, i_u32Address);
    m_objTimeoutTask.SetTimeout(kReportMs);
}

/* Logged once, not with each of the retries, which come every second. */
void CEventMonitorTask::SetUpFailed(const char *i_pStep, OS_Error i_s32Err)
{
    if (!m_bFailureLogged) {
        LOG_WARN("control channel %s:%u cannot be set up, %s: %s", m_pAddress,
                 static_cast<unsigned>(m_u16Port), i_pStep, strerror(i_s32Err));
        m_bFailureLogged = true;
    }
}

void CEventMonitorTask::BeReady()
{
    m_eSocketState = SOCKET_STATE_READY;
    m_udpRecvSocket.RequestEvent(EV_READ);
    if (m_bFailureLogged) {
        LOG_INFO("control channel %s:%u is set up now", m_pAddress,
                 static_cast<unsigned>(m_u16Port));
        m_bFailureLogged = false;
    }
}

void CEventMonitorTask::InitSendSocket()
{
    m_u32NotifyAddress = CSocketUtils::ConvertStringToAddr("127.0.0.1");
    if (m_udpSendSocket.Open() != 0) {
        LOG_ERROR("CEventMonitorTask InitSendSocket open err");
        return;
    }
    OS_Error s32Err = m_udpSendSocket.Bind(m_u32NotifyAddress, 0);
    if (s32Err != 0) {
        LOG_ERROR("CEventMonitorTask m_udpSendSocket failed to Bind<0x%x>, err: <%s>",
                  m_u32NotifyAddress, strerror(s32Err));
    }
}

void CEventMonitorTask::SendNotifyMsg(const char *i_pData, int i_s32Length)
{
    if (i_pData == nullptr || i_s32Length < 1) {
        LOG_ERROR("CEventMonitorTask SendNotifyMsg para <%d> err", i_s32Length);
        return;
    }
    OS_Error s32Err = m_udpSendSocket.SendTo(m_u32NotifyAddress, kNotifyPort, i_pData,
                                             static_cast<UInt32>(i_s32Length));
    if (s32Err != 0) {
        LOG_ERROR("SendNotifyMsg send errno<%d>", s32Err);
    }
}
