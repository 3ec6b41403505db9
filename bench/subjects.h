/*
 * Subjects measured by Google Benchmark: ours and what stands beside it, in one process pinned to
 * one processor, repetitions interleaved.
 */
#pragma once

#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "framework/types.h"

using CRun = void (*)(benchmark::State &);

struct BESIDE_S {
    const char *pName;
    CRun pRun;
    double f64Limit; /* of ours as a part of it; negative: none */
};

/* By what a subject is measured: the processor time of the thread, or the real time of so many
 * rounds (0: as many as the harness wants). */
constexpr SInt64 PROCESSOR_TIME = -1;

/* The size is range(0) of every side. */
void AddSubject(const std::string &i_strWhat, SInt64 i_s64Size, CRun i_pOurs,
                const std::vector<BESIDE_S> &i_stBesides, SInt64 i_s64Rounds = PROCESSOR_TIME);
/* main() of such a program: takes the harness's options, and prints a row for each pair. */
int RunSubjects(int argc, char **argv);
