/*
 * What the guard says of the box, for the commands that say more with it. Any thread.
 */
#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

/* The state file, while the guard keeps it fresh (mv3300-state(5)); else null, and o_strFact says
 * why not: it is missing, not the guard's, or older than a few seconds. */
nlohmann::json ReadGuardState(std::string *o_strFact);

/* A member of a section of the state: null where there is none. */
nlohmann::json StateValue(const nlohmann::json &i_objState, const char *i_pSection,
                          const char *i_pName);
