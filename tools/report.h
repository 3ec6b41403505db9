/*
 * What the client tells: the table and JSON of the fields, the outcome of a set, and why a request
 * stayed without an answer.
 *
 * Functions without state; any thread may call them.
 */
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/control_channel.h"
#include "tools/stream_fields.h"

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
    std::string strReason; /* of Refused and Missing */
};

/* What became of the asked values, given complete replies from before and after the request. */
std::vector<SET_RESULT_S> JudgeSet(const CFieldValues &i_objAsked, const CFieldValues &i_objBefore,
                                   const CFieldValues &i_objNow);
/* Whether waiting longer can still change the outcome: every value was acceptable, and not all of
 * them are reported yet. */
Bool IsSetPending(const CFieldValues &i_objAsked, const CFieldValues &i_objNow);

/* A line per field: name, value, unit. */
std::string FormatTable(const CFieldValues &i_objValues);
/* One line: {"h264":true,"gop":60,...}; a bit rate is in bit/s. */
std::string FormatJson(const CFieldValues &i_objValues);

/* A line per field: "gop  60 -> 30  taken". */
std::string FormatSet(const std::vector<SET_RESULT_S> &i_objResults);
/* One line: {"ok":false,"fields":[{"field":"gop","asked":1,"before":60,"now":60,
 * "outcome":"refused","reason":"..."}]}. The outcomes are "taken", "already so", "refused" and "not
 * taken"; the last two have a reason. */
std::string FormatSetJson(const std::vector<SET_RESULT_S> &i_objResults);

/* What differs, as table lines "gop  60 -> 30". */
std::string FormatChanges(const CFieldValues &i_objBefore, const CFieldValues &i_objNow);
/* {"time":"...","changes":{"gop":30}} */
std::string FormatChangesJson(const std::string &i_strTime, const CFieldValues &i_objBefore,
                              const CFieldValues &i_objNow);

/* Why there is no answer, for a person, and what to do about it. i_objHolder: the process that
 * holds the daemon's pid file. */
std::string ExplainFailure(const ANSWER_S &i_stAnswer, const CONTROL_ENDPOINT_S &i_stEndpoint,
                           std::chrono::milliseconds i_objTimeout,
                           const std::optional<SInt32> &i_objHolder);
