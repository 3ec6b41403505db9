/*
 * One-shot events over select(2): the armed sets, the results of the last select, the self-pipe
 * that ends a select when the armed sets change, and the descriptors that wait to be closed.
 *
 * Nothing here is ever destroyed: the event thread uses it until the process is gone.
 */
#include "framework/ev.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include "framework/assertion.h"
#include "framework/mutex.h"
#include "framework/thread.h"
#include "framework/unique_fd.h"

namespace
{
constexpr SInt32 kMaxDescriptors = static_cast<SInt32>(sizeof(fd_set) * 8);
constexpr SInt32 kFreeSlot = -1;
constexpr SInt32 kSelectTimeoutSecs = 15;

/*
 * Shared: any thread, under this mutex.
 */
CMutex &g_objMaxFDPosMutex = *new CMutex;
fd_set g_stReadSet; /* armed */
fd_set g_stWriteSet;
fd_set g_stReturnedReadSet; /* found ready by the last select, and not yet handed out or removed */
fd_set g_stReturnedWriteSet;
void **g_pCookieArray = nullptr;      /* by descriptor */
SInt32 *g_pFDsToCloseArray = nullptr; /* filled from the front */
SInt32 g_s32MaxFDPos = 0;

/*
 * Set by select_startevents(), before there is another thread; read by any.
 */
int g_aPipes[2] = {-1, -1};

/*
 * The event thread's alone: where it stands in the results of the last select.
 */
SInt32 g_s32CurrentFDPos = 0;
SInt32 g_s32NumFDsBackFromSelect = 0;
SInt32 g_s32SelectErrno = 0; /* of a negative result: others may set errno before it is read */
UInt32 g_u32NumFDsProcessed = 0;
Bool g_bInReadSet = true;

Bool InRange(SInt32 i_s32FileDesc)
{
    return i_s32FileDesc >= 0 && i_s32FileDesc < kMaxDescriptors;
}

void Arm(fd_set *io_pSet, SInt32 i_s32FileDesc, Bool i_bArmed)
{
    if (i_bArmed) {
        FD_SET(i_s32FileDesc, io_pSet);
    } else {
        FD_CLR(i_s32FileDesc, io_pSet);
    }
}

/* Ends a select that waits, so that it starts again with the changed sets. The caller holds no
 * lock: while 64 KiB of wake-ups are unread this waits for the event thread, which needs one. */
void WakeEventThread()
{
    SInt32 s32Err = 0;
    do {
        s32Err = static_cast<SInt32>(write(g_aPipes[1], "p", 1));
    } while (s32Err < 0 && EINTR == errno);
    assert(s32Err == 1);
}

/* The event thread's, which holds the mutex. Moves the position to the next set bit, up to the
 * highest armed descriptor, and takes it out of the set. False if there is none. */
Bool TakeNextReady(fd_set *io_pSet)
{
    while (g_s32CurrentFDPos < g_s32MaxFDPos && !FD_ISSET(g_s32CurrentFDPos, io_pSet)) {
        g_s32CurrentFDPos++;
    }
    /* The position is one beyond the set once its last descriptor was handed out. */
    if (g_s32CurrentFDPos >= kMaxDescriptors || !FD_ISSET(g_s32CurrentFDPos, io_pSet)) {
        return false;
    }
    FD_CLR(g_s32CurrentFDPos, io_pSet);
    return true;
}

void KeepCommon(fd_set *io_pSet, const fd_set &i_stOther)
{
    for (std::size_t i = 0; i < sizeof(fd_set) / sizeof(fd_mask); i++) {
        io_pSet->fds_bits[i] &= i_stOther.fds_bits[i];
    }
}

/* The event thread's, which holds the mutex. Drains the pipe and closes what was removed: select
 * has returned, so it holds none of them. */
void HandleWakeUp()
{
    char szBuf[4096];
    [[maybe_unused]] ssize_t s64Len = read(g_aPipes[0], szBuf, sizeof(szBuf));
    FD_CLR(g_aPipes[0], &g_stReturnedReadSet);
    g_s32NumFDsBackFromSelect--;
    for (SInt32 i = 0; i < kMaxDescriptors && g_pFDsToCloseArray[i] != kFreeSlot; i++) {
        UniqueFd objClosed(std::exchange(g_pFDsToCloseArray[i], kFreeSlot));
    }
}

/* One select over the armed descriptors. It works on sets of its own: a descriptor that is removed
 * meanwhile is cleared in the returned sets, and must not come back with the result. */
void Select()
{
    fd_set stReadSet;
    fd_set stWriteSet;
    SInt32 s32NumFDs = 0;
    {
        CMutexLocker objLocker(&g_objMaxFDPosMutex);
        stReadSet = g_stReturnedReadSet = g_stReadSet;
        stWriteSet = g_stReturnedWriteSet = g_stWriteSet;
        s32NumFDs = g_s32MaxFDPos + 1;
    }
    CThread::ThreadYield();
    struct timeval stTimeout = {kSelectTimeoutSecs, 0};
    g_s32NumFDsBackFromSelect = select(s32NumFDs, &stReadSet, &stWriteSet, nullptr, &stTimeout);
    g_s32SelectErrno = errno;
    if (g_s32NumFDsBackFromSelect > 0) {
        CMutexLocker objLocker(&g_objMaxFDPosMutex);
        KeepCommon(&g_stReturnedReadSet, stReadSet);
        KeepCommon(&g_stReturnedWriteSet, stWriteSet);
    }
}
} // namespace

