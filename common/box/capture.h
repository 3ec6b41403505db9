/*
 * Capture module: follows the HDMI bridge driver's kernel uevents and sends each announced input
 * timing to the encoder.
 *
 * Its thread handles the init message that it posts to itself and from then on lives in
 * uevent_loop(), under the module mutex, until it is asked to stop. No other thread touches the
 * members; the only output is an asynchronous message.
 */
#pragma once

#include <cstddef>

#include "common/bus/module.h"
#include "framework/types.h"

/* What one uevent datagram says. The texts point into the datagram; never null. */
struct uevent {
    const char *action;
    const char *devpath;
    const char *subsystem;
    const char *firmware;
    SInt32 major; /* -1: not given */
    SInt32 minor; /* -1: not given */
    const char *driver;
    const char *event;
    INPUT_TIMING_S timing; /* zeros where none was read */
};

class CCapture : public CModule
{
public:
    /* Longest datagram taken from the kernel; what is longer is cut. */
    static constexpr std::size_t UEVENT_MSG_LEN = 4096;

    CCapture() : CModule(MODULE_CAPTURE, "capture", "CCapture", MSG_INIT) {}
    ~CCapture() override { StopAndWaitForThread(); }

    /* Returns when a stop was requested. */
    int HandleInitMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult) override;

    /* Non-blocking socket on all uevent groups of the kernel (netlink(7)), bound to the process
     * id; the caller closes it. -1 if it cannot be had. */
    int open_uevent_socket();
    /* Opens the socket, retrying every second, and handles datagrams until a stop is requested.
     * The argument is not used. */
    void uevent_loop(void *i_pArg);
    /* Reads one datagram, "KEY=value" lines that each end in a NUL with an empty line behind the
     * last, into *o_pEvent; sends the timing if the bridge driver announced one. */
    void parse_event(const char *i_pBuffer, uevent *o_pEvent);

private:
    int OpenUntilStop();
    void ReceiveAll(int i_s32Fd);
};
