/*
 * Asks the capture device for the timing of its input (VIDIOC_QUERY_DV_TIMINGS of the V4L2
 * documentation), on the video device and, where the bridge's driver has it there, on the
 * sub-devices. Works beside a running stream. Any thread.
 */
#pragma once

#include <string>

#include <linux/videodev2.h>

#include "guard/condition.h"

struct QUERY_S {
    Link eLink = Link::Unknown; /* Unknown: no device tells */
    TIMING_S stTiming;          /* zeros unless the link is Ok */
    std::string strFact;        /* which device said what, for people */
};

QUERY_S QueryCapture(const std::string &i_strDevice = "/dev/video0");

/* Pictures a second are rounded to a whole number, as the driver announces them. */
TIMING_S TimingOfBt(const v4l2_bt_timings &i_stBt);
