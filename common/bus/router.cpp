/*
 * The router: one table of modules by their ids, and the running mutex of the synchronous messages.
 */
#include "common/bus/router.h"

#include <array>

#include <unistd.h>

#include "common/bus/log.h"
#include "common/bus/module.h"
#include "framework/assertion.h"

namespace
{
constexpr UInt32 kIds = 16; /* the highest module id is below it */
constexpr int kRunningMutexTries = 30;
constexpr useconds_t kRunningMutexPauseUs = 100000;

std::array<CModule *, kIds> g_pModules;
CMutex *g_pRunningMutex;

/* Null for an id that no module has here: the pipeline workers are reached through the encoder
 * only. */
CModule *FindModule(UInt32 i_u32Id)
{
    return i_u32Id < kIds ? g_pModules[i_u32Id] : nullptr;
}
} // namespace

void SetUpRouter(CMutex *i_pRunningMutex, std::initializer_list<CModule *> i_objModules)
{
    g_pRunningMutex = i_pRunningMutex;
    g_pModules.fill(nullptr);
    for (CModule *pModule : i_objModules) {
        assert(pModule->GetModuleId() < kIds);
        g_pModules[pModule->GetModuleId()] = pModule;
    }
}

int SendSyncAndAsyncMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult)
{
    if (i_pMsg == nullptr) {
        return 0;
    }
    CModule *pModule = FindModule(i_pMsg->dst);
    if (i_pMsg->msgtype == MSG_TYPE_ASYNC) {
        if (pModule != nullptr) {
            return pModule->PushMsg(i_pMsg);
        }
        LOG_ERROR("async message, unknown module<%d>", i_pMsg->dst);
    } else if (i_pMsg->msgtype == MSG_TYPE_SYNC) {
        if (!GetRunningMutex(g_pRunningMutex)) {
            LOG_ERROR(
                "SendSyncAndAsyncMsg get mutex fail, msgtype<%d>,src<%d>,dst<%d>,msg no<0x%x>",
                i_pMsg->msgtype, i_pMsg->src, i_pMsg->dst, i_pMsg->msgno);
            return 0;
        }
        const int s32Result = pModule != nullptr ? pModule->HandleMsg(i_pMsg, o_pResult) : 0;
        PutRunningMutex(g_pRunningMutex);
        if (pModule != nullptr) {
            return s32Result;
        }
        LOG_ERROR("sync message, unknown module<%d>", i_pMsg->dst);
    }
    LOG_ERROR("unhandle message, msgtype<%d>,src<%d>,dst<%d>,msg no<0x%x>", i_pMsg->msgtype,
              i_pMsg->src, i_pMsg->dst, i_pMsg->msgno);
    return 0;
}

int GetRunningMutex(CMutex *i_pMutex)
{
    if (i_pMutex == nullptr) {
        return 0;
    }
    for (int i = 1; !i_pMutex->TryLock(); i++) {
        if (i == kRunningMutexTries) {
            return 0;
        }
        usleep(kRunningMutexPauseUs);
    }
    return 1;
}

int PutRunningMutex(CMutex *i_pMutex)
{
    if (i_pMutex == nullptr) {
        return 0;
    }
    i_pMutex->Unlock();
    return 1;
}
