/*
 * A set with read-back: what the daemon made of the values that it was sent.
 *
 * A set is not acknowledged, and the daemon may be busy with its pipelines for seconds; so the
 * values are read back until all of them show or the time is up. The daemon's own reply to the
 * request that carries the set tells what was before. Any thread may call.
 */
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "tools/control_channel.h"

/* Of a set, per field. */
enum class SetOutcome {
    Taken,   /* asked for, and reported by the daemon now */
    Already, /* was so before */
    Refused, /* the daemon does not take it */
    Missing  /* nothing speaks against it, but the daemon still reports another value */
};

struct SET_RESULT_S {
    std::size_t u64Field;
    CFieldValue xAsked;
    CFieldValue xBefore;
    CFieldValue xNow;
    SetOutcome eOutcome;
    std::string strReason; /* of Refused and Missing: a sentence for people */
};

struct APPLIED_S {
    /* The last answer. Unless it is Answered there are no results. */
    ANSWER_S stAnswer;
    /* The values went out; without results it is not known what became of them. */
    Bool bSent = false;
    std::vector<SET_RESULT_S> objResults; /* in the order of the fields */

    /* Every value is in effect. */
    Bool IsDone() const;
};

/* Sends the values and waits up to i_objTimeout for all of them to show, at least one of them
 * given. 25 s cover two streams that are still starting. A value out of the channel's range is sent
 * too: the daemon refuses the whole request then, and nothing is waited for. */
APPLIED_S ApplySettings(const CONTROL_ENDPOINT_S &i_stEndpoint, const CFieldValues &i_objAsked,
                        std::chrono::milliseconds i_objTimeout);

/* "taken", "already so", "refused", "not taken" */
const char *OutcomeName(SetOutcome i_eOutcome);
