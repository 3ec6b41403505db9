/*
 * Reading the state file.
 */
#include "tools/guard_state.h"

#include <cerrno>
#include <cmath>
#include <cstring>

#include <time.h>

#include <nlohmann/json.hpp>

#include "guard/files.h"
#include "guard/state.h"

namespace
{
constexpr std::size_t kLongest = 1024 * 1024;
constexpr double kFresh = 5; /* s; it is written once a second */
} // namespace

nlohmann::json ReadGuardState(std::string *o_strFact)
{
    const auto strText = ReadFile(STATE_FILE, kLongest);
    if (!strText) {
        *o_strFact = std::string(STATE_FILE) + ": " + strerror(errno) +
                     (errno == ENOENT ? " (the guard does not run)" : "");
        return nullptr;
    }
    nlohmann::json objState = ParseState(*strText, o_strFact);
    if (objState.is_null()) {
        return nullptr;
    }
    const double f64Age =
        std::fabs(static_cast<double>(time(nullptr)) - objState["time"].get<double>());
    if (f64Age > kFresh) {
        *o_strFact = std::string(STATE_FILE) + " is " + std::to_string(std::lround(f64Age)) +
                     " s old: the guard does not run";
        return nullptr;
    }
    return objState;
}

nlohmann::json StateValue(const nlohmann::json &i_objState, const char *i_pSection,
                          const char *i_pName)
{
    if (!i_objState.is_object()) {
        return nullptr;
    }
    const auto objSection = i_objState.find(i_pSection);
    if (objSection == i_objState.end() || !objSection->is_object()) {
        return nullptr;
    }
    const auto objValue = objSection->find(i_pName);
    return objValue == objSection->end() ? nlohmann::json(nullptr) : *objValue;
}
