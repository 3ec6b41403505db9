/*
 * doctor: what is wrong when there is no picture, and what to do.
 */
#pragma once

#include <string>

#include "tools/command.h"
#include "tools/doctor.h"

/* One look, told in both ways. */
struct DOCTOR_ANSWERS_S {
    std::string strText;
    std::string strJson;
    int s32Exit;
};

DOCTOR_ANSWERS_S AskDoctor(const CONTROL_ENDPOINT_S &i_stEndpoint, const DOCTOR_PATHS_S &i_stPaths);

CRunCommand DescribeDoctor(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext);
