/*
 * What the benchmarks share: figures with their limits, processes in the bench box and what they
 * use. One thread; what cannot be measured ends the program with a message and the status 1.
 */
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include "framework/types.h"

/* Prints the text and what it is about to standard error and ends the program. */
[[noreturn]] void Fail(const char *i_pText, const std::string &i_strAbout);

/* Monotonic, in microseconds. */
double NowUs();
/* i_f64Part: 0.5 for the median. */
double Quantile(std::vector<double> i_f64Values, double i_f64Part);
/* One row of the table that bench/run ends with. Ends in "ok", in "MISS" where the figure is above
 * the limit, and in "-" where there is none (a negative one). */
void Report(const std::string &i_strWhat, const std::string &i_strBeside, double i_f64Limit,
            double i_f64Figure, const std::string &i_strMore = "");
/* The same for the ratio of the medians, with the spread of either side. */
void Compare(const std::string &i_strWhat, const std::string &i_strBeside, double i_f64Limit,
             const std::vector<double> &i_f64Ours, const std::vector<double> &i_f64Baseline);

/* Ends the program outside of the bench box. Inside, gives the daemon a parameter file with
 * 127.0.0.1:5004 as the one receiver, and the packaged log configuration without its console. */
void PrepareBox();

/* Runs a program without input and output. */
pid_t Spawn(std::vector<std::string> i_strArgs);
/* Sends the signal and waits for the end; fails if the process has ended before. */
void End(pid_t i_s32Pid, int i_s32Signal);
/* A daemon with its modules up; its log begins anew. */
pid_t StartDaemon();
/* Announces a timing as the bridge's driver does. */
void SendTiming(const char *i_pEvent);
/* Waits until so many lines of the daemon's log, or of the file, hold the text. Fails after 30 s.
 */
void WaitForLog(const char *i_pText, int i_s32Count, const std::string &i_strFile = "");

/* Of the whole process, ended threads too. */
double CpuSeconds(pid_t i_s32Pid);
/* Of all its threads that live. */
double VoluntarySwitches(pid_t i_s32Pid);
/* Its proportional share: a page in several processes' memory counts in part for each of them. */
double PssMb(pid_t i_s32Pid);
