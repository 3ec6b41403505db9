/*
 * Datagram socket of a task: send, receive, and multicast membership and options.
 *
 * Addresses and ports are in host byte order. A socket is used by one thread at a time.
 */
#pragma once

#include <memory>

#include "framework/hashtable.h"
#include "framework/mutex.h"
#include "framework/socket.h"

/* A task that wants the datagrams of one remote address. */
struct CUDPDemuxerTask {
    UInt32 m_u32RemoteAddr = 0;
    UInt16 m_u16RemotePort = 0;
    CUDPDemuxerTask *m_pNextHashEntry = nullptr;
};

class CUDPDemuxerKey
{
public:
    explicit CUDPDemuxerKey(const CUDPDemuxerTask *i_pTask)
        : m_u32Addr(i_pTask->m_u32RemoteAddr), m_u16Port(i_pTask->m_u16RemotePort)
    {
    }
    UInt32 GetHashKey() const { return m_u32Addr + m_u16Port; }
    bool operator==(const CUDPDemuxerKey &) const = default;

private:
    UInt32 m_u32Addr;
    UInt16 m_u16Port;
};

/* Place for the tasks that share one socket; none registers so far. */
class CUDPDemuxer
{
public:
    CUDPDemuxer();

private:
    CHashTable<CUDPDemuxerTask, CUDPDemuxerKey> m_objHashTable;
    CMutex m_objMutex;
};

class CUDPSocket : public CSocket
{
public:
    /* As CSocket; with kWantsDemuxer the socket has a demultiplexer. */
    CUDPSocket(CTask *i_pTask, unsigned int i_u32Flags);
    /* Before the members go, and before the event thread's view of the object changes. */
    ~CUDPSocket() override { CleanupIfWanted(); }

    OS_Error Open() { return CSocket::Open(SOCK_DGRAM); }

    /* Sends one datagram. 0 or errno; asserts that there is a buffer. */
    OS_Error SendTo(unsigned int i_u32RemoteAddr, unsigned short i_u16RemotePort,
                    const void *i_pBuffer, unsigned int i_u32Len);
    /* Takes one datagram, cut to i_u32Len bytes, with its source. 0 or errno (EAGAIN when none
     * waits on a non-blocking socket), then with the outputs as they were. Asserts that the
     * outputs are given. */
    OS_Error RecvFrom(unsigned int *o_pRemoteAddr, unsigned short *o_pRemotePort, void *o_pBuffer,
                      unsigned int i_u32Len, unsigned int *o_pRecvLen);

    /* Membership of a group on the interface with the socket's local address (ip(7)). 0 or
     * errno. */
    OS_Error JoinMulticast(unsigned int i_u32Group);
    /* Makes the address the local one and sends multicast from its interface. Asserts that the
     * system accepts it. */
    void SetMulticastInterface(unsigned int i_u32Addr);

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    /* Leaves a group; the interface is named by the bytes of the local address in reverse order.
     * 0 or errno. */
    OS_Error LeaveMulticast(unsigned int i_u32Group);
    /* Hops that multicast datagrams may take; the low byte counts. 0 or errno. */
    OS_Error SetTtl(unsigned short i_u16Ttl);
    /* 1: the host's own members receive what the socket sends. Asserts that the system accepts
     * it. */
    void SetMulticastLoop(unsigned char i_u8Loop);

private:
    OS_Error ChangeMembership(int i_s32Option, UInt32 i_u32Group, in_addr_t i_u32Interface);

    std::unique_ptr<CUDPDemuxer> m_pDemuxer;
    struct sockaddr_in m_stMsgAddr; /* source of the last datagram */
};
