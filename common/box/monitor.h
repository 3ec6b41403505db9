/*
 * Preview monitor module: publishes each picture that is moved into the preview directory under
 * one fixed path, and every three seconds removes it there, so that no stale one stays, and
 * reports to the encoder how many were published.
 *
 * Its thread handles the init message that it posts to itself and from then on lives in
 * main_loop(), under the module mutex, until it is asked to stop. It shares nothing but the files
 * and the asynchronous message.
 */
#pragma once

#include <string>

#include "common/bus/module.h"
#include "framework/types.h"

class CMonitor : public CModule
{
public:
    /* i_strDir: where pictures are moved in, with a slash at the end; must exist when the loop
     * starts. i_strPicture: the path they are published under, on the same file system. */
    explicit CMonitor(std::string i_strDir = "/tmp/image/",
                      std::string i_strPicture = "/tmp/image.jpeg");
    ~CMonitor() override { StopAndWaitForThread(); }

    /* Returns when a stop was requested, or at once if the directory cannot be watched. */
    int HandleInitMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult) override;

    /* 0 after a stop request; -1 if the directory cannot be watched. */
    SInt32 main_loop();

private:
    void ReportWhenDue();
    void ReadEvents(int i_s32Fd, int i_s32Watch);
    void Publish(const char *i_pName);

    const std::string m_strDir;
    const std::string m_strPicture;
    SInt64 m_s64ReportTime; /* seconds since the epoch */
    UInt32 m_u32Count;      /* pictures published since the loop started */
};
