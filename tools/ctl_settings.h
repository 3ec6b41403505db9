/*
 * get, set and watch: the settings of the running daemon.
 */
#pragma once

#include "tools/command.h"

CRunCommand DescribeGet(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext);
CRunCommand DescribeSet(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext);
CRunCommand DescribeWatch(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext);
