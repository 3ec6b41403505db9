/*
 * A stand-in for the daemon's end of the control channel, on ports of its own: it answers asks,
 * checks and takes sets, and drops the mode, as the daemon does.
 */
#pragma once

#include <array>
#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "framework/unique_fd.h"
#include "tools/control_channel.h"

class CFakeDaemon
{
public:
    CFakeDaemon();
    ~CFakeDaemon();
    CFakeDaemon(const CFakeDaemon &) = delete;
    CFakeDaemon &operator=(const CFakeDaemon &) = delete;

    CONTROL_ENDPOINT_S Endpoint() const { return m_stEndpoint; }
    /* A field's number by its place; the mode is always "vbr". */
    int Value(std::size_t i_u64Field) const;
    void SetValue(std::size_t i_u64Field, int i_s32Value);
    /* Sends these bytes ahead of every reply. */
    void SendBeforeReply(const std::string &i_strBytes);

    /* Only the first so many requests are answered. */
    std::atomic<int> m_s32Answers{1000000};
    /* A set shows only after this many further requests, as when the stream is restarting. */
    std::atomic<int> m_s32Lag{0};
    std::atomic<int> m_s32Requests{0};

private:
    void Run();
    void Handle(const std::string &i_strRequest);
    void Reply(const std::string &i_strBytes) const;

    CONTROL_ENDPOINT_S m_stEndpoint;
    UniqueFd m_objFd;
    mutable std::mutex m_objMutex;
    std::array<int, 7> m_s32Values{1, 60, 0, 1000000, 1, 720, 1};
    std::array<int, 7> m_s32Pending{-1, -1, -1, -1, -1, -1, -1};
    int m_s32PendingLag = 0;
    std::string m_strBefore;
    std::atomic<bool> m_bStop{false};
    std::thread m_objThread;
};
