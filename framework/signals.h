/*
 * Signals that a program takes at a place of its choice (sigwait(3), signalfd(2)) instead of in a
 * handler.
 */
#pragma once

#include <initializer_list>

#include <signal.h>

/* Blocks the signals in the calling thread and in those that it starts from now on, and returns
 * their set. */
inline sigset_t BlockSignals(std::initializer_list<int> i_s32Signals)
{
    sigset_t stSignals;
    sigemptyset(&stSignals);
    for (const int s32Signal : i_s32Signals) {
        sigaddset(&stSignals, s32Signal);
    }
    pthread_sigmask(SIG_BLOCK, &stSignals, nullptr);
    return stSignals;
}
