/*
 * The sequence parameter set of an H.264 stream (ITU-T H.264, 7.3.2.1.1): what a person wants to
 * know of it. Pure function, any thread; the bytes may be anything.
 */
#pragma once

#include <optional>
#include <string>

#include "guard/rtp.h"

struct SPS_S {
    UInt32 u32Width = 0; /* pixels, after cropping */
    UInt32 u32Height = 0;
    std::string strProfile; /* "baseline", "main", "high", ..., or its number */
    std::string strLevel;   /* "4.1" */
};

/* Of a NAL unit with its header byte. None if it is cut or says what cannot be. */
std::optional<SPS_S> ParseSps(Bytes i_objUnit);
