/*
 * Preview monitor module: inotify loop, publication, reports.
 */
#include "common/box/monitor.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include <poll.h>
#include <sys/inotify.h>
#include <time.h>
#include <unistd.h>

#include "common/bus/log.h"
#include "common/bus/router.h"
#include "framework/unique_fd.h"

namespace
{
constexpr int kPollTimeoutMs = 1000;
constexpr SInt64 kReportPauseSec = 2;
constexpr unsigned kWriterPauseMs = 20;
constexpr std::size_t kEventBufferSize = 4096;
constexpr std::size_t kPathSize = 128;
} // namespace

CMonitor::CMonitor(std::string i_strDir, std::string i_strPicture)
    /* Kept: the line of a failed push names the capture module, which people search for. */
    : CModule(MODULE_MONITOR, "monitor", "CCapture", MSG_INIT), m_strDir(std::move(i_strDir)),
      m_strPicture(std::move(i_strPicture)), m_s64ReportTime(0), m_u32Count(0)
{
}

int CMonitor::HandleInitMsg(const MSG_DESC_INFO_S *, void *)
{
    main_loop();
    return 1;
}

SInt32 CMonitor::main_loop()
{
    LOG_INFO("start loop of monitor");
    UniqueFd objInotify(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!objInotify) {
        return -1;
    }
    const int s32Watch = inotify_add_watch(objInotify.Get(), m_strDir.c_str(), IN_MOVED_TO);
    if (s32Watch < 0) {
        return -1;
    }
    m_s64ReportTime = time(nullptr);
    m_u32Count = 0;
    struct pollfd stPoll = {objInotify.Get(), POLLIN, 0};
    while (true) {
        const int s32Ready = poll(&stPoll, 1, kPollTimeoutMs);
        const int s32Errno = errno;
        if (IsStopRequested()) {
            break;
        }
        ReportWhenDue();
        if (s32Ready < 0) {
            LOG_ERROR("poll errno:%d", s32Errno);
        } else if (s32Ready > 0 && (stPoll.revents & POLLIN) != 0) {
            ReadEvents(objInotify.Get(), s32Watch);
        }
    }
    objInotify.Reset();
    LOG_INFO("stop loop of monitor");
    return 0;
}

void CMonitor::ReportWhenDue()
{
    SInt64 s64Now = time(nullptr);
    const SInt64 s64Passed = s64Now - m_s64ReportTime;
    /* A wall clock set back must not stop the reports until it has caught up. */
    if (s64Passed >= 0 && s64Passed <= kReportPauseSec) {
        return;
    }
    /* Takes an empty directory too, which would block every later picture. */
    if (remove(m_strPicture.c_str()) != 0 && errno != ENOENT) {
        LOG_DEBUG("remove %s errno:%d", m_strPicture.c_str(), errno);
    }
    m_s64ReportTime = s64Now;
    MSG_DESC_INFO_S stMsg =
        MakeMsg(MSG_TYPE_ASYNC, MODULE_MONITOR, MODULE_ENCODER, MSG_ENC_JPEG_FILE_STATUS);
    const JPEG_FILE_STATUS_S stStatus = {s64Now, m_u32Count, 0};
    PutPayload(&stMsg, stStatus);
    SendSyncAndAsyncMsg(&stMsg, nullptr);
}

void CMonitor::ReadEvents(int i_s32Fd, int i_s32Watch)
{
    alignas(struct inotify_event) char szEvents[kEventBufferSize];
    while (!IsStopRequested()) {
        ssize_t s64Len = read(i_s32Fd, szEvents, sizeof(szEvents));
        if (s64Len <= 0) {
            if (s64Len < 0 && errno != EAGAIN) {
                LOG_ERROR("read fd:%d errno:%d", i_s32Fd, errno);
            }
            return;
        }
        for (ssize_t s64At = 0; s64At < s64Len;) {
            /* The kernel pads names, so that every record is aligned (inotify(7)). */
            const void *pRecord = szEvents + s64At;
            const auto *pEvent = static_cast<const struct inotify_event *>(pRecord);
            /* A full kernel queue and a removed watch report themselves as events, too. */
            if ((pEvent->mask & IN_MOVED_TO) != 0 && pEvent->wd == i_s32Watch && pEvent->len > 0 &&
                pEvent->name[0] != '\0') {
                /* Pictures that keep coming keep the loop from its poll, and one read holds up to
                 * two seconds of them. Before the picture, which it would otherwise remove. */
                ReportWhenDue();
                Publish(pEvent->name);
            }
            s64At += static_cast<ssize_t>(sizeof(*pEvent) + pEvent->len);
        }
    }
}

void CMonitor::Publish(const char *i_pName)
{
    LOG_DEBUG("file name: %s", i_pName);
    char szPath[kPathSize];
    int s32Len = snprintf(szPath, sizeof(szPath), "%s%s", m_strDir.c_str(), i_pName);
    if (s32Len >= static_cast<int>(sizeof(szPath))) {
        /* The picture counts all the same, but its cut path names another file or, as a rule,
         * none: then the rename fails and the picture stays where it is. */
        LOG_DEBUG("file name too long: %s", i_pName);
    }
    Sleep(kWriterPauseMs); /* the writer may still be at work on the file */
    (void)rename(szPath, m_strPicture.c_str());
    m_u32Count++;
}
