/*
 * What the pipeline tests send: start messages and tiny pipelines.
 */
#pragma once

#include <algorithm>
#include <cstring>
#include <string>

#include "common/bus/msg_queue.h"

/* Paced, since a source that never pauses can keep its locks from the thread that stops it. */
constexpr char kEndless[] = "fakesrc ! identity sleep-time=1000 ! fakesink";
constexpr char kDry[] = "fakesrc num-buffers=1 ! fakesink";
constexpr char kFailing[] = "fakesrc ! identity error-after=2 ! fakesink";
constexpr char kUnknown[] = "fakesrc ! nosuchelement ! fakesink";

inline MSG_DESC_INFO_S StartMsg(const std::string &i_strText)
{
    MSG_DESC_INFO_S stMsg = MakeMsg(MSG_TYPE_ASYNC, MODULE_ENCODER, MODULE_GST_H264, MSG_START);
    memcpy(stMsg.payload, i_strText.data(), std::min<size_t>(i_strText.size(), 1024));
    /* A text that fills the payload is not ended by what follows it. */
    memset(stMsg.tail, 'x', sizeof(stMsg.tail));
    return stMsg;
}
