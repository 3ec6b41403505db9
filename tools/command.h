/*
 * What the commands of mv3300ctl have in common: exit codes, where results go, and how a command
 * joins the table in ctl_main.cpp.
 *
 * A command is a source pair ctl_NAME with a Describe function: it adds the command's options to
 * its part of the command line and returns what runs it. The returned function is called once at
 * most, after the command line was read, by the one thread there is; it may throw CLI::ParseError
 * for what only shows then.
 */
#pragma once

#include <functional>
#include <ostream>
#include <string>

#include "tools/control_channel.h"

namespace CLI
{
class App;
}

/* Exit codes */
constexpr int CTL_OK = 0;
constexpr int CTL_NOT_TAKEN = 1;    /* a set value was refused, a check found something */
constexpr int CTL_USAGE = 2;        /* the command line cannot be understood */
constexpr int CTL_NO_ANSWER = 3;    /* no daemon, no answer, or what was set cannot be read back */
constexpr int CTL_REPLY_PORT = 4;   /* the reply port is taken; nothing was sent */
constexpr int CTL_SYSTEM_ERROR = 5; /* the system refused a socket, memory, a file or the output */
constexpr int CTL_CANNOT_TELL = 6;  /* nothing is wrong, and no stream is seen */

/* Outlives the commands. */
struct CTL_CONTEXT_S {
    CONTROL_ENDPOINT_S stEndpoint;
    std::ostream &objOut; /* results */
    std::ostream &objErr; /* errors, each with the program's name in front */

    /* Tells the error, and where to read on; returns CTL_USAGE. */
    int Usage(const std::string &i_strError) const;
    /* Tells the error; returns the code. */
    int Fail(int i_s32Code, const std::string &i_strError) const;
};

using CRunCommand = std::function<int()>;

struct CTL_COMMAND_S {
    const char *pName;
    const char *pHelp;
    /* io_objApp: the command's own part of the command line. */
    CRunCommand (*pDescribe)(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext);
};

/* Options that several commands have. The targets outlive the command line's reading. */
void AddJsonOption(CLI::App &io_objApp, bool &o_bJson);
/* o_strTime is left empty unless the option is given. */
void AddTimeOption(CLI::App &io_objApp, const char *i_pName, std::string &o_strTime,
                   const std::string &i_strHelp);

/* Asks for every field; where there is no answer, tells why and returns the exit code in
 * o_s32Code. */
std::optional<CFieldValues> AskOrFail(const CTL_CONTEXT_S &i_stContext,
                                      std::chrono::milliseconds i_objTimeout, int &o_s32Code);
/* Tells why there was no answer and returns the exit code. */
int FailAnswer(const CTL_CONTEXT_S &i_stContext, const ANSWER_S &i_stAnswer,
               std::chrono::milliseconds i_objTimeout);
