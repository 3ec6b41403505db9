/*
 * The guard's texts: the first byte chooses which. Of every uevent the guard reads just the timing
 * that the daemon reads; what the guard remembers it reads back; a state that its reader takes has
 * what readers rely on.
 */
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "common/box/capture.h"
#include "framework/assertion.h"
#include "fuzz/router.h"
#include "guard/daemon_view.h"
#include "guard/sps.h"
#include "guard/state.h"

namespace
{
std::optional<TIMING_S> g_stDaemons;

void CompareUevent(const std::string &i_strText)
{
    static CCapture s_objCapture;
    std::vector<char> objBuffer(i_strText.begin(), i_strText.end());
    objBuffer.resize(std::min(objBuffer.size(), CCapture::UEVENT_MSG_LEN));
    objBuffer.resize(objBuffer.size() + 2, '\0');
    g_stDaemons.reset();
    uevent stEvent;
    s_objCapture.parse_event(objBuffer.data(), &stEvent);
    assert(TimingOfUevent(i_strText) == g_stDaemons);
}

void ReadMemory(const std::string &i_strText)
{
    const auto stHeard = ParseMemory(i_strText);
    assert(!stHeard || ParseMemory(MemoryText(*stHeard)));
    const auto stTiming = ParseTiming(i_strText);
    assert(!stTiming || ParseTiming(TimingText(*stTiming)) == stTiming);
}

void ReadState(const std::string &i_strText)
{
    std::string strError;
    const nlohmann::json objState = ParseState(i_strText, &strError);
    assert(objState.is_null() != strError.empty());
    assert(objState.is_null() ||
           (objState["condition"].is_string() && objState["text"].is_string()));
}
} // namespace

int OnFuzzedMessage(const MSG_DESC_INFO_S &i_stMsg, void *)
{
    INPUT_TIMING_S stTiming;
    memcpy(&stTiming, i_stMsg.payload, sizeof(stTiming));
    g_stDaemons = TIMING_S{stTiming.width, stTiming.height, stTiming.fps, stTiming.interlaced};
    return 1;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *i_pData, std::size_t i_u64Size)
{
    if (i_u64Size == 0) {
        return 0;
    }
    const std::string strText(reinterpret_cast<const char *>(i_pData) + 1, i_u64Size - 1);
    switch (i_pData[0]) {
    case 'u':
        CompareUevent(strText);
        break;
    case 'm':
        ReadMemory(strText);
        break;
    case 's':
        ReadState(strText);
        break;
    case 'p':
        (void)ParseSps(Bytes(i_pData + 1, i_u64Size - 1));
        break;
    default:
        (void)ParseProcStat(strText, 100, 4096);
        (void)HasUeventPort(strText, 42);
        (void)HasUdpPort(strText, 8366);
    }
    return 0;
}
