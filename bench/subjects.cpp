#include "bench/subjects.h"

#include <map>
#include <vector>

#include "bench/rig.h"

namespace
{
struct SUBJECT_S {
    std::string strWhat;
    std::string strBeside;
    double f64Limit;
    std::string Name(bool i_bOurs) const
    {
        return strWhat + " / " + strBeside + (i_bOurs ? " / ours" : " / theirs");
    }
};
std::vector<SUBJECT_S> g_stSubjects;

/* Keeps the time of each repetition, by the benchmark's name. */
struct CTimes : benchmark::BenchmarkReporter {
    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &i_objRuns) override
    {
        for (const Run &objRun : i_objRuns) {
            if (objRun.error_occurred) {
                Fail(objRun.run_name.function_name.c_str(), objRun.error_message);
            }
            if (objRun.run_type == Run::RT_Iteration) {
                f64Ns[objRun.run_name.function_name].push_back(objRun.run_name.time_type.empty()
                                                                   ? objRun.GetAdjustedCPUTime()
                                                                   : objRun.GetAdjustedRealTime());
            }
        }
    }
    std::map<std::string, std::vector<double>> f64Ns;
};
} // namespace

void AddSubject(const std::string &i_strWhat, CRun i_pOurs, const std::string &i_strBeside,
                CRun i_pBeside, double i_f64Limit, SInt64 i_s64Size, SInt64 i_s64Rounds)
{
    const SUBJECT_S &stSubject =
        g_stSubjects.emplace_back(SUBJECT_S{i_strWhat, i_strBeside, i_f64Limit});
    for (const bool bOurs : {false, true}) {
        auto *pBenchmark = benchmark::RegisterBenchmark(stSubject.Name(bOurs).c_str(),
                                                        bOurs ? i_pOurs : i_pBeside);
        pBenchmark->Arg(i_s64Size);
        if (i_s64Rounds != PROCESSOR_TIME) {
            pBenchmark->UseRealTime();
        }
        if (i_s64Rounds > 0) {
            pBenchmark->Iterations(i_s64Rounds);
        }
    }
}

int RunSubjects(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    CTimes objTimes;
    benchmark::RunSpecifiedBenchmarks(&objTimes);
    for (const SUBJECT_S &stSubject : g_stSubjects) {
        if (objTimes.f64Ns.count(stSubject.Name(true)) == 0) {
            continue; /* left out by the harness's filter */
        }
        Compare(stSubject.strWhat, stSubject.strBeside, stSubject.f64Limit,
                objTimes.f64Ns[stSubject.Name(true)], objTimes.f64Ns[stSubject.Name(false)]);
    }
    return 0;
}
