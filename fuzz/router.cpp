#include "fuzz/router.h"

#include "framework/assertion.h"

int SendSyncAndAsyncMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult)
{
    assert(i_pMsg != nullptr);
    return OnFuzzedMessage(*i_pMsg, o_pResult);
}
