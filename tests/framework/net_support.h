/*
 * The event thread, as the daemon sets it up.
 */
#pragma once

#include <algorithm>

#include <fcntl.h>
#include <sys/resource.h>

#include "framework/ev.h"
#include "framework/socket.h"
#include "tests/support/wait_until.h"

/* The socket layer with its event thread; later calls change nothing. */
inline void StartEvents()
{
    select_startevents();
    CSocket::Initialize();
    CSocket::StartThread();
}

/* Up to 2048 descriptors, where the system allows them. */
inline void AllowManyDescriptors()
{
    struct rlimit stLimit = {};
    getrlimit(RLIMIT_NOFILE, &stLimit);
    stLimit.rlim_cur = std::min<rlim_t>(2048, stLimit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &stLimit);
}

inline bool IsOpen(int i_s32FileDesc)
{
    return fcntl(i_s32FileDesc, F_GETFD) >= 0;
}
