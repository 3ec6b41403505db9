/*
 * Hearing the bridge driver's uevents, and telling the daemon a timing as the driver would.
 *
 * The daemon's socket has its process id as netlink port: a datagram sent there reaches it and
 * nobody else, and takes CAP_NET_ADMIN (netlink(7)).
 */
#pragma once

#include <optional>

#include "framework/unique_fd.h"
#include "guard/timing.h"

/* Non-blocking socket that hears the kernel's uevents; no privilege needed. None: errno says why.
 */
UniqueFd OpenUevents();
/* The next timing that is waiting there; none when nothing waits any more. What did not go to every
 * listener is no event of the driver's and is passed over. */
std::optional<TIMING_S> NextTiming(int i_s32Fd);
/* 0 or errno: EPERM without the capability, ECONNREFUSED while the daemon does not listen. */
int TellDaemon(SInt32 i_s32Pid, const TIMING_S &i_stTiming);
