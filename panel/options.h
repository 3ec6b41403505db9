/*
 * What the panel is told when it starts: the command line and the configuration file, which has the
 * same names.
 */
#pragma once

#include <string>
#include <vector>

#include "framework/types.h"

struct PANEL_OPTIONS_S {
    std::string strAddress = "127.0.0.1"; /* of --listen */
    UInt16 u16Port = 8080;
    std::string strTlsCertificate; /* PEM files; both or none */
    std::string strTlsKey;
    std::vector<std::string> objHosts; /* names it may be called by, besides its own */
    std::string strRoot;               /* folder of the page's files */
    std::string strStateFile = "/run/mv3300/state.json";
    std::string strPreviewFile = "/tmp/image.jpeg";
    std::string strPasswordFile = "/config/mv3300/panel.password";
    std::string strParamFile = "/config/mv3300/param.xml";
    UInt16 u16StreamPort = 12346; /* 127.0.0.1; where the local copy of the stream comes in */
    UInt32 u32Viewers = 16;
    UInt32 u32Connections = 128;
    Bool bSetPassword = false;
};

enum class OptionsResult { Run, Done, Wrong };
/* Reads both; prints help, version or what is wrong. */
OptionsResult ReadOptions(int i_s32Argc, const char *const *i_pArgv, PANEL_OPTIONS_S &o_stOptions);
/* Where the page's files are: beside an installed program, or in the checkout that it was built in;
 * empty if in neither. */
std::string FindRoot();
