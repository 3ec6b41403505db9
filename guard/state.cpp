/*
 * JSON of the state.
 */
#include "guard/state.h"

#include <cmath>

#include <nlohmann/json.hpp>

#include "guard/base64.h"
#include "guard/wall_time.h"

namespace
{
using Json = nlohmann::ordered_json;

/* The guard's own file has a tenth of this. */
constexpr std::size_t kLongestText = 256 * 1024;
constexpr int kDeepest = 8; /* twice what the guard writes */

template <typename T> Json OrNull(const std::optional<T> &i_objValue)
{
    return i_objValue ? Json(*i_objValue) : Json(nullptr);
}

/* A thousandth is enough for a person and keeps the file short. */
Json Rounded(double i_f64Value)
{
    return std::round(i_f64Value * 1000) / 1000;
}
Json Rounded(const std::optional<double> &i_f64Value)
{
    return i_f64Value ? Rounded(*i_f64Value) : Json(nullptr);
}

Json Bytes64(const std::vector<UInt8> &i_objBytes)
{
    return i_objBytes.empty() ? Json(nullptr) : Json(Base64(i_objBytes));
}

Json InputJson(const STATE_S &i_stState)
{
    const TIMING_S stTiming = i_stState.stTiming.value_or(TIMING_S{});
    return {{"known", i_stState.stTiming.has_value()},
            {"origin", i_stState.pOrigin},
            {"time", Rounded(i_stState.f64TimingTime)},
            {"width", stTiming.width},
            {"height", stTiming.height},
            {"fps", stTiming.fps},
            {"interlaced", stTiming.interlaced != 0},
            {"link", LinkText(i_stState.eLink)}};
}

Json StreamJson(const STATE_S &i_stState)
{
    const STREAM_FIGURES_S &stStream = i_stState.stStream;
    const std::optional<SPS_S> &stSps = stStream.stSps;
    return {{"packets", stStream.u64Packets},
            {"bytes", stStream.u64Bytes},
            {"lost", stStream.u64Lost},
            {"packets_per_second", Rounded(stStream.f64PacketsPerSecond)},
            {"kbit_per_second", Rounded(stStream.f64KbitPerSecond)},
            {"pictures", stStream.u64Pictures},
            {"pictures_per_second", Rounded(stStream.f64PicturesPerSecond)},
            {"keyframe_interval", OrNull(stStream.u32KeyInterval)},
            {"width", stSps ? Json(stSps->u32Width) : Json(nullptr)},
            {"height", stSps ? Json(stSps->u32Height) : Json(nullptr)},
            {"profile", stSps ? Json(stSps->strProfile) : Json(nullptr)},
            {"level", stSps ? Json(stSps->strLevel) : Json(nullptr)},
            {"sps", Bytes64(stStream.objSps)},
            {"pps", Bytes64(stStream.objPps)},
            {"ssrc", OrNull(stStream.u32Source)},
            {"payload_type", OrNull(stStream.u8PayloadType)},
            {"last_packet_age", Rounded(i_stState.f64PacketAge)}};
}

Json RelayJson(const RELAY_FIGURES_S &i_stRelay)
{
    Json objAlso = Json::array();
    for (const PORT_FIGURES_S &stPort : i_stRelay.objAlso) {
        objAlso.push_back({{"port", stPort.u16Port},
                           {"forwarded", stPort.u64Forwarded},
                           {"refused", stPort.u64Refused},
                           {"dropped", stPort.u64Dropped}});
    }
    return {{"listening", i_stRelay.bListening},
            {"refusing", i_stRelay.bRefusing},
            {"forwarded", i_stRelay.stPreview.u64Forwarded},
            {"thinned", i_stRelay.u64Thinned},
            {"not_rtp", i_stRelay.u64NotRtp},
            {"refused", i_stRelay.stPreview.u64Refused},
            {"dropped", i_stRelay.stPreview.u64Dropped + i_stRelay.u64Missed},
            {"thinning", i_stRelay.bThinning},
            {"rate", Rounded(i_stRelay.f64Rate)},
            {"also", objAlso}};
}

Json DaemonJson(const DAEMON_FIGURES_S &i_stDaemon)
{
    return {{"pid", OrNull(i_stDaemon.s32Pid)},
            {"uptime", Rounded(i_stDaemon.f64Uptime)},
            {"cpu_percent", Rounded(i_stDaemon.f64CpuPercent)},
            {"memory_bytes", OrNull(i_stDaemon.u64Memory)},
            {"answers", OrNull(i_stDaemon.bAnswers)}};
}

Json SettingsJson(const std::optional<SETTINGS_S> &i_stSettings)
{
    if (!i_stSettings) {
        return nullptr;
    }
    return {{"time", Rounded(i_stSettings->f64Time)},
            {"h264_enable", i_stSettings->bH264},
            {"h264_gop", i_stSettings->s32Gop},
            {"h264_bitrate", i_stSettings->s32Bitrate},
            {"preview_enable", i_stSettings->bPreview},
            {"preview_height", i_stSettings->s32PreviewHeight},
            {"preview_refreshrate", i_stSettings->s32PreviewRefreshrate}};
}

Json ActsJson(const ACTS_S &i_stActs)
{
    return {{"announcements", i_stActs.u32Announcements},
            {"restarts", i_stActs.u32Restarts},
            {"failed_restarts", i_stActs.u32FailedRestarts},
            {"backoff", Rounded(i_stActs.f64Backoff)},
            {"budget", i_stActs.u32Budget},
            {"budget_left", i_stActs.u32BudgetLeft}};
}

bool IsCondition(const std::string &i_strWord)
{
    for (int i = 0; i <= static_cast<int>(Condition::Streaming); i++) {
        if (i_strWord == ConditionWord(static_cast<Condition>(i))) {
            return true;
        }
    }
    return false;
}

/* What is wrong with it; null if nothing is. */
const char *Fault(const nlohmann::json &i_objState)
{
    if (!i_objState.is_object()) {
        return "it is no JSON object";
    }
    const auto objSchema = i_objState.find("schema");
    if (objSchema == i_objState.end() || !objSchema->is_number_integer() || *objSchema != 1) {
        return "its schema is not 1";
    }
    for (const char *pSection : {"input", "stream", "preview", "relay", "daemon", "acts"}) {
        const auto objSection = i_objState.find(pSection);
        if (objSection == i_objState.end() || !objSection->is_object()) {
            return "a section is missing";
        }
    }
    const auto objWord = i_objState.find("condition");
    if (objWord == i_objState.end() || !objWord->is_string() ||
        !IsCondition(objWord->get<std::string>())) {
        return "its condition is none";
    }
    const auto objText = i_objState.find("text");
    if (objText == i_objState.end() || !objText->is_string()) {
        return "its text is none";
    }
    const auto objTime = i_objState.find("time");
    const auto objHeard = i_objState["input"].find("time");
    if (objTime == i_objState.end() || !objTime->is_number() || !IsWallTime(*objTime) ||
        (objHeard != i_objState["input"].end() && objHeard->is_number() &&
         !IsWallTime(*objHeard))) {
        return "its time is none";
    }
    const auto objEvents = i_objState.find("events");
    return objEvents == i_objState.end() || !objEvents->is_array() ? "its events are none"
                                                                   : nullptr;
}
} // namespace

