/*
 * Thread base class over POSIX threads.
 */
#include "framework/thread.h"

#include <cstdio>

#include <grp.h>
#include <pwd.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "framework/assertion.h"

pthread_attr_t CThread::s_tThreadAttr;
pthread_key_t CThread::s_tMainKey;
std::atomic<Bool> CThread::s_bInitialized{false};
char CThread::s_szUser[128] = "";
char CThread::s_szGroup[128] = "";
Bool CThread::s_bWrapSleep = true;

void CThread::Initialize(unsigned int i_u32StackSize)
{
    pthread_key_create(&s_tMainKey, nullptr);
    pthread_attr_init(&s_tThreadAttr);
    pthread_attr_setscope(&s_tThreadAttr, PTHREAD_SCOPE_SYSTEM);
    pthread_attr_setstacksize(&s_tThreadAttr, i_u32StackSize);
    s_bInitialized.store(true);
}

CThread::CThread() : CThread(0, 0) {}

CThread::CThread(int i_s32Policy, int i_s32Priority)
    : m_bStopRequested(false), m_bJoined(false), m_stThreadID(0), m_u64Reserved(0),
      m_s32Policy(i_s32Policy), m_s32Priority(i_s32Priority)
{
}

CThread::~CThread()
{
    StopAndWaitForThread();
}

void CThread::Start()
{
    assert(s_bInitialized.load());
    pthread_t stThread = 0;
    [[maybe_unused]] SInt32 s32Err = pthread_create(&stThread, &s_tThreadAttr, _Entry, this);
    assert(0 == s32Err);
    m_stThreadID.store(stThread);
}

void *CThread::_Entry(void *i_pThread)
{
    CThread *pThread = static_cast<CThread *>(i_pThread);
    pThread->m_stThreadID.store(pthread_self());
    struct sched_param stParam = {};
    stParam.sched_priority = pThread->m_s32Priority;
    (void)pthread_setschedparam(pthread_self(), pThread->m_s32Policy, &stParam);
    pthread_setspecific(s_tMainKey, pThread);
    (void)SwitchPersonality();
    pThread->Entry();
    return nullptr;
}

void CThread::Join()
{
    assert(!m_bJoined);
    m_bJoined = true;
    pthread_t stThread = m_stThreadID.load();
    if (stThread != 0) {
        pthread_join(stThread, nullptr);
    }
}

void CThread::StopAndWaitForThread()
{
    SendStopRequest();
    if (!m_bJoined) {
        Join();
    }
}

CThread *CThread::GetCurrent()
{
    if (!s_bInitialized.load()) {
        return nullptr;
    }
    return static_cast<CThread *>(pthread_getspecific(s_tMainKey));
}

void CThread::ThreadYield()
{
    sched_yield();
}

void CThread::Sleep(unsigned int i_u32Milliseconds)
{
    usleep(i_u32Milliseconds * 1000);
}

Bool CThread::SwitchPersonality()
{
    if (s_szGroup[0] != '\0') {
        const struct group *pGroup = getgrnam(s_szGroup);
        if (pGroup == nullptr || setgid(pGroup->gr_gid) != 0) {
            return false;
        }
    }
    if (s_szUser[0] == '\0') {
        return true;
    }
    const struct passwd *pUser = getpwnam(s_szUser);
    return pUser != nullptr && setuid(pUser->pw_uid) == 0;
}

void CThread::SetName(const char *i_pName)
{
    if (i_pName != nullptr) {
        prctl(PR_SET_NAME, i_pName);
    }
}

void CThread::SetAffinity(int i_s32Cpu, char *i_pName)
{
    long s64Processors = sysconf(_SC_NPROCESSORS_CONF);
    cpu_set_t stSet;
    CPU_ZERO(&stSet);
    if (i_s32Cpu >= 0 && i_s32Cpu < CPU_SETSIZE) {
        CPU_SET(i_s32Cpu, &stSet);
    }
    if (sched_setaffinity(0, sizeof(stSet), &stSet) != 0) {
        printf("sched_setaffinity failed ");
        return;
    }
    CPU_ZERO(&stSet);
    if (sched_getaffinity(0, sizeof(stSet), &stSet) != 0) {
        printf("sched_getaffinity failed");
        return;
    }
    for (int i = 0; i < s64Processors && i < CPU_SETSIZE; i++) {
        if (!CPU_ISSET(i, &stSet)) {
            continue;
        }
        unsigned long u64ThreadID = static_cast<unsigned long>(syscall(SYS_gettid));
        if (i_pName != nullptr) {
            printf("[%s] thread %lu run on processor %d\n", i_pName, u64ThreadID, i);
        } else {
            printf("thread %lu run on processor %d\n", u64ThreadID, i);
        }
    }
}
