/*
 * A task writes what the main thread writes, with nothing between them: the thread sanitizer has to
 * say so, with the task's function in its report, or it watches the other tests in vain.
 */
#include <cstdio>

#include "framework/task.h"
#include "framework/thread.h"

namespace
{
int g_s32Planted = 0;
} // namespace

class CRacingTask : public CTask
{
public:
    SInt64 Run() override
    {
        GetEvents();
        g_s32Planted++;
        return -1;
    }
};

int main()
{
    CThread::Initialize(0x80000);
    CTaskThreadPool::AddThreads(1);
    (new CRacingTask)->Signal(CTask::kStartEvent);
    g_s32Planted++;
    /* A task that runs after the stop runs after what came before it: that would be no race. */
    CThread::Sleep(100);
    CTaskThreadPool::RemoveThreads();
    printf("%d\n", g_s32Planted);
    return 0;
}
