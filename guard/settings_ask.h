/*
 * Asks the daemon for its settings without waiting: the relay goes on meanwhile.
 *
 * The answer port is shared with every other reader of the box: it is held for the one request,
 * and tried for at most 3.5 s. Each ask leaves lines in the daemon's log. One thread.
 */
#pragma once

#include <optional>

#include "framework/unique_fd.h"
#include "guard/condition.h"

class CSettingsAsk
{
public:
    /* Not while one is under way. */
    void Start(SInt64 i_s64NowMs);
    Bool UnderWay() const { return m_bUnderWay; }
    /* To be polled for input; -1 when nothing is awaited. */
    int Fd() const { return m_bSent ? m_objReply.Get() : -1; }

    struct RESULT_S {
        Bool bAsked = false; /* the request was sent; else the answer port was never free */
        std::optional<SETTINGS_S> stSettings; /* none: no answer. Its time is not filled in. */
    };
    /* Goes on as far as is possible now; a result ends the ask. */
    std::optional<RESULT_S> Go(SInt64 i_s64NowMs);

private:
    RESULT_S Finish(const std::optional<SETTINGS_S> &i_stSettings);
    Bool SendRequest();

    UniqueFd m_objReply;
    UniqueFd m_objRequest;
    Bool m_bUnderWay = false;
    Bool m_bSent = false;
    SInt64 m_s64UntilMs = 0;
};
