/*
 * check: what the daemon makes of a parameter file and of the log configuration, and the pipelines
 * that it would start.
 */
#pragma once

#include "tools/command.h"

CRunCommand DescribeCheck(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext);
