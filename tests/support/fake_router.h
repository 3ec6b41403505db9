/*
 * Stands in for the router in test programs that hold single modules: records what is sent and
 * lets the test answer. Add fake_router.cpp to the program's own sources.
 */
#pragma once

#include <chrono>
#include <functional>
#include <vector>

#include "common/bus/router.h"

namespace fake_router
{
/* Called for every message in its sender's thread, without a lock held; its result is the
 * router's. Set it while no module thread runs. Without one every message is answered with 1. */
void OnMessage(std::function<int(const MSG_DESC_INFO_S &, void *)> i_pHandler);
/* Messages of this number, in the order of sending. */
std::vector<MSG_DESC_INFO_S> Sent(UInt32 i_u32MsgNo);
/* Waits until at least i_u64Count of them were sent; false after the limit. */
bool WaitForSent(UInt32 i_u32MsgNo, std::size_t i_u64Count,
                 std::chrono::milliseconds i_objLimit = std::chrono::seconds(20));
} // namespace fake_router
