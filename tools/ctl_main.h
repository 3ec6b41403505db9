/*
 * The control client's command line.
 */
#pragma once

#include <ostream>

#include "tools/command.h"

/* Runs one command line against the daemon at the endpoint and returns the exit code. Results go
 * to io_objOut, errors to io_objErr. */
int RunCtl(int i_s32Argc, const char *const *i_pArgv, const CONTROL_ENDPOINT_S &i_stEndpoint,
           std::ostream &io_objOut, std::ostream &io_objErr);
