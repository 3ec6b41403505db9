/*
 * The control client's commands: get, set and watch.
 */
#pragma once

#include <ostream>

#include "tools/control_channel.h"

/* Exit codes */
constexpr int CTL_OK = 0;
constexpr int CTL_NOT_TAKEN = 1;    /* a set value was refused or did not take effect */
constexpr int CTL_USAGE = 2;        /* the command line cannot be understood */
constexpr int CTL_NO_ANSWER = 3;    /* no daemon, no answer, or what was set cannot be read back */
constexpr int CTL_REPLY_PORT = 4;   /* the reply port is taken; nothing was sent */
constexpr int CTL_SYSTEM_ERROR = 5; /* the system refused a socket, memory or the output */

/* Runs one command line against the daemon at the endpoint and returns the exit code. Results go
 * to io_objOut, errors to io_objErr. */
int RunCtl(int i_s32Argc, const char *const *i_pArgv, const CONTROL_ENDPOINT_S &i_stEndpoint,
           std::ostream &io_objOut, std::ostream &io_objErr);
