/*
 * What the client prints: the table and JSON of the fields, and the outcome of a set.
 *
 * Functions without state; any thread may call them.
 */
#pragma once

#include <string>
#include <vector>

#include "tools/apply_settings.h"

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

/* {"file":"...","saved":true,"changes":{"gop":{"file":60,"running":30}}} */
std::string FormatSavedJson(const std::string &i_strFile, bool i_bSaved,
                            const CFieldValues &i_objFile, const CFieldValues &i_objRunning);
