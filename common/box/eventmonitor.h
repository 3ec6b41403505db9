/*
 * Event monitor: the task that owns the control channel's socket.
 *
 * It opens and binds the socket in steps that its own time-out repeats until they succeed, joins a
 * multicast group when its address is one, and hands every datagram to a callback. A second socket
 * on 127.0.0.1 sends notifications to local port 23456. The task runs on one task thread at a
 * time; it is deleted by the framework after kKillEvent.
 */
#pragma once

#include "common/box/igmp.h"
#include "framework/task.h"
#include "framework/timeouttask.h"
#include "framework/types.h"
#include "framework/udpsocket.h"

/* Takes a datagram (with a zero byte after its end) and may leave an answer of at most
 * i_s32Capacity bytes in o_pReply; the answer is sent back to the datagram's sender when the result
 * and o_s32ReplyLength are both above 0. */
using EventCallback = int (*)(char *i_pReceived, int i_s32Length, char *o_pReply, int i_s32Capacity,
                              int &o_s32ReplyLength);
/* Older forms: text only, and text with an answer that is a text itself. */
using EventTextCallback = int (*)(char *i_pReceived);
using EventTextReplyCallback = int (*)(char *i_pReceived, char *o_pReply, int i_s32Capacity);

class CEventMonitorTask : public CTask
{
public:
    static constexpr UInt32 MAX_SND_RCV_BUF_SIZE = 4096;

    /* i_pAddress: dotted IPv4 address, unicast or multicast; not copied, must outlive the task.
     * i_u16Port: UDP port to receive on. The task begins to work with kStartEvent. */
    CEventMonitorTask(EventCallback i_pCallback, const char *i_pAddress, UInt16 i_u16Port);

    /* -1 after kKillEvent, else 0. */
    SInt64 Run() override;
    /* Takes the next steps of the set-up that are possible. */
    void OnTimeout();
    void InitSendSocket();

    enum SocketState : UInt32 {
        SOCKET_STATE_INIT = 0,
        SOCKET_STATE_OPENED = 1,
        SOCKET_STATE_BOUND = 2,
        SOCKET_STATE_READY = 3,
        SOCKET_STATE_CLOSED = 4,
    };

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */

    SocketState GetSocketState() const { return m_eSocketState; }
    /* Callbacks of the older forms; null, the default, switches one off. */
    void SetTextCallbacks(EventTextCallback i_pText, EventTextReplyCallback i_pTextReply);
    /* Sends one datagram to the local notification port. i_pData null or i_s32Length below 1 is
     * refused with an ERROR line. */
    void SendNotifyMsg(const char *i_pData, int i_s32Length);

private:
    void OnStart();
    void OnRead();
    void HandleDatagram(char *i_pReceived, UInt32 u32RecvLen, UInt32 i_u32Address,
                        UInt16 i_u16Port);
    void SetUpMulticast(UInt32 i_u32Address);
    void SetUpFailed(const char *i_pStep, OS_Error i_s32Err);
    void BeReady();

    CUDPSocket m_udpRecvSocket;
    CIGMP m_objIGMP;
    CTimeoutTask m_objTimeoutTask;
    EventTextCallback m_pTextCallback;
    EventTextReplyCallback m_pTextReplyCallback;
    EventCallback m_pCallback;
    const char *m_pAddress;
    UInt16 m_u16Port;
    SocketState m_eSocketState;
    CUDPSocket m_udpSendSocket;
    UInt32 m_u32NotifyAddress;
    bool m_bFailureLogged; /* and the channel has not come up since */
};
