/*
 * doctor: what is wrong when there is no picture, and what to do.
 */
#pragma once

#include "tools/command.h"

CRunCommand DescribeDoctor(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext);
