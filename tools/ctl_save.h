/*
 * save: writes the running settings into the parameter file, so that they last.
 */
#pragma once

#include "tools/command.h"

struct SAVE_OPTIONS_S {
    bool bDryRun = false; /* shows the difference alone */
    bool bJson = false;
    std::string strFile = "/config/mv3300/param.xml";
};

CRunCommand DescribeSave(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext);

/* Writes those of the values that the file does not say, and tells the difference first. Returns
 * the exit code. */
int SaveSettings(const CTL_CONTEXT_S &i_stContext, const CFieldValues &i_objRunning,
                 const SAVE_OPTIONS_S &i_stOptions);
