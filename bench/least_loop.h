/*
 * The limit of the event thread: one-shot readiness over select(2), with a pipe that ends the wait
 * when the set has changed. A task that is signalled is held by a count, so that its owner could
 * wait for its release.
 */
#pragma once

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

#include <sched.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include "bench/least_tasks.h"
#include "framework/unique_fd.h"

class CLeastLoop
{
public:
    CLeastLoop()
    {
        int s32Pipe[2];
        if (pipe(s32Pipe) != 0) {
            Fail("pipe", "");
        }
        m_objReadEnd = UniqueFd(s32Pipe[0]);
        m_objWriteEnd = UniqueFd(s32Pipe[1]);
        FD_SET(s32Pipe[0], &m_stSets.stRead);
        m_stSets.s32Max = s32Pipe[0];
        m_objThread = std::jthread([this] { Loop(); });
    }
    ~CLeastLoop()
    {
        m_bStop = true;
        Wake();
    }

    void Arm(int i_s32Socket, CLeastTask *i_pTask)
    {
        Locked([&] {
            FD_SET(i_s32Socket, &m_stSets.stRead);
            m_stSets.s32Max = std::max(m_stSets.s32Max, i_s32Socket);
            m_stWatched[i_s32Socket].pTask = i_pTask;
        });
        Wake();
    }

    /* As a run that is readable. */
    void Signal(CLeastTask *i_pTask) { m_objPool.Signal(i_pTask, 16); }

private:
    struct SETS_S {
        fd_set stRead;
        fd_set stWrite;
        int s32Max;
    };

    void Wake()
    {
        if (write(m_objWriteEnd.Get(), "p", 1) != 1) {
            Fail("write", "");
        }
    }
    template <typename Step> void Locked(Step i_objStep)
    {
        const std::lock_guard objLock(m_objMutex);
        i_objStep();
    }

    void HandOut(int i_s32Socket)
    {
        auto &stWatched = m_stWatched[i_s32Socket];
        Locked([&] {
            FD_CLR(i_s32Socket, &m_stSets.stRead);
            stWatched.u32Count++;
        });
        Signal(stWatched.pTask);
        Locked([&] { stWatched.u32Count--; });
        sched_yield();
    }

    void Loop()
    {
        while (!m_bStop) {
            SETS_S stSets;
            Locked([&] { stSets = m_stSets; });
            sched_yield();
            struct timeval stTimeout = {15, 0};
            int s32Ready =
                select(stSets.s32Max + 1, &stSets.stRead, &stSets.stWrite, nullptr, &stTimeout);
            if (s32Ready > 0 && FD_ISSET(m_objReadEnd.Get(), &stSets.stRead)) {
                char szWakeUps[4096];
                (void)!read(m_objReadEnd.Get(), szWakeUps, sizeof(szWakeUps));
                FD_CLR(m_objReadEnd.Get(), &stSets.stRead);
                s32Ready--;
            }
            for (int i = 0; s32Ready > 0; i++) {
                if (FD_ISSET(i, &stSets.stRead)) {
                    HandOut(i);
                    s32Ready--;
                }
            }
        }
    }

    std::mutex m_objMutex;
    SETS_S m_stSets = {};
    struct {
        CLeastTask *pTask = nullptr;
        UInt32 u32Count = 0;
    } m_stWatched[FD_SETSIZE];
    UniqueFd m_objReadEnd;
    UniqueFd m_objWriteEnd;
    std::atomic<bool> m_bStop{false};
    CLeastPool m_objPool{1};
    std::jthread m_objThread;
};