std::string StateText(const STATE_S &i_stState)
{
    Json objEvents = Json::array();
    for (const EVENT_S &stEvent : i_stState.objEvents) {
        objEvents.push_back({{"time", Rounded(stEvent.f64Time)},
                             {"kind", stEvent.pKind},
                             {"text", stEvent.strText}});
    }
    const Json objState = {
        {"schema", 1},
        {"version", i_stState.strVersion},
        {"time", Rounded(i_stState.f64Time)},
        {"condition", ConditionWord(i_stState.eCondition)},
        {"text", i_stState.strText},
        {"since", Rounded(i_stState.f64Since)},
        {"input", InputJson(i_stState)},
        {"stream", StreamJson(i_stState)},
        {"preview",
         {{"age", Rounded(i_stState.f64PreviewAge)}, {"bytes", OrNull(i_stState.u64PreviewBytes)}}},
        {"relay", RelayJson(i_stState.stRelay)},
        {"daemon", DaemonJson(i_stState.stDaemon)},
        {"settings", SettingsJson(i_stState.stSettings)},
        {"acts", ActsJson(i_stState.stActs)},
        {"events", objEvents}};
    return objState.dump(1, ' ', false, Json::error_handler_t::replace) + "\n";
}

nlohmann::json ParseStateJson(const std::string &i_strText)
{
    Bool bDeep = false;
    nlohmann::json objState = nlohmann::json::parse(
        i_strText,
        [&bDeep](int i_s32Depth, nlohmann::json::parse_event_t, nlohmann::json &) {
            bDeep = bDeep || i_s32Depth > kDeepest;
            return !bDeep;
        },
        false);
    return bDeep ? nlohmann::json(nlohmann::json::value_t::discarded) : objState;
}

nlohmann::json ParseState(const std::string &i_strText, std::string *o_strError)
{
    if (i_strText.size() > kLongestText) {
        *o_strError = "The guard's state file is longer than the guard ever writes one.";
        return nullptr;
    }
    nlohmann::json objState = ParseStateJson(i_strText);
    if (const char *pFault = Fault(objState)) {
        *o_strError =
            std::string("The guard's state file is not as the guard writes it: ") + pFault + ".";
        return nullptr;
    }
    return objState;
}
