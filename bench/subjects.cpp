#include "bench/subjects.h"

#include <map>

#include "bench/rig.h"

namespace
{
constexpr char kOurs[] = "ours";

struct SUBJECT_S {
    std::string strWhat;
    std::vector<BESIDE_S> stBesides;
};
std::vector<SUBJECT_S> g_stSubjects;

/* Keeps the time of each repetition, by the benchmark's name. */
class CTimes : public benchmark::BenchmarkReporter
{
public:
    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &i_objRuns) override
    {
        for (const Run &objRun : i_objRuns) {
            if (objRun.error_occurred) {
                Fail(objRun.run_name.function_name.c_str(), objRun.error_message);
            }
            if (objRun.run_type == Run::RT_Iteration) {
                m_f64Ns[objRun.run_name.function_name].push_back(
                    objRun.run_name.time_type.empty() ? objRun.GetAdjustedCPUTime()
                                                      : objRun.GetAdjustedRealTime());
            }
        }
    }
    const std::vector<double> &Of(const std::string &i_strWhat, const char *i_pSide)
    {
        return m_f64Ns[i_strWhat + "/" + i_pSide];
    }

private:
    std::map<std::string, std::vector<double>> m_f64Ns;
};
} // namespace

void AddSubject(const std::string &i_strWhat, SInt64 i_s64Size, CRun i_pOurs,
                const std::vector<BESIDE_S> &i_stBesides, SInt64 i_s64Rounds)
{
    std::vector<BESIDE_S> stSides = i_stBesides;
    stSides.push_back({kOurs, i_pOurs, -1});
    for (const BESIDE_S &stSide : stSides) {
        auto *pBenchmark =
            benchmark::RegisterBenchmark((i_strWhat + "/" + stSide.pName).c_str(), stSide.pRun);
        pBenchmark->Arg(i_s64Size);
        if (i_s64Rounds != PROCESSOR_TIME) {
            pBenchmark->UseRealTime();
        }
        if (i_s64Rounds > 0) {
            pBenchmark->Iterations(i_s64Rounds);
        }
    }
    g_stSubjects.push_back({i_strWhat, i_stBesides});
}

int RunSubjects(int argc, char **argv)
{
    std::string strOptions[] = {"--benchmark_enable_random_interleaving=true",
                                "--benchmark_repetitions=9", "--benchmark_min_time=0.05"};
    std::vector<char *> pArgs = {argv[0]};
    for (std::string &strOption : strOptions) {
        pArgs.push_back(strOption.data());
    }
    pArgs.insert(pArgs.end(), argv + 1, argv + argc);
    int s32Count = static_cast<int>(pArgs.size());
    pArgs.push_back(nullptr);
    benchmark::Initialize(&s32Count, pArgs.data());
    if (benchmark::ReportUnrecognizedArguments(s32Count, pArgs.data())) {
        return 2;
    }
    PinToOneProcessor();
    CTimes objTimes;
    benchmark::RunSpecifiedBenchmarks(&objTimes);
    for (const SUBJECT_S &stSubject : g_stSubjects) {
        for (const BESIDE_S &stBeside : stSubject.stBesides) {
            if (objTimes.Of(stSubject.strWhat, kOurs).empty()) {
                continue; /* left out by the harness's filter */
            }
            Compare(stSubject.strWhat, stBeside.pName, stBeside.f64Limit,
                    objTimes.Of(stSubject.strWhat, kOurs),
                    objTimes.Of(stSubject.strWhat, stBeside.pName));
        }
    }
    return 0;
}
