/*
 * doctor.
 */
#include "tools/ctl_doctor.h"

#include <algorithm>
#include <memory>

#include <CLI/CLI.hpp>

#include "tools/doctor.h"

namespace
{
using CJson = nlohmann::ordered_json;

struct OPTIONS_S {
    DOCTOR_PATHS_S stPaths;
    bool bJson = false;
};

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

int Run(const CTL_CONTEXT_S &i_stContext, const OPTIONS_S &i_stOptions)
{
    const PATIENT_S stPatient = Examine(i_stContext.stEndpoint, i_stOptions.stPaths);
    const std::vector<FINDING_S> objFindings = Diagnose(stPatient, i_stOptions.stPaths);
    const bool bWrong =
        std::any_of(objFindings.begin(), objFindings.end(), [](const FINDING_S &i_stFinding) {
            return i_stFinding.eVerdict == Verdict::No;
        });
    const int s32Exit = bWrong                               ? CTL_NOT_TAKEN
                        : stPatient.bPackets.value_or(false) ? CTL_OK
                                                             : CTL_CANNOT_TELL;
    if (i_stOptions.bJson) {
        i_stContext.objOut << ToJson(stPatient, objFindings, s32Exit)
                                  .dump(-1, ' ', false, CJson::error_handler_t::replace)
                           << "\n";
    } else {
        Print(i_stContext.objOut, stPatient, objFindings);
    }
    return s32Exit;
}
} // namespace

CRunCommand DescribeDoctor(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext)
{
    const auto pOptions = std::make_shared<OPTIONS_S>();
    AddJsonOption(io_objApp, pOptions->bJson);
    return [&i_stContext, pOptions] { return Run(i_stContext, *pOptions); };
}
