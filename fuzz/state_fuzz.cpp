/*
 * The guard's state file as its readers have it: the panel, which shows what it can, and the
 * commands, which refuse what is not whole. Whatever the file holds, each gets the shape that it
 * relies on, and what it makes of the values comes to its end.
 */
#include <cstddef>
#include <cstdint>
#include <string>

#include "framework/assertion.h"
#include "guard/state.h"
#include "panel/metrics.h"
#include "panel/page.h"
#include "tools/doctor.h"
#include "tools/session.h"

namespace
{
constexpr double kNow = 1764000001; /* a second after the seeds were written */
constexpr double kOldest = 5;
constexpr const char *kPage = "{{condition}} {{text}} {{input}} {{stream}} {{origin}}";

/* Copied and printed by functions that call themselves: what goes deep would end the reader. */
void AssertShallow(const nlohmann::json &i_objState)
{
    assert(i_objState.dump(1, '\t').find("\n" + std::string(10, '\t')) == std::string::npos);
}

void MakeSessionOf(const nlohmann::json &i_objState)
{
    const SESSION_S stSession = MakeSession({"192.0.2.1", 59202, ""}, i_objState);
    assert(stSession.u8PayloadType < 128);
    assert(!SdpText(stSession).empty());
}

void ShowInPanel(const std::string &i_strText)
{
    SEEN_STATE_S stState;
    stState.objJson = ReadState(i_strText, kNow);
    const nlohmann::json &objJson = stState.objJson;
    assert(objJson.at("schema") == 1);
    assert(objJson.at("condition").is_string() && objJson.at("text").is_string());
    assert(objJson.at("events").is_array());
    for (const char *pPart : {"input", "stream", "preview", "relay", "daemon", "acts"}) {
        assert(objJson.at(pPart).is_object());
    }
    AssertShallow(objJson);
    stState.strText = objJson.dump();
    if (objJson.at("time").is_null()) {
        assert(stState.Condition() == "no-guard");
    } else {
        const double f64Time = objJson.at("time").get<double>();
        assert(kNow - f64Time <= kOldest && f64Time < 1e12);
        assert(ReadState(stState.strText, kNow) == objJson);
    }
    const prometheus::Histogram objIntervals(INTERVAL_BOUNDS);
    assert(!FormatMetrics(stState, {}, objIntervals).empty());
    const std::string strPage = FillPage(kPage, stState, "http://localhost");
    assert(strPage.find('<') == std::string::npos);
    MakeSessionOf(objJson);
}

void ReadByCommands(const std::string &i_strText)
{
    PATIENT_S stPatient;
    stPatient.objState = ParseState(i_strText, &stPatient.strNoState);
    assert(stPatient.objState.is_null() != stPatient.strNoState.empty());
    AssertShallow(stPatient.objState);
    stPatient.stFile.stStatus.u32H264Enable = stPatient.stFile.stStatus.u32PrevEnable = 1;
    stPatient.stDaemon = DAEMON_S{};
    stPatient.stTiming = TIMING_S{1920, 1080, 60, 0};
    for (const auto &objFindings : {DiagnosePipelines(stPatient), DiagnoseStream(stPatient)}) {
        for (const FINDING_S &stFinding : objFindings) {
            assert((stFinding.eVerdict == Verdict::No) != stFinding.strAdvice.empty());
        }
    }
    MakeSessionOf(stPatient.objState);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *i_pData, std::size_t i_u64Size)
{
    const std::string strText(reinterpret_cast<const char *>(i_pData), i_u64Size);
    ShowInPanel(strText);
    ReadByCommands(strText);
    return 0;
}