int select_startevents()
{
    CMutexLocker objLocker(&g_objMaxFDPosMutex);
    if (g_pCookieArray != nullptr) {
        return 0;
    }
    FD_ZERO(&g_stReadSet);
    FD_ZERO(&g_stWriteSet);
    FD_ZERO(&g_stReturnedReadSet);
    FD_ZERO(&g_stReturnedWriteSet);
    g_pCookieArray = new void *[kMaxDescriptors]();
    g_pFDsToCloseArray = new SInt32[kMaxDescriptors];
    for (SInt32 i = 0; i < kMaxDescriptors; i++) {
        g_pFDsToCloseArray[i] = kFreeSlot;
    }

    [[maybe_unused]] SInt32 s32Err = pipe2(g_aPipes, O_CLOEXEC);
    assert(s32Err == 0);
    assert(InRange(g_aPipes[0]));
    FD_SET(g_aPipes[0], &g_stReadSet);
    g_s32MaxFDPos = g_aPipes[0];
    return 0;
}

int select_watchevent(eventreq *i_pReq, int i_s32Mask)
{
    return select_modwatch(i_pReq, i_s32Mask);
}

int select_modwatch(eventreq *i_pReq, int i_s32Mask)
{
    assert(i_pReq != NULL);
    if (i_pReq->er_handle < 0) {
        return EBADF;
    }
    {
        CMutexLocker objLocker(&g_objMaxFDPosMutex);
        if (InRange(i_pReq->er_handle)) {
            Arm(&g_stReadSet, i_pReq->er_handle, (i_s32Mask & EV_READ) != 0);
            Arm(&g_stWriteSet, i_pReq->er_handle, (i_s32Mask & EV_WRITE) != 0);
            if (i_pReq->er_handle > g_s32MaxFDPos) {
                g_s32MaxFDPos = i_pReq->er_handle;
            }
        }
        /* Kept: the checks follow the update, so that a core dump shows what was asked for. What
         * does not fit the sets is left out. */
        assert(i_pReq->er_handle < (SInt32)(sizeof(fd_set) * 8));
        assert(i_pReq->er_data != NULL);
        g_pCookieArray[i_pReq->er_handle] = i_pReq->er_data;
    }
    WakeEventThread();
    return 0;
}

