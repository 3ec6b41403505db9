/*
 * IPv4 socket of a task: an event context with options, an address, a connected flag and results
 * as errno values.
 *
 * A socket is used by one thread at a time, its task's.
 */
#pragma once

#include <netinet/in.h>
#include <sys/uio.h>

#include "framework/eventcontext.h"
#include "framework/plstring.h"
#include "framework/types.h"

class CSocket : public CEventContext
{
public:
    /* Flags of a socket */
    enum : UInt32 {
        kNonBlocking = 0x1,
        kBound = 0x4,
        kConnected = 0x8, /* Send, WriteV and Read require it; a hard error or the end clears it */
        kWantsDemuxer = 0x100,
    };

    /* Creates and starts the event thread that every socket registers with. Initialize comes
     * before the first socket. It also ignores SIGPIPE, unless the program handles it: writing to
     * a peer that is gone is EPIPE. */
    static void Initialize();
    /* Later calls do nothing: the event interface is for one event thread. */
    static void StartThread();

    /* i_pTask: signalled kReadEvent when an event that was requested has come; may be null. */
    CSocket(CTask *i_pTask, unsigned int i_u32Flags);
    ~CSocket() override { CleanupIfWanted(); }

    /* socket(2). 0 or errno; asserts that the socket is not open. What the socket knew of a
     * descriptor that it had before is forgotten. */
    OS_Error Open(int i_s32Type);
    /* SO_REUSEADDR (socket(7)); asserts that the system accepts it. */
    void ReuseAddr();
    /* Address and port in host order; 0 lets the system choose. 0 or errno. */
    OS_Error Bind(unsigned int i_u32Addr, unsigned short i_u16Port);

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    /* Adds flags. With kNonBlocking set, the open descriptor is made non-blocking. */
    void SetSocketType(unsigned int i_u32Flags);

    /* Options (socket(7), tcp(7)): assert that the system accepts them. */
    void BroadCast();
    void NoDelay();
    void KeepAlive();
    void SetSocketBufSize(unsigned int i_u32Bytes);
    /* Kept: this one returns 0 or errno, because a receiver works with a smaller buffer, too. */
    OS_Error SetSocketRcvBufSize(unsigned int i_u32Bytes);

    /* Texts of the local address, its host name and port; they belong to the socket or to the
     * table of CSocketUtils, where the first two assert that the address is found. */
    CPLString *GetLocalAddrStr();
    CPLString *GetLocalDNSStr();
    CPLString *GetLocalPortStr();

    /* One transfer each, repeated only when a signal ended it. 0 with the number of bytes moved,
     * ENOTCONN when not connected or, reading, at the peer's end of the stream, else errno. The
     * count of WriteV may be null. */
    OS_Error Send(const char *i_pData, unsigned int i_u32Len, unsigned int *o_pSentLen);
    OS_Error WriteV(const struct iovec *i_pIOVector, unsigned int i_u32NumVectors,
                    unsigned int *o_pSentLen);
    OS_Error Read(void *o_pBuffer, unsigned int i_u32Len, unsigned int *o_pRecvLen);

    Bool IsConnected() const { return (m_u32Flags & kConnected) != 0; }

protected:
    /* Sets an int option and asserts that the system accepts it. */
    void SetOption(int i_s32Level, int i_s32Option, int i_s32Value);
    /* Result of a failed transfer, from errno: all but EAGAIN end the connection. */
    OS_Error TransferFailed();

    UInt32 m_u32Flags;
    struct sockaddr_in m_stLocalAddr;
    struct sockaddr_in m_stRemoteAddr;
    CPLString *m_pLocalAddrStrPtr;
    CPLString *m_pLocalDNSStrPtr;
    char m_szPortBuffer[8];
    CPLString m_objPortStr; /* as long as the buffer: not yet formatted */
    Bool m_bOpened;         /* Open() was called before */

    static CEventThread *s_pEventThread; /* never destroyed: its thread never ends */
};
