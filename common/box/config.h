/*
 * Configuration module: owns the typed configuration and answers the other modules' questions
 * about it.
 *
 * The module's thread reads the parameter file at its start. Changes by message stay in memory and
 * last until the next read of the file; nothing here writes the file. Every handler runs under
 * the module mutex, in the module's own thread (asynchronous messages) or in the sender's
 * (synchronous ones).
 */
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>

#include "common/bus/module.h"
#include "framework/types.h"

/* The ranges are the parameter table's. Compared byte for byte, so it has no padding and is zeroed
 * whole before it is filled. */
struct CONFIG_INFO_S {
    char szAddrList[512];      /* destination address list */
    char szAddrUrl[512];       /* address URL */
    UInt32 u32H264Enable;      /* 1 on, 0 off */
    SInt32 u32H264Gop;         /* GOP length, frames */
    char szH264Mode[32];       /* rate control, "vbr" or "cbr" */
    SInt32 u32H264Bitrate;     /* bit/s */
    UInt32 u32PrevEnable;      /* 1 on, 0 off */
    SInt32 u32PrevHeight;      /* preview picture height, lines */
    SInt32 u32PrevRefreshrate; /* preview pictures per second */
    char szSrcDeviceId[64];    /* source device id, "" when not set */
};
static_assert(sizeof(CONFIG_INFO_S) == 1144);
static_assert(offsetof(CONFIG_INFO_S, u32H264Enable) == 1024);
static_assert(offsetof(CONFIG_INFO_S, u32H264Bitrate) == 1064);
static_assert(offsetof(CONFIG_INFO_S, szSrcDeviceId) == 1080);

/* The configuration as the file last gave it; touched only while the file is being read. */
extern CONFIG_INFO_S g_stConfigInfo;

class CConfig : public CModule
{
public:
    /* i_pPath: the parameter file; has to outlive the object. */
    explicit CConfig(const char *i_pPath = "/config/mv3300/param.xml");
    ~CConfig() override { StopAndWaitForThread(); }

    /* Ends the wait for the parameter file's lock, and any later one: for the time when the process
     * stops, which another holder of the lock must not delay. Any thread may call it. */
    void AbandonLockWait() { m_bLockWaitAbandoned.store(true); }

    /* o_pResult: null, or a byte that is set to 1 when the configuration changed, to 0 when not. */
    int HandleReadConfigMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);
    /* The getters write to o_pResult, of 512 (the list) and 60 bytes, for a synchronous request and
     * answer any other by a message. */
    int HandleGetAddrList(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);
    int HandleGetStreamStatus(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);
    int HandleSetStreamStatus(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);

    /* --- Offered: nothing in the daemon sends the messages of what follows. ------------------ */

    /* Getters as above, of 512 and 64 bytes. */
    int HandleGetAddrUrl(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);
    int HandleGetSrcDeviceId(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);
    /* An id of exactly 12 characters. */
    int HandleSetSrcDeviceId(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);

private:
    int Dispatch(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult) override;
    /* Builds g_stConfigInfo from the parameters' buffers and takes it over. 1 it differs from
     * what the module had, 0 it is the same. */
    int GetConfigInfoFromFile();

    std::function<Bool()> LockWait();

    CONFIG_INFO_S m_stConfigInfo;
    const char *m_pPath;
    std::atomic<Bool> m_bLockWaitAbandoned;
};
