/*
 * announce: tells the daemon an input timing, as the guard does by itself.
 */
#pragma once

#include "tools/command.h"

CRunCommand DescribeAnnounce(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext);
