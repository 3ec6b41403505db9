/*
 * Where the stream goes and what its receivers are told: the one session description of receive-kit
 * and of the panel. Out of the parameter file (where it goes) and of what the guard says of the
 * stream itself (payload type and parameter sets). Any thread.
 */
#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

#include "guard/sap.h"

struct TARGET_S {
    std::string strAddress; /* dotted */
    UInt16 u16Port = 59202;
    std::string strProblem; /* "" for a good one */
};

/* The first receiver of i_strTo ("host:port", separated by commas), else of the file's list, else
 * the box's own group. A list that the calling user may not read is a problem. A name that does not
 * resolve takes up to 5 s. o_strNote, where it is not null: what a person should know beside it. */
TARGET_S FindTarget(const std::string &i_strFile, const std::string &i_strTo,
                    std::string *o_strNote);
/* i_objState: the guard's state (mv3300-state(5)), or null. */
SESSION_S MakeSession(const TARGET_S &i_stTarget, const nlohmann::json &i_objState);
/* Whether the description has them, so that a receiver need not wait for them. */
bool HasParameterSets(const SESSION_S &i_stSession);
