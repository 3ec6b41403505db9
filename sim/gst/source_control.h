/*
 * The orders a person or a test gives to the stand-in video source, one file per device.
 *
 * The file for "/dev/video0" is "/run/mv3300-sim/video0". Its first line is one of these; a second
 * is what the device answers when it is asked for its timing (sim/capture/capture.cpp):
 *
 *   run            deliver pictures (also when the file is missing or empty)
 *   fail           report a read error, once
 *   end            end the stream, once
 *   stall          deliver nothing until told otherwise
 *   switch WxH@F   the input has changed: a pipeline with any other format ends with a
 *                  not-negotiated error, one with this format runs
 *   absent         the device cannot be opened
 *   slow MS        deliver pictures, but take MS milliseconds to start
 *
 * "fail" and "end" are obeyed once: the source then writes "run" into the file itself, so whoever
 * gave the order can see that it was carried out. All others hold until replaced.
 * Used by one thread at a time.
 */
#pragma once

#include <string>

#include <sys/stat.h>

#include "framework/types.h"

enum SIM_ORDER_E {
    SIM_ORDER_RUN,
    SIM_ORDER_FAIL,
    SIM_ORDER_END,
    SIM_ORDER_STALL,
    SIM_ORDER_SWITCH,
    SIM_ORDER_ABSENT,
    SIM_ORDER_SLOW,
};

struct SIM_ORDER_S {
    SIM_ORDER_E eKind = SIM_ORDER_RUN;
    SInt32 s32Width = 0; /* SIM_ORDER_SWITCH */
    SInt32 s32Height = 0;
    SInt32 s32Fps = 0;
    SInt32 s32Milliseconds = 0; /* SIM_ORDER_SLOW */
};

/* False when the line is none of the orders above; o_pOrder is then left alone. */
Bool ParseSimOrder(const std::string &i_strLine, SIM_ORDER_S *o_pOrder);

class CSourceControl
{
public:
    /* The order file of the device, for example "/dev/video0". */
    void SetDevice(const std::string &i_strDevice);
    /* The order in force. Costs one stat(2) unless the file changed. */
    const SIM_ORDER_S &Read();
    /* A one-time order was carried out: back to "run", in the file too. */
    void Done();

private:
    void Load();

    std::string m_strPath;
    struct stat m_stSeen = {};
    SIM_ORDER_S m_stOrder;
};
