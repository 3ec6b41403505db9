/*
 * What the guard says.
 */
#include "panel/state.h"

#include <chrono>
#include <fstream>
#include <iterator>

#include "guard/state.h"
#include "guard/wall_time.h"

using nlohmann::json;

namespace
{
constexpr std::chrono::milliseconds kLookEvery(250);
constexpr std::size_t kMostBytes = 256 * 1024;
constexpr std::size_t kHistorySeconds = 600;
/* The guard writes once a second. */
constexpr double kOldSeconds = 5;

double Now()
{
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

/* A state of the guard's shape that knows nothing but its condition. */
json Unknown(const char *i_pCondition, const std::string &i_strText)
{
    json objState = {{"schema", 1},         {"version", nullptr},
                     {"time", nullptr},     {"condition", i_pCondition},
                     {"text", i_strText},   {"since", nullptr},
                     {"settings", nullptr}, {"events", json::array()}};
    for (const char *pPart : {"input", "stream", "preview", "relay", "daemon", "acts"}) {
        objState[pPart] = json::object();
    }
    return objState;
}

json Optional(const std::optional<double> &i_objValue)
{
    return i_objValue ? json(*i_objValue) : json();
}
} // namespace

std::string SEEN_STATE_S::Condition() const
{
    return objJson.value("condition", "");
}

std::string SEEN_STATE_S::Sentence() const
{
    return objJson.value("text", "");
}

std::optional<double> SEEN_STATE_S::Number(const char *i_pPointer) const
{
    const json::json_pointer objPointer(i_pPointer);
    if (!objJson.contains(objPointer) || !objJson.at(objPointer).is_number()) {
        return std::nullopt;
    }
    return objJson.at(objPointer).get<double>();
}

std::string SEEN_STATE_S::String(const char *i_pPointer) const
{
    const json::json_pointer objPointer(i_pPointer);
    return objJson.contains(objPointer) && objJson.at(objPointer).is_string()
               ? objJson.at(objPointer).get<std::string>()
               : std::string();
}

json ReadState(const std::optional<std::string> &i_objBytes, double i_f64Now)
{
    if (!i_objBytes) {
        return Unknown("no-guard", "The guard (mv3300-guard) is not running, so nothing is known "
                                   "of the input and the stream.");
    }
    json objState = ParseStateJson(*i_objBytes);
    if (!objState.is_object() || !objState["condition"].is_string() ||
        !objState["text"].is_string() || !objState["time"].is_number() ||
        !IsWallTime(objState["time"])) {
        return Unknown("no-guard", "The guard's state file cannot be read: it is damaged.");
    }
    if (objState["schema"] != 1) {
        return Unknown("no-guard", "The guard and the panel are of different versions: the state "
                                   "file has a form unknown here.");
    }
    const double f64Age = i_f64Now - objState["time"].get<double>();
    if (f64Age > kOldSeconds) {
        return Unknown("no-guard", "The guard (mv3300-guard) has stopped: its last word is " +
                                       std::to_string(static_cast<UInt64>(f64Age)) +
                                       " seconds old.");
    }
    if (!objState["events"].is_array()) {
        objState["events"] = json::array();
    }
    for (const char *pPart : {"input", "stream", "preview", "relay", "daemon", "acts"}) {
        if (!objState[pPart].is_object()) {
            objState[pPart] = json::object();
        }
    }
    return objState;
}

std::optional<std::string> ReadWhole(const std::string &i_strFile, std::size_t i_u64Most)
{
    std::ifstream objFile(i_strFile, std::ios::binary);
    std::string strBytes(i_u64Most + 1, '\0');
    if (!objFile || objFile.read(strBytes.data(), static_cast<std::streamsize>(strBytes.size()))) {
        return std::nullopt;
    }
    strBytes.resize(static_cast<std::size_t>(objFile.gcount()));
    return strBytes;
}

CState::CState(std::string i_strFile, std::function<void()> i_pLook)
    : m_strFile(std::move(i_strFile)), m_pLook(std::move(i_pLook))
{
    Look(Now());
    m_objThread = std::thread([this] { Run(); });
}

CState::~CState()
{
    End();
    m_objThread.join();
}

void CState::End()
{
    const std::lock_guard objLock(m_objMutex);
    m_bEnd = true;
    m_objChanged.notify_all();
}

std::shared_ptr<const SEEN_STATE_S> CState::Get() const
{
    const std::lock_guard objLock(m_objMutex);
    return m_pState;
}

std::shared_ptr<const SEEN_STATE_S> CState::Wait(UInt64 i_u64Version,
                                                 std::chrono::milliseconds i_objMost)
{
    std::unique_lock objLock(m_objMutex);
    m_objChanged.wait_for(objLock, i_objMost,
                          [&] { return m_bEnd || m_pState->u64Version != i_u64Version; });
    return m_pState;
}

void CState::Run()
{
    std::unique_lock objLock(m_objMutex);
    while (!m_bEnd) {
        objLock.unlock();
        m_pLook();
        const double f64Now = Now();
        Look(f64Now);
        const std::shared_ptr<const SEEN_STATE_S> pState = Get();
        objLock.lock();
        if (m_objHistory.empty() || f64Now - m_objHistory.back().f64Time >= 0.95 ||
            f64Now < m_objHistory.back().f64Time) {
            Remember(f64Now, *pState);
        }
        m_objChanged.wait_for(objLock, kLookEvery, [this] { return m_bEnd; });
    }
}

void CState::Look(double i_f64Now)
{
    std::optional<std::string> objBytes = ReadWhole(m_strFile, kMostBytes);
    const bool bSame = objBytes && *objBytes == m_strBytes;
    if (bSame) {
        const std::shared_ptr<const SEEN_STATE_S> pState = Get();
        if (i_f64Now - pState->Number("/time").value_or(i_f64Now) <= kOldSeconds) {
            return;
        }
    }
    json objState = ReadState(objBytes, i_f64Now);
    m_strBytes = objBytes ? std::move(*objBytes) : std::string();
    if (!m_pState || m_pState->objJson != objState) {
        Publish(std::move(objState));
    }
}

void CState::Publish(json i_objJson)
{
    auto pState = std::make_shared<SEEN_STATE_S>();
    pState->objJson = std::move(i_objJson);
    pState->strText = pState->objJson.dump(-1, ' ', false, json::error_handler_t::replace);
    const std::lock_guard objLock(m_objMutex);
    pState->u64Version = m_pState ? m_pState->u64Version + 1 : 1;
    m_pState = std::move(pState);
    m_objChanged.notify_all();
}

void CState::Remember(double i_f64Now, const SEEN_STATE_S &i_stState)
{
    HISTORY_S stSecond;
    stSecond.f64Time = i_f64Now;
    stSecond.objKbit = i_stState.Number("/stream/kbit_per_second");
    stSecond.objPictures = i_stState.Number("/stream/pictures_per_second");
    stSecond.objCpu = i_stState.Number("/daemon/cpu_percent");
    const std::optional<double> objLost = i_stState.Number("/stream/lost");
    if (objLost && m_f64Lost >= 0) {
        /* A guard that was started again counts from zero. */
        stSecond.objLost = *objLost >= m_f64Lost ? *objLost - m_f64Lost : *objLost;
    }
    m_f64Lost = objLost.value_or(-1);
    m_objHistory.push_back(stSecond);
    if (m_objHistory.size() > kHistorySeconds) {
        m_objHistory.pop_front();
    }
}

json CState::History() const
{
    json objTime = json::array(), objKbit = json::array(), objPictures = json::array(),
         objLost = json::array(), objCpu = json::array();
    const std::lock_guard objLock(m_objMutex);
    for (const HISTORY_S &stSecond : m_objHistory) {
        objTime.push_back(stSecond.f64Time);
        objKbit.push_back(Optional(stSecond.objKbit));
        objPictures.push_back(Optional(stSecond.objPictures));
        objLost.push_back(Optional(stSecond.objLost));
        objCpu.push_back(Optional(stSecond.objCpu));
    }
    return {{"time", objTime},
            {"kbit", objKbit},
            {"pictures", objPictures},
            {"lost", objLost},
            {"cpu", objCpu}};
}
