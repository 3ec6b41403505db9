/*
 * Capture module: uevent socket, datagram parser, watcher loop.
 */
#include "common/box/capture.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/bus/log.h"
#include "common/bus/router.h"
#include "framework/unique_fd.h"

namespace
{
constexpr int kPollTimeoutMs = 1000;
constexpr unsigned kReopenPauseMs = 1000;
constexpr int kReceiveBufferSize = 65536;

bool BeginsWith(const char *i_pText, const char *i_pPrefix)
{
    return strncmp(i_pText, i_pPrefix, strlen(i_pPrefix)) == 0;
}

/* One signed decimal, after white space; numbers beyond an int are cut to its range. Returns what
 * follows it, null if no number stands there. */
const char *ReadDecimal(const char *i_pText, SInt32 *o_pValue)
{
    char *pEnd = nullptr;
    long s64Value = strtol(i_pText, &pEnd, 10);
    if (pEnd == i_pText) {
        return nullptr;
    }
    *o_pValue = static_cast<SInt32>(std::clamp<long>(s64Value, INT_MIN, INT_MAX));
    return pEnd;
}

/* "%dx%d@%d-%d" as sscanf(3) reads it, except that absurdly long numbers have a defined value;
 * whatever cannot be read stays as it is. */
void ReadTiming(const char *i_pText, INPUT_TIMING_S *o_pTiming)
{
    SInt32 *const pFields[] = {&o_pTiming->width, &o_pTiming->height, &o_pTiming->fps,
                               &o_pTiming->interlaced};
    const char cSeparators[] = {'x', '@', '-', '\0'};
    for (int i = 0; i < 4; i++) {
        i_pText = ReadDecimal(i_pText, pFields[i]);
        if (i_pText == nullptr || *i_pText != cSeparators[i]) {
            return;
        }
        i_pText++;
    }
}

void ReadNumber(const char *i_pText, SInt32 *o_pValue)
{
    *o_pValue = 0;
    ReadDecimal(i_pText, o_pValue);
}

/* Stores the line's value in the field that its key names; lines with other keys are ignored. */
void ReadLine(const char *i_pLine, int i_s32Line, uevent *o_pEvent)
{
    const struct {
        const char *pKey;
        const char **pText;
        SInt32 *pNumber;
        bool bLogged;
    } stKeys[] = {
        {"ACTION=", &o_pEvent->action, nullptr, true},
        {"DEVPATH=", &o_pEvent->devpath, nullptr, false},
        {"SUBSYSTEM=", &o_pEvent->subsystem, nullptr, true},
        {"FIRMWARE=", &o_pEvent->firmware, nullptr, false},
        {"MAJOR=", nullptr, &o_pEvent->major, false},
        {"MINOR=", nullptr, &o_pEvent->minor, false},
        {"DRIVER=", &o_pEvent->driver, nullptr, true},
        {"EVENT=", &o_pEvent->event, nullptr, true},
    };
    for (const auto &stKey : stKeys) {
        if (!BeginsWith(i_pLine, stKey.pKey)) {
            continue;
        }
        const char *pValue = i_pLine + strlen(stKey.pKey);
        if (stKey.pNumber != nullptr) {
            ReadNumber(pValue, stKey.pNumber);
        } else {
            *stKey.pText = pValue;
        }
        if (stKey.bLogged) {
            LOG_DEBUG("line:%d,msg:{%s}", i_s32Line, i_pLine);
        }
        return;
    }
}

void SendTiming(const INPUT_TIMING_S &i_stTiming)
{
    MSG_DESC_INFO_S stMsg =
        MakeMsg(MSG_TYPE_ASYNC, MODULE_CAPTURE, MODULE_ENCODER, MSG_ENC_VIDEO_CHG);
    PutPayload(&stMsg, i_stTiming);
    SendSyncAndAsyncMsg(&stMsg, nullptr);
}
} // namespace

