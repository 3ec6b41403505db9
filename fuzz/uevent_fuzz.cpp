/*
 * Uevent parser on arbitrary datagrams: its texts lie within the datagram, and a timing is sent
 * just for the bridge driver on its bus.
 */
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "common/box/capture.h"
#include "framework/assertion.h"
#include "fuzz/router.h"

namespace
{
int g_s32Sent;
INPUT_TIMING_S g_stSent;

bool BeginsWith(const char *i_pText, const char *i_pPrefix)
{
    return strncmp(i_pText, i_pPrefix, strlen(i_pPrefix)) == 0;
}
} // namespace

int OnFuzzedMessage(const MSG_DESC_INFO_S &i_stMsg, void *o_pResult)
{
    assert(i_stMsg.msgtype == MSG_TYPE_ASYNC && i_stMsg.src == MODULE_CAPTURE);
    assert(i_stMsg.dst == MODULE_ENCODER && i_stMsg.msgno == MSG_ENC_VIDEO_CHG);
    assert(o_pResult == nullptr);
    memcpy(&g_stSent, i_stMsg.payload, sizeof(g_stSent));
    g_s32Sent++;
    return 1;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *i_pData, std::size_t i_u64Size)
{
    static CCapture s_objCapture;
    if (i_u64Size > CCapture::UEVENT_MSG_LEN) {
        i_u64Size = CCapture::UEVENT_MSG_LEN;
    }
    /* The receiver's two closing zeros, and not a byte more. */
    std::vector<char> objBuffer(i_pData, i_pData + i_u64Size);
    objBuffer.resize(i_u64Size + 2, '\0');

    g_s32Sent = 0;
    uevent stEvent;
    s_objCapture.parse_event(objBuffer.data(), &stEvent);
    const char *const pEnd = objBuffer.data() + objBuffer.size();
    for (const char *pText : {stEvent.action, stEvent.devpath, stEvent.subsystem, stEvent.firmware,
                              stEvent.driver, stEvent.event}) {
        assert(*pText == '\0' || (pText > objBuffer.data() && pText + strlen(pText) < pEnd));
    }
    const bool bTiming =
        BeginsWith(stEvent.driver, "tc358743") && BeginsWith(stEvent.subsystem, "i2c");
    assert(g_s32Sent == (bTiming ? 1 : 0));
    assert(!bTiming || g_stSent == stEvent.timing);
    assert(bTiming || stEvent.timing == INPUT_TIMING_S{});
    return 0;
}
