/*
 * doctor.
 */
#include "tools/ctl_doctor.h"

#include <algorithm>
#include <memory>
#include <sstream>

#include <CLI/CLI.hpp>

namespace
{
using CJson = nlohmann::ordered_json;

const char *VerdictText(Verdict i_eVerdict)
{
    return i_eVerdict == Verdict::Yes ? "yes" : i_eVerdict == Verdict::No ? "no" : "not known";
}

void Print(std::ostream &io_objOut, const PATIENT_S &i_stPatient,
           const std::vector<FINDING_S> &i_objFindings)
{
    bool bAdvised = false;
    for (const FINDING_S &stFinding : i_objFindings) {
        std::string strLine = stFinding.pWhat;
        strLine.resize(18, ' ');
        strLine += VerdictText(stFinding.eVerdict);
        strLine.resize(29, ' ');
        io_objOut << strLine << stFinding.strFact << "\n";
        if (stFinding.eVerdict == Verdict::No && !bAdvised) {
            io_objOut << "  -> " << stFinding.strAdvice << "\n";
            bAdvised = true;
        }
    }
    io_objOut << (i_stPatient.objState.is_object()
                      ? "The guard says: " + i_stPatient.objState.value("text", "")
                      : "Without the guard: " + i_stPatient.strNoState)
              << "\n";
}

CJson ToJson(const PATIENT_S &i_stPatient, const std::vector<FINDING_S> &i_objFindings,
             int i_s32Exit)
{
    CJson objFindings = CJson::array();
    std::string strAdvice;
    for (const FINDING_S &stFinding : i_objFindings) {
        objFindings.push_back({{"what", stFinding.pWhat},
                               {"answer", VerdictText(stFinding.eVerdict)},
                               {"fact", stFinding.strFact},
                               {"advice", stFinding.strAdvice}});
        if (strAdvice.empty()) {
            strAdvice = stFinding.strAdvice;
        }
    }
    return {{"ok", i_s32Exit == CTL_OK},
            {"streams", i_stPatient.bPackets ? CJson(*i_stPatient.bPackets) : CJson(nullptr)},
            {"condition", i_stPatient.Condition()},
            {"advice", strAdvice},
            {"findings", objFindings}};
}
} // namespace

DOCTOR_ANSWERS_S AskDoctor(const CONTROL_ENDPOINT_S &i_stEndpoint, const DOCTOR_PATHS_S &i_stPaths)
{
    const PATIENT_S stPatient = Examine(i_stEndpoint, i_stPaths);
    const std::vector<FINDING_S> objFindings = Diagnose(stPatient, i_stPaths);
    const bool bWrong =
        std::any_of(objFindings.begin(), objFindings.end(), [](const FINDING_S &i_stFinding) {
            return i_stFinding.eVerdict == Verdict::No;
        });
    const int s32Exit = bWrong                               ? CTL_NOT_TAKEN
                        : stPatient.bPackets.value_or(false) ? CTL_OK
                                                             : CTL_CANNOT_TELL;
    std::ostringstream objText;
    Print(objText, stPatient, objFindings);
    return {objText.str(),
            ToJson(stPatient, objFindings, s32Exit)
                    .dump(-1, ' ', false, CJson::error_handler_t::replace) +
                "\n",
            s32Exit};
}

CRunCommand DescribeDoctor(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext)
{
    const auto pJson = std::make_shared<bool>(false);
    AddJsonOption(io_objApp, *pJson);
    return [&i_stContext, pJson] {
        const DOCTOR_ANSWERS_S stAnswers = AskDoctor(i_stContext.stEndpoint, {});
        i_stContext.objOut << (*pJson ? stAnswers.strJson : stAnswers.strText);
        return stAnswers.s32Exit;
    };
}
