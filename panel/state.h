/*
 * What the guard says: its state file as it is now, its changes, and the figures of the last ten
 * minutes. Where the file is missing, torn, old or of another schema, a state of the same shape
 * says so.
 *
 * One thread looks at the file four times a second; everything else may be called from any.
 */
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "framework/types.h"

struct SEEN_STATE_S {
    UInt64 u64Version = 0; /* grows with every change */
    nlohmann::json objJson;
    std::string strText; /* the same, serialised */

    std::string Condition() const;
    std::string Sentence() const;
    /* The value under "/stream/packets" and the like; none if it is absent or no number. */
    std::optional<double> Number(const char *i_pPointer) const;
    std::string String(const char *i_pPointer) const;
};

/* One second of the plots; what is unknown is none. */
struct HISTORY_S {
    double f64Time = 0; /* seconds since the epoch */
    std::optional<double> objKbit, objPictures, objLost, objCpu;
};

class CState
{
public:
    /* The function is called with every look, about four times a second. */
    CState(std::string i_strFile, std::function<void()> i_pLook);
    ~CState();
    CState(const CState &) = delete;
    CState &operator=(const CState &) = delete;

    std::shared_ptr<const SEEN_STATE_S> Get() const;
    /* Waits for a state of another version, at most the given time. */
    std::shared_ptr<const SEEN_STATE_S> Wait(UInt64 i_u64Version,
                                             std::chrono::milliseconds i_objMost);
    /* {"time":[...],"kbit":[...],...}, the oldest second first. */
    nlohmann::json History() const;
    /* Ends every Wait(). */
    void End();

private:
    void Run();
    void Look(double i_f64Now);
    void Publish(nlohmann::json i_objJson);
    void Remember(double i_f64Now, const SEEN_STATE_S &i_stState);

    const std::string m_strFile;
    const std::function<void()> m_pLook;
    mutable std::mutex m_objMutex;
    std::condition_variable m_objChanged;
    std::shared_ptr<const SEEN_STATE_S> m_pState;
    std::deque<HISTORY_S> m_objHistory;
    double m_f64Lost = -1; /* the counter a second ago */
    bool m_bEnd = false;
    /* Of the looking thread alone. */
    std::string m_strBytes;
    std::thread m_objThread;
};

/* The state to show for the bytes of the file (none: there is no file) at the given time. */
nlohmann::json ReadState(const std::optional<std::string> &i_objBytes, double i_f64Now);
/* The file's bytes; none if it cannot be read or is longer than the given size. */
std::optional<std::string> ReadWhole(const std::string &i_strFile, std::size_t i_u64Most);
