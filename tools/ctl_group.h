/*
 * group: the multicast groups of a fleet, by hardware addresses, and which boxes would share one.
 */
#pragma once

#include "tools/command.h"

CRunCommand DescribeGroup(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext);