int select_removeevent(int i_s32FileDesc)
{
    if (i_s32FileDesc < 0) {
        return EBADF;
    }
    {
        CMutexLocker objLocker(&g_objMaxFDPosMutex);
        if (InRange(i_s32FileDesc)) {
            FD_CLR(i_s32FileDesc, &g_stReadSet);
            FD_CLR(i_s32FileDesc, &g_stWriteSet);
            FD_CLR(i_s32FileDesc, &g_stReturnedReadSet);
            FD_CLR(i_s32FileDesc, &g_stReturnedWriteSet);
            g_pCookieArray[i_s32FileDesc] = nullptr;
        }
        if (i_s32FileDesc == g_s32MaxFDPos) {
            while (g_s32MaxFDPos >= 1 && !FD_ISSET(g_s32MaxFDPos, &g_stReadSet) &&
                   !FD_ISSET(g_s32MaxFDPos, &g_stWriteSet)) {
                g_s32MaxFDPos--;
            }
        }

        UInt32 u32Index = 0;
        while (u32Index < kMaxDescriptors - 1U && g_pFDsToCloseArray[u32Index] != kFreeSlot) {
            u32Index++;
        }
        assert(g_pFDsToCloseArray[u32Index] == -1);
        g_pFDsToCloseArray[u32Index] = i_s32FileDesc;
    }
    WakeEventThread();
    return 0;
}

int constructeventreq(eventreq *o_pReq, int i_s32FileDesc, int i_s32Mask)
{
    assert(i_s32FileDesc < (SInt32)(sizeof(fd_set) * 8));
    CMutexLocker objLocker(&g_objMaxFDPosMutex);
    o_pReq->er_handle = i_s32FileDesc;
    o_pReq->er_eventbits = i_s32Mask;
    o_pReq->er_data = g_pCookieArray[i_s32FileDesc];
    g_s32CurrentFDPos++;
    g_u32NumFDsProcessed++;
    FD_CLR(i_s32FileDesc, &g_stReadSet);
    FD_CLR(i_s32FileDesc, &g_stWriteSet);
    return 0;
}

Bool selecthasdata()
{
    if (g_s32NumFDsBackFromSelect < 0) {
        /* A signal, or a descriptor that its owner closed itself: the next select tells more. */
        return g_s32SelectErrno != EBADF && g_s32SelectErrno != EINTR;
    }
    if (0 == g_s32NumFDsBackFromSelect) {
        return false;
    }
    CMutexLocker objLocker(&g_objMaxFDPosMutex);
    if (FD_ISSET(g_aPipes[0], &g_stReturnedReadSet)) {
        HandleWakeUp();
    }
    assert(!FD_ISSET(g_aPipes[0], &g_stReturnedReadSet));
    assert(!FD_ISSET(g_aPipes[0], &g_stReturnedWriteSet));
    return g_s32NumFDsBackFromSelect > 0;
}

int select_waitevent(eventreq *o_pReq, [[maybe_unused]] void *i_pUnused)
{
    if (static_cast<SInt32>(g_u32NumFDsProcessed) < g_s32NumFDsBackFromSelect) {
        CMutexLocker objLocker(&g_objMaxFDPosMutex);
        if (g_bInReadSet) {
            if (TakeNextReady(&g_stReturnedReadSet)) {
                return constructeventreq(o_pReq, g_s32CurrentFDPos, EV_READ);
            }
            g_bInReadSet = false;
            g_s32CurrentFDPos = 0;
        }
        if (TakeNextReady(&g_stReturnedWriteSet)) {
            return constructeventreq(o_pReq, g_s32CurrentFDPos, EV_WRITE);
        }
        /* Reached when results were removed before their turn. */
        g_u32NumFDsProcessed = static_cast<UInt32>(g_s32NumFDsBackFromSelect);
        assert(g_s32NumFDsBackFromSelect > 0);
    }

    if (g_u32NumFDsProcessed > 0) {
        CMutexLocker objLocker(&g_objMaxFDPosMutex);
        g_u32NumFDsProcessed = 0;
        g_s32NumFDsBackFromSelect = 0;
        g_s32CurrentFDPos = 0;
        g_bInReadSet = true;
    }
    while (!selecthasdata()) {
        Select();
    }
    if (g_s32NumFDsBackFromSelect < 0) {
        errno = g_s32SelectErrno;
        return g_s32NumFDsBackFromSelect;
    }
    return EINTR;
}
