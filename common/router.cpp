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
/* Calls the function with the module of the id. False for an id that no module has here: the
 * pipeline workers are reached through the encoder only. */
template <typename Function> bool WithModule(UInt32 i_u32Id, Function i_objFunction)
{
    switch (i_u32Id) {
    case MODULE_CONFIG:
        i_objFunction(g_objConfig);
        return true;
    case MODULE_ENCODER:
        i_objFunction(g_objEncoder);
        return true;
    case MODULE_TIMER:
        i_objFunction(g_objTimer);
        return true;
    case MODULE_CAPTURE:
        i_objFunction(g_objCapture);
        return true;
    case MODULE_MONITOR:
        i_objFunction(g_objMonitor);
        return true;
    default:
        return false;
    }
}
} // namespace

int SendSyncAndAsyncMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult)
{
    if (i_pMsg == nullptr) {
        return 0;
    }
    int s32Result = 0;
    if (i_pMsg->msgtype == MSG_TYPE_ASYNC) {
        if (WithModule(i_pMsg->dst,
                       [&](auto &objModule) { s32Result = objModule.PushMsg(i_pMsg); })) {
            return s32Result;
        }
        LOG_ERROR("async message, unknown module<%d>", i_pMsg->dst);
    } else if (i_pMsg->msgtype == MSG_TYPE_SYNC) {
        if (!GetRunningMutex(&g_objRuningMutex)) {
            LOG_ERROR(
                "SendSyncAndAsyncMsg get mutex fail, msgtype<%d>,src<%d>,dst<%d>,msg no<0x%x>",
                i_pMsg->msgtype, i_pMsg->src, i_pMsg->dst, i_pMsg->msgno);
            return 0;
        }
        const bool bKnown = WithModule(i_pMsg->dst, [&](auto &objModule) {
            s32Result = objModule.HandleMsg(i_pMsg, o_pResult);
        });
        PutRunningMutex(&g_objRuningMutex);
        if (bKnown) {
            return s32Result;
        }
        LOG_ERROR("sync message, unknown module<%d>", i_pMsg->dst);
    }
    LOG_ERROR("unhandle message, msgtype<%d>,src<%d>,dst<%d>,msg no<0x%x>", i_pMsg->msgtype,
              i_pMsg->src, i_pMsg->dst, i_pMsg->msgno);
    return 0;
}