int CCapture::HandleInitMsg(const MSG_DESC_INFO_S *, void *)
{
    uevent_loop(nullptr);
    return 1;
}

int CCapture::open_uevent_socket()
{
    UniqueFd objFd(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT));
    if (!objFd) {
        return -1;
    }
    setsockopt(objFd.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBufferSize,
               sizeof(kReceiveBufferSize));
    struct sockaddr_nl stAddr = {};
    stAddr.nl_family = AF_NETLINK;
    stAddr.nl_pid = static_cast<UInt32>(getpid());
    stAddr.nl_groups = 0xFFFFFFFF;
    if (bind(objFd.Get(), reinterpret_cast<struct sockaddr *>(&stAddr), sizeof(stAddr)) != 0) {
        return -1;
    }
    fcntl(objFd.Get(), F_SETFL, fcntl(objFd.Get(), F_GETFL) | O_NONBLOCK);
    return objFd.Release();
}

void CCapture::uevent_loop(void *)
{
    UniqueFd objFd(OpenUntilStop());
    struct pollfd stPoll = {objFd.Get(), POLLIN, 0};
    while (objFd) {
        int s32Ready = poll(&stPoll, 1, kPollTimeoutMs);
        if (IsStopRequested()) {
            break;
        }
        if (s32Ready < 0) {
            LOG_ERROR("poll errno:%d", errno);
        } else if (s32Ready > 0 && (stPoll.revents & POLLIN) != 0) {
            ReceiveAll(objFd.Get());
        }
    }
    /* Kept: descriptor 0 stays open, because it may be the process's standard input. */
    if (objFd.Get() == 0) {
        (void)objFd.Release();
    }
}

int CCapture::OpenUntilStop()
{
    int s32Fd = -1;
    while (s32Fd < 0 && !IsStopRequested()) {
        s32Fd = open_uevent_socket();
        if (s32Fd < 0) {
            LOG_ERROR("open_uevent_socket error");
            Sleep(kReopenPauseMs);
        }
        LOG_INFO("uevent device_fd = %d", s32Fd);
    }
    return s32Fd;
}

void CCapture::ReceiveAll(int i_s32Fd)
{
    /* Two more than a datagram: the last line's end and the empty line behind it. */
    char szBuffer[UEVENT_MSG_LEN + 2];
    while (!IsStopRequested()) {
        ssize_t s64Len = recv(i_s32Fd, szBuffer, UEVENT_MSG_LEN, 0);
        if (s64Len < 0) {
            if (errno != EAGAIN) {
                LOG_ERROR("read fd:%d errno:%d", i_s32Fd, errno);
            }
            return;
        }
        szBuffer[s64Len] = '\0';
        szBuffer[s64Len + 1] = '\0';
        uevent stEvent;
        parse_event(szBuffer, &stEvent);
    }
}

void CCapture::parse_event(const char *i_pBuffer, uevent *o_pEvent)
{
    *o_pEvent = {"", "", "", "", -1, -1, "", "", {}};
    int s32Line = 1;
    for (const char *pLine = i_pBuffer; *pLine != '\0'; pLine += strlen(pLine) + 1) {
        ReadLine(pLine, s32Line, o_pEvent);
        s32Line++;
    }
    LOG_INFO("event {'%s', '%s', '%s', '%s'}", o_pEvent->driver, o_pEvent->subsystem,
             o_pEvent->action, o_pEvent->event);
    if (!BeginsWith(o_pEvent->driver, "tc358743") || !BeginsWith(o_pEvent->subsystem, "i2c")) {
        return;
    }
    ReadTiming(o_pEvent->event, &o_pEvent->timing);
    LOG_INFO("width:%d, height:%d, fps:%d, interlaced:%d", o_pEvent->timing.width,
             o_pEvent->timing.height, o_pEvent->timing.fps, o_pEvent->timing.interlaced);
    SendTiming(o_pEvent->timing);
}
