/*
 * receive-kit: what a receiver of the stream needs, to be pasted there.
 */
#pragma once

#include "tools/command.h"

CRunCommand DescribeReceiveKit(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext);
