/*
 * The uevent with which the HDMI bridge's driver announces an input timing, as text and bytes.
 *
 * Pure functions; the socket is in send.cpp.
 */
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "framework/types.h"

/* A variable and its value, in the order in which they stand in the event. */
using UeventVars = std::vector<std::pair<std::string, std::string>>;

/* Turns what a person says into the driver's "WIDTHxHEIGHT@FPS-INTERLACED": that itself,
 * "1920x1080@60" (progressive), or "1080p60" and "1080i50" for the usual heights 480, 576, 720,
 * 1080 and 2160. False when it is none of these; o_pEvent is then left alone. */
Bool TimingToEvent(const std::string &i_strTiming, std::string *o_pEvent);

/* What the driver sends with the given EVENT text. */
UeventVars BridgeEvent(const std::string &i_strEvent);

/* Replaces the variable's value, or adds it at the end. */
void SetVar(UeventVars *io_pVars, const std::string &i_strName, const std::string &i_strValue);

/* The event as the kernel lays it out: "ACTION@DEVPATH" and each "NAME=value", each ended by a
 * NUL. */
std::string UeventPayload(const UeventVars &i_objVars);
