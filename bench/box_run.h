/*
 * What the benchmarks of the running daemon share: processes in the bench box, what they use, and
 * the figures. One thread; every failure ends the program with a message and the status 1.
 */
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include "framework/types.h"

/* Prints the text and what it is about to standard error and ends the program. */
[[noreturn]] void Fail(const char *i_pText, const std::string &i_strAbout);

/* Pins this process, and whatever it starts, to processor 0. */
void PinToOneProcessor();
/* Ends the program outside of the bench box. Inside, gives the daemon a log at INFO and a parameter
 * file with 127.0.0.1:5004 as the one receiver. */
void PrepareBox();

/* Runs a program without input and output; i_s32Stdin, where it is not negative, is its input. */
pid_t Spawn(const std::vector<std::string> &i_strArgs, int i_s32Stdin = -1);
/* A process of Spawn that ends by itself. */
void WaitForEnd(pid_t i_s32Pid);
/* Sends the signal and waits for the end; fails if the process has ended before. */
void End(pid_t i_s32Pid, int i_s32Signal);
/* A daemon with its modules up; its log begins anew. */
pid_t StartDaemon();
/* Announces a timing as the bridge's driver does. */
void SendTiming(const char *i_pEvent);
/* Waits until so many lines of the file, or of the daemon's log, hold the text. Fails after 30 s,
 * and when a process of Spawn ends meanwhile. */
void WaitForLine(const char *i_pFile, const char *i_pText, int i_s32Count);
void WaitForLog(const char *i_pText, int i_s32Count);

/* Of the whole process, ended threads too. */
double CpuSeconds(pid_t i_s32Pid);
double RssMb(pid_t i_s32Pid);
/* A page that several processes have in memory counts in part for each of them. */
double PssMb(pid_t i_s32Pid);

/* i_f64Part: 0.5 for the median. */
double Quantile(std::vector<double> i_f64Values, double i_f64Part);
/* A line with the medians and the ranges of both sides, and the ratio of the medians. */
void Compare(const char *i_pWhat, const std::vector<double> &i_f64Ours,
             const std::vector<double> &i_f64Reference);
