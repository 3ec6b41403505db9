/*
 * The router of the messages, and the process-wide objects between which it routes.
 *
 * The one place that sees every module. The objects are built before main in the order below and
 * destroyed in the reverse one at exit, when their threads have been stopped and joined.
 */
#include "common/capture.h"
#include "common/config.h"
#include "common/encoder.h"
#include "common/log.h"
#include "common/module.h"
#include "common/monitor.h"
#include "common/msg_queue.h"
#include "common/timer.h"

CEncoder g_objEncoder;
CTimer g_objTimer;
CConfig g_objConfig;
CCapture g_objCapture;
CMonitor g_objMonitor;
/* Held while a synchronous message is carried. Spelled so on purpose. */
CMutex g_objRuningMutex;

namespace
{
/* Null for an id that no module has here: the pipeline workers are reached through the encoder
 * only. */
CModule *FindModule(UInt32 i_u32Id)
{
    switch (i_u32Id) {
    case MODULE_CONFIG:
        return &g_objConfig;
    case MODULE_ENCODER:
        return &g_objEncoder;
    case MODULE_TIMER:
        return &g_objTimer;
    case MODULE_CAPTURE:
        return &g_objCapture;
    case MODULE_MONITOR:
        return &g_objMonitor;
    default:
        return nullptr;
    }
}
} // namespace

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
