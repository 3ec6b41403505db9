/*
 * Subjects measured by Google Benchmark: ours and what stands beside it, in one process. bench/run
 * has the repetitions interleaved.
 */
#pragma once

#include <string>

#include <benchmark/benchmark.h>

#include "framework/types.h"

using CRun = void (*)(benchmark::State &);

/* By what a subject is measured: the processor time of the thread, the real time, or the real time
 * of so many rounds. */
constexpr SInt64 PROCESSOR_TIME = -1;
constexpr SInt64 REAL_TIME = 0;

/* i_f64Limit: the most that ours may take, as a part of the other. The size is range(0) of both. */
void AddSubject(const std::string &i_strWhat, CRun i_pOurs, const std::string &i_strBeside,
                CRun i_pBeside, double i_f64Limit, SInt64 i_s64Size = 0,
                SInt64 i_s64Rounds = PROCESSOR_TIME);
/* main() of such a program: takes the harness's options, and prints a row for each subject. */
int RunSubjects(int argc, char **argv);
