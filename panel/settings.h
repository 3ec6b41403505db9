/*
 * The settings of the stream for the page: asked over the control channel, changed with the values
 * read back, and saved.
 *
 * Every question leaves lines in the daemon's log, so an answer is shown again to whoever asks
 * within a few seconds. Any thread.
 */
#pragma once

#include <chrono>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

#include "framework/types.h"
#include "tools/stream_fields.h"

class CSettings
{
public:
    struct REPLY_S {
        int s32Status = 200; /* of HTTP */
        nlohmann::json objJson;
    };

    explicit CSettings(std::string i_strParamFile) : m_strParamFile(std::move(i_strParamFile)) {}
    /* {"settings":[{"name":"gop","value":60,"least":2,...}]}; 503 with {"error":...} when the
     * daemon does not answer. */
    REPLY_S Get();
    /* Of {"gop":30,...} what took effect and what did not, and why, and whether all of it did.
     * 400 with {"error":...} for what is no such object. i_bSave keeps what is in effect. */
    REPLY_S Put(const std::string &i_strBody, Bool i_bSave);
    /* What the daemon answered last, as the guard's state has it under "settings"; null before.
     * Asks nobody and waits for nobody. */
    nlohmann::json Known() const;

private:
    void Save(const CFieldValues &i_objValues, nlohmann::json &io_objReply) const;
    void Remember(const CFieldValues &i_objValues);

    const std::string m_strParamFile;
    std::mutex m_objMutex; /* one question at a time: the others share its answer */
    std::chrono::steady_clock::time_point m_objAsked;
    REPLY_S m_stLast;
    mutable std::mutex m_objKnownMutex; /* a question takes seconds */
    nlohmann::json m_objKnown;
};
