/*
 * Event contexts and the event thread.
 */
#include "framework/eventcontext.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

#include "framework/assertion.h"
#include "framework/atomic.h"
#include "framework/mutex.h"
#include "framework/task.h"
#include "framework/unique_fd.h"

namespace
{
constexpr UInt32 kLastUniqueID = 10000000;
constexpr unsigned int kRefTableSize = 1193;

/* Two threads that pass the last id together would step over the wrap. */
CMutex &g_objUniqueIDMutex = *new CMutex;
} // namespace

UInt32 CEventContext::s_u32UniqueID = 1;

CEventContext::CEventContext(int i_s32FileDesc, CEventThread *i_pThread)
    : m_s32FileDesc(i_s32FileDesc), m_stEventReq{}, m_u64UniqueID(0),
      m_objUniqueIDStr(reinterpret_cast<char *>(&m_u64UniqueID), sizeof(m_u64UniqueID)),
      m_pEventThread(i_pThread), m_bWatching(false), m_bAutoCleanup(true), m_pTask(nullptr),
      m_pRegisteredType(nullptr)
{
}

CEventContext::~CEventContext()
{
    CleanupIfWanted();
}

void CEventContext::InitNonBlocking(int i_s32FileDesc)
{
    m_s32FileDesc = i_s32FileDesc;
    int s32Flags = fcntl(m_s32FileDesc, F_GETFL, 0);
    [[maybe_unused]] SInt32 s32Err = fcntl(m_s32FileDesc, F_SETFL, s32Flags | O_NONBLOCK);
    assert(s32Err == 0);
}

UInt64 CEventContext::NextUniqueID()
{
    CMutexLocker objLocker(&g_objUniqueIDMutex);
    if (compare_and_store(kLastUniqueID, 1, &s_u32UniqueID)) {
        return 1;
    }
    return atomic_add(&s_u32UniqueID, 1);
}

void CEventContext::RequestEvent(int i_s32Mask)
{
    if (m_bWatching) {
        m_stEventReq.er_eventbits = i_s32Mask;
        if (select_modwatch(&m_stEventReq, i_s32Mask) != 0) {
            assert(false);
        }
        return;
    }

    assert(m_pEventThread != NULL);
    do {
        m_u64UniqueID = NextUniqueID();
        m_objRef.Set(m_objUniqueIDStr, this);
        /* After a wrap an old context may still hold the id: then the next one is tried. */
    } while (m_pEventThread->m_objRefTable.Register(&m_objRef) != 0);

    m_pRegisteredType = &typeid(*this);
    m_stEventReq = {};
    m_stEventReq.er_type = EV_TYPE_FD;
    m_stEventReq.er_handle = m_s32FileDesc;
    m_stEventReq.er_eventbits = i_s32Mask;
    /* A number that is carried, never followed. NOLINTNEXTLINE(performance-no-int-to-ptr) */
    m_stEventReq.er_data = reinterpret_cast<void *>(m_u64UniqueID);
    m_bWatching = true;
    if (select_watchevent(&m_stEventReq, i_s32Mask) != 0) {
        assert(false);
    }
}

void CEventContext::ProcessEvent([[maybe_unused]] int i_s32EventBits)
{
    CTask::Signal(m_pTask, CTask::kReadEvent);
}

void CEventContext::Cleanup()
{
    SInt32 s32Err = 0;
    if (m_s32FileDesc != kInvalidFileDesc) {
        if (m_u64UniqueID != 0) {
            assert(typeid(*this) == *m_pRegisteredType);
            m_pEventThread->m_objRefTable.UnRegister(&m_objRef, 0);
            select_removeevent(m_s32FileDesc);
        } else {
            s32Err = UniqueFd(m_s32FileDesc).Close();
        }
    }
    m_s32FileDesc = kInvalidFileDesc;
    m_u64UniqueID = 0;
    m_bWatching = false;
    assert(s32Err == 0);
}

void CEventContext::SnarfEventContext(CEventContext &io_objFrom)
{
    if (&io_objFrom == this) {
        return;
    }
    assert(m_pEventThread != NULL);
    Cleanup();
    m_s32FileDesc = io_objFrom.m_s32FileDesc;
    io_objFrom.m_s32FileDesc = kInvalidFileDesc;
    m_bWatching = io_objFrom.m_bWatching;
    m_pRegisteredType = &typeid(*this);
    m_u64UniqueID = io_objFrom.m_u64UniqueID;
    m_stEventReq = io_objFrom.m_stEventReq;

    m_objUniqueIDStr.Set(reinterpret_cast<char *>(&m_u64UniqueID), sizeof(m_u64UniqueID));
    m_objRef.Set(m_objUniqueIDStr, this);
    m_pEventThread->m_objRefTable.Swap(&m_objRef);
    m_pEventThread->m_objRefTable.UnRegister(&io_objFrom.m_objRef, 0);
    io_objFrom.Cleanup();
}

CEventThread::CEventThread() : m_objRefTable(kRefTableSize) {}

void CEventThread::Entry()
{
    SetName("event");
    printf("thread info [%s:%u]\n", "event", static_cast<unsigned>(gettid()));

    eventreq stCurrentEvent = {};
    while (true) {
        [[maybe_unused]] SInt32 s32Err = EINTR;
        while (EINTR == s32Err) {
            s32Err = select_waitevent(&stCurrentEvent, nullptr);
            if (s32Err < 0) {
                s32Err = errno;
            }
        }
        assert(s32Err == 0);

        if (stCurrentEvent.er_data != nullptr) {
            CPLString objKey(reinterpret_cast<char *>(&stCurrentEvent.er_data),
                             sizeof(stCurrentEvent.er_data));
            CRef *pRef = m_objRefTable.Resolve(&objKey);
            if (pRef != nullptr) {
                CEventContext *pContext = static_cast<CEventContext *>(pRef->GetObject());
                pContext->ProcessEvent(stCurrentEvent.er_eventbits);
                m_objRefTable.Release(pRef);
            }
        }
        ThreadYield();
    }
}
