/*
 * Texts of the two pipelines, from the input timing and the stream settings.
 *
 * Pure functions: no state, no thread, no clock. A text that would pass its limit is cut there.
 */
#pragma once

#include <string>

#include "common/bus/msg_queue.h"

/* Port on which every receiver of the derived multicast group listens. */
constexpr int kStreamPort = 59202;

/* Preview picture width for the input's aspect: width x preview height / height, rounded towards
 * zero; 0 for an input height of 0. */
SInt32 PreviewWidth(const INPUT_TIMING_S &i_stTiming, UInt32 i_u32PrevHeight);

/* The receivers that multiudpsink sends to, at most 767 characters: the address list, or the
 * multicast address where the list is empty, while H.264 is on; the local hop to the preview while
 * the preview is on. Empty when both are off. */
std::string BuildClients(const STREAM_STATUS_S &i_stStatus, const std::string &i_strAddrList,
                         const std::string &i_strMulticastIp);

/* Capture, encode and send; at most 1023 characters. */
std::string BuildH264Cmd(const INPUT_TIMING_S &i_stTiming, const STREAM_STATUS_S &i_stStatus,
                         const std::string &i_strClients);

/* Receive the local hop, decode, scale and write JPEG files; at most 1023 characters. */
std::string BuildJpegCmd(const INPUT_TIMING_S &i_stTiming, const STREAM_STATUS_S &i_stStatus);

/* --- Offered: nothing in the daemon asks for what follows. ------------------------------------ */
/* Capture and send to the address list without a timing; at most 1023 characters. */
std::string BuildPlainCmd(const std::string &i_strAddrList);
