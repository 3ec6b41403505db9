/*
 * The router: one table of modules by their ids, and the running mutex of the synchronous messages.
 */
#include "common/bus/router.h"

#include <array>

#include "common/bus/log.h"
#include "common/bus/module.h"
#include "framework/assertion.h"

CMutex g_objRuningMutex;

namespace
{
constexpr UInt32 kIds = 16; /* the highest module id is below it */
std::array<CModule *, kIds> g_pModules;

/* Null for an id that no module has here: the pipeline workers are reached through the encoder
 * only. */
CModule *FindModule(UInt32 i_u32Id)
{
    return i_u32Id < kIds ? g_pModules[i_u32Id] : nullptr;
}
} // namespace

void RegisterModule(UInt32 i_u32Id, CModule *i_pModule)
{
    assert(i_u32Id < kIds);
    g_pModules[i_u32Id] = i_pModule;
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
        if (!GetRunningMutex(&g_objRuningMutex)) {
            LOG_ERROR(
                "SendSyncAndAsyncMsg get mutex fail, msgtype<%d>,src<%d>,dst<%d>,msg no<0x%x>",
                i_pMsg->msgtype, i_pMsg->src, i_pMsg->dst, i_pMsg->msgno);
            return 0;
        }
        const int s32Result = pModule != nullptr ? pModule->HandleMsg(i_pMsg, o_pResult) : 0;
        PutRunningMutex(&g_objRuningMutex);
        if (pModule != nullptr) {
            return s32Result;
        }
        LOG_ERROR("sync message, unknown module<%d>", i_pMsg->dst);
    }
    LOG_ERROR("unhandle message, msgtype<%d>,src<%d>,dst<%d>,msg no<0x%x>", i_pMsg->msgtype,
              i_pMsg->src, i_pMsg->dst, i_pMsg->msgno);
    return 0;
}
