/*
 * Fixtures of the system tests: the unmodified daemon inside the bench box.
 *
 * The test program runs itself again through sim/box, so that every case has a network, a /config,
 * a /run and a /tmp of its own.
 */
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <sys/types.h>

#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"

using Seconds = std::chrono::seconds;

/* A program with its output in files; ended by id when the object goes. */
class CProgram
{
public:
    explicit CProgram(const std::vector<std::string> &i_strArgs,
                      const std::vector<std::string> &i_strEnv = {});
    ~CProgram();
    CProgram(const CProgram &) = delete;
    CProgram &operator=(const CProgram &) = delete;

    pid_t Pid() const;
    void Signal(int i_s32Signal) const;
    /* The raw wait status; -1 when the program did not end within the limit. */
    int Wait(std::chrono::milliseconds i_objLimit = Seconds(60));
    bool Running();
    /* Standard output and standard error, together, so far. */
    std::string Output() const;

private:
    pid_t m_s32Pid;
    int m_s32Status;
    bool m_bEnded;
    std::string m_strOutputPath;
};

/* Runs a program to its end and returns its output; adds a failure if it does not exit with 0. */
std::string RunToEnd(const std::vector<std::string> &i_strArgs);

/* The daemon, logging every level into a file that the cases read. */
class CDaemon : public CProgram
{
public:
    explicit CDaemon(const std::vector<std::string> &i_strArgs = {},
                     const std::vector<std::string> &i_strEnv = {});

    /* Waits until at least i_s32Count lines of the log contain the text. */
    bool WaitFor(const std::string &i_strText, int i_s32Count = 1,
                 std::chrono::milliseconds i_objLimit = Seconds(40)) const;
    int Count(const std::string &i_strText) const;
    /* Waits until every module runs. */
    bool WaitUntilUp() const;
    std::size_t Descriptors() const;
};

/* Announces an input timing as the bridge driver does, for example "1920x1080@60-0". */
void SendTiming(const std::string &i_strTiming);

/* What an independent receiver saw of an RTP stream. */
struct RECEIVED_S {
    int s32Pictures = 0;
    int s32Width = 0;
    int s32Height = 0;
    double f64Rate = 0; /* decoded pictures per second */
    long s64Packets = 0;
    long s64Gaps = 0; /* RTP sequence numbers missed */
};
RECEIVED_S Receive(const std::string &i_strAddress, int i_s32Port, int i_s32Seconds = 3);
/* Expects the group's stream with pictures of that size, nothing missing, and about that rate: a
 * loaded machine drops pictures, so the lower bound is a wide one. */
void ExpectGroupStream(int i_s32Width, int i_s32Height, double i_f64Rate);

/* Parameter file with the given parameters only. */
void WriteParams(const std::vector<std::pair<std::string, std::string>> &i_strParams);

/* A word for the stand-in source: run, fail, stall, end, absent, ... */
void SetSource(const std::string &i_strWord);

/* The group of the box's eth0, whose hardware address is 0a:1b:2c:3d:4e:5f. */
inline constexpr char kGroup[] = "234.29.78.95";
inline constexpr int kGroupPort = 59202;
inline constexpr char kParamFile[] = "/config/mv3300/param.xml";
inline constexpr char kLogConf[] = "/config/logconf/mvx3300.conf";
inline constexpr char kPidFile[] = "/var/run/mv3300.pid";
